#include "utils/MKLock.h"

#include "utils/ExSystemError.h"
#include "utils/fd_io.h"
#include "utils/md5.h"
#include "utils/product_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

const char MK_LOCK_DIR[] = "/var/lock/files";

namespace {

std::string &lock_dir_override()
{
    static std::string dir;
    return dir;
}

// O_NOFOLLOW: the directory sits on a world-writable tmpfs parent, and an
// O_TRUNC through a planted symlink would truncate whatever it points at.
int open_lock_file(const char *path)
{
    return fd_io::open_retry(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0644);
}

lock_struct_t *mk_lock_(const char *name, int derive, bool nonblock)
{
    lock_struct_t *lock = static_cast<lock_struct_t *>(std::calloc(1, sizeof *lock));
    if (lock == nullptr)
        return nullptr;
    lock->path = derive ? mk_flock_path(name) : strdup(name);
    if (lock->path == nullptr) {
        std::free(lock);
        return nullptr;
    }

    int fd = open_lock_file(lock->path);
    if (fd < 0 && errno == ENOENT && derive) {
        if (mkdir(mk_lock_dir(), 0755) == 0 || errno == EEXIST)
            fd = open_lock_file(lock->path);
        else
            errno = ENOENT;
    }
    if (fd < 0) {
        const int saved = errno;
        messlog2(0, 0, "Unable to open file \"%s\": %s.", lock->path, std::strerror(saved));
        errno = saved;
        lock->fd = -1;
        return lock;
    }
    // With standard input closed open() can hand out 0, which the record
    // would read as "held elsewhere".
    if (fd == 0) {
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        fd_io::close_quietly(fd);
        if (moved < 0) {
            lock->fd = -1;
            return lock;
        }
        fd = moved;
    }

    if (fd_io::retry_eintr([&] { return flock(fd, LOCK_EX | (nonblock ? LOCK_NB : 0)); }) != 0) {
        fd_io::close_quietly(fd);
        lock->fd = errno == EWOULDBLOCK ? 0 : -1;
        return lock;
    }
    lock->fd = fd;
    return lock;
}

} // namespace

void mk_lock_set_dir_for_testing(const char *dir)
{
    lock_dir_override() = dir != nullptr ? dir : "";
}

const char *mk_lock_dir()
{
    const std::string &dir = lock_dir_override();
    return dir.empty() ? MK_LOCK_DIR : dir.c_str();
}

char *mk_flock_path(const char *name)
{
    try {
        const std::string digest = zarnet::md5Hex(name, std::strlen(name));
        const char *dir = mk_lock_dir();
        const size_t size = std::strlen(dir) + 1 + digest.size() + 1;
        char *path = static_cast<char *>(std::malloc(size));
        if (path != nullptr)
            std::snprintf(path, size, "%s/%s", dir, digest.c_str());
        return path;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return nullptr;
    }
}

lock_struct_t *mk_lock(const char *name, int derive)
{
    return mk_lock_(name, derive, false);
}

lock_struct_t *mk_nonblock_lock(const char *name, int derive)
{
    return mk_lock_(name, derive, true);
}

lock_struct_t *mk_held_lock(const char *name, int derive)
{
    lock_struct_t *lock = mk_lock(name, derive);
    if (is_locked(lock))
        return lock;
    const int saved = lock == nullptr ? ENOMEM : errno;
    free_lock(lock);
    errno = saved;
    return nullptr;
}

int is_locked(const lock_struct_t *lock)
{
    return lock != nullptr && lock->fd > 0;
}

int is_already_locked(const lock_struct_t *lock)
{
    return lock == nullptr || lock->fd == 0;
}

int rm_lock(lock_struct_t *lock)
{
    if (lock == nullptr)
        return 0;
    int result = 0;
    if (lock->fd > 0 && fd_io::close_fd(lock->fd) != 0) {
        const int saved = errno;
        messlog2(0, 0, "An error occured during closing '%s' file: %s\n", lock->path,
                 std::strerror(saved));
        errno = saved;
        result = -1;
    }
    std::free(lock->path);
    std::free(lock);
    return result;
}

void free_lock(lock_struct_t *lock)
{
    rm_lock(lock);
}

namespace zarnet {

MKLock::MKLock(const std::string &name, FilenameFlag filename, BlockFlag block)
{
    errno = 0;
    const int derive = filename == DeriveName ? 1 : 0;
    lock_ = block == NonBlock ? mk_nonblock_lock(name.c_str(), derive)
                              : mk_lock(name.c_str(), derive);
    if (lock_ == nullptr)
        throw std::bad_alloc();
    if (lock_->fd < 0) {
        const int saved = errno;
        free_lock(lock_);
        throwSystemError("lock() failed", saved);
    }
    if (lock_->fd == 0) {
        free_lock(lock_);
        throw std::runtime_error("lock(" + name + ") failed: file is already locked");
    }
}

MKLock::~MKLock()
{
    const int saved = errno;
    rm_lock(lock_);
    errno = saved;
}

} // namespace zarnet
