#include "utils/copy_file.h"

#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/product_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

const size_t block_size = 4096;

// Copies and closes nothing; the caller owns both descriptors.
int copy_blocks(int in, int out, const char *src, const char *dst)
{
    char buf[block_size];
    for (;;) {
        const ssize_t got = fd_io::read_retry(in, buf, sizeof buf);
        if (got < 0) {
            messlog2(0, 0, "Unable to read file %s: %s", src, std::strerror(errno));
            return 1;
        }
        if (got == 0)
            return 0;
        errno = 0;
        const ssize_t put = fd_io::write_all(out, buf, static_cast<size_t>(got));
        if (put < 0) {
            messlog2(0, 0, "Error while copying file %s to %s: %s", src, dst, std::strerror(errno));
            return 1;
        }
        if (put != got) {
            messlog2(0, 0, "Unable to copy file %s to %s: %s\n", src, dst, std::strerror(errno));
            return 1;
        }
    }
}

// Opens dst emptied, or -1 with errno. A dst that is src under another name
// is opened as it is, with same set: O_TRUNC would empty the source before a
// byte of it was read.
int open_destination(const char *dst, const struct stat &src, bool &same)
{
    const int fd = fd_io::open_regular(dst, O_WRONLY | O_CREAT, src.st_mode & 07777);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        fd_io::close_quietly(fd);
        return -1;
    }
    same = st.st_dev == src.st_dev && st.st_ino == src.st_ino;
    if (!same && fd_io::retry_eintr([&] { return ftruncate(fd, 0); }) != 0) {
        fd_io::close_quietly(fd);
        return -1;
    }
    return fd;
}

int copy_locked(const char *src, const char *dst)
{
    const int in = fd_io::open_regular(src, O_RDONLY);
    if (in < 0) {
        messlog2(0, 0, "Unable to open file %s: %s", src, fd_io::open_error_text(errno));
        return 1;
    }
    struct stat st;
    if (fstat(in, &st) != 0) {
        messlog2(0, 0, "Unable to open file %s: %s", src, std::strerror(errno));
        fd_io::close_fd(in);
        return 1;
    }
    const bool to_stdout = std::strcmp(dst, "-") == 0;
    int out = STDOUT_FILENO;
    if (to_stdout) {
        // Whatever the caller printed through stdio must come first.
        std::fflush(stdout);
    } else {
        bool same = false;
        out = open_destination(dst, st, same);
        if (out < 0) {
            messlog2(0, 0, "Unable to open file %s: %s", dst, fd_io::open_error_text(errno));
            fd_io::close_fd(in);
            return 1;
        }
        if (same) {
            fd_io::close_fd(out);
            fd_io::close_fd(in);
            return 0;
        }
    }

    int result = copy_blocks(in, out, src, dst);
    if (fd_io::close_fd(in) != 0 && result == 0) {
        messlog2(0, 0, "Unable to close file %s: %s\n", src, std::strerror(errno));
        result = 1;
    }
    if (!to_stdout && fd_io::close_fd(out) != 0 && result == 0) {
        messlog2(0, 0, "Unable to close file %s: %s\n", dst, std::strerror(errno));
        result = 1;
    }
    return result;
}

[[noreturn]] void atomic_failed(const char *src, const char *dst, const char *step,
                                const std::string &tmp = std::string())
{
    const int saved = errno;
    if (!tmp.empty())
        unlink(tmp.c_str());
    errno = saved;
    messlog2(1, 0, "copy_file_atomic(%s -> %s): %s failed", src, dst, step);
    std::exit(1); // not reached
}

} // namespace

int copy_file(const char *src, const char *dst)
{
    if (std::strcmp(src, dst) == 0)
        return 0;

    lock_struct_t *lock = mk_held_lock(dst, 1);
    if (lock == nullptr) {
        messlog2(0, 0, "Error occurred while locking the file %s\n", dst);
        return 1;
    }
    const int result = copy_locked(src, dst);
    const int saved = errno;
    if (rm_lock(lock) != 0)
        messlog2(0, 0, "Error occurred while unlocking the file %s\n", dst);
    errno = saved;
    return result;
}

void copy_file_atomic(const char *src, const char *dst, uid_t owner, gid_t group, mode_t mode)
{
    const int in = fd_io::open_regular(src, O_RDONLY);
    if (in < 0)
        atomic_failed(src, dst, "open");
    copy_fd_atomic(in, src, dst, owner, group, mode);
    fd_io::close_fd(in);
}

void copy_fd_atomic(int in, const char *src, const char *dst, uid_t owner, gid_t group, mode_t mode)
{
    std::string tmp;
    try {
        tmp = std::string(dst) + ".XXXXXX";
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        messlog2(1, 0, "Allocation failed");
        std::exit(1); // not reached
    }
    const int out = mkostemp(&tmp[0], O_CLOEXEC);
    if (out < 0)
        atomic_failed(src, dst, "mkstemp");

    char buf[block_size];
    // From the start whatever the offset: one source may feed several copies.
    for (off_t at = 0;;) {
        const ssize_t got = fd_io::retry_eintr([&] { return pread(in, buf, sizeof buf, at); });
        if (got < 0)
            atomic_failed(src, dst, "read", tmp);
        if (got == 0)
            break;
        errno = 0;
        if (fd_io::write_all(out, buf, static_cast<size_t>(got)) != got) {
            if (errno == 0)
                errno = EIO;
            atomic_failed(src, dst, "write", tmp);
        }
        at += got;
    }

    // chown before chmod: chown clears set-id bits the mode may ask for.
    if (fd_io::retry_eintr([&] { return fchown(out, owner, group); }) != 0)
        atomic_failed(src, dst, "chown", tmp);
    if (fd_io::retry_eintr([&] { return fchmod(out, mode); }) != 0)
        atomic_failed(src, dst, "chmod", tmp);
    if (fd_io::fsync_retry(out) != 0 || fd_io::close_fd(out) != 0)
        atomic_failed(src, dst, "flush", tmp);
    if (rename(tmp.c_str(), dst) != 0)
        atomic_failed(src, dst, "rename", tmp);
    fd_io::sync_parent_directory(dst);
}
