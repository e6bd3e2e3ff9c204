#include "utils/copy_file.h"

#include "utils/MKLock.h"
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

int open_retry(const char *path, int flags, mode_t mode = 0)
{
    int fd;
    do
        fd = open(path, flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t read_retry(int fd, char *buf, size_t size)
{
    ssize_t got;
    do
        got = read(fd, buf, size);
    while (got < 0 && errno == EINTR);
    return got;
}

// -1 with errno on failure; 0 when a write wrote nothing, so the caller can
// tell a full device that says nothing from a reported error.
ssize_t write_all(int fd, const char *p, size_t n)
{
    const size_t total = n;
    while (n > 0) {
        const ssize_t done = write(fd, p, n);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return done;
        p += done;
        n -= static_cast<size_t>(done);
    }
    return static_cast<ssize_t>(total);
}

// Not retried on EINTR: Linux has released the descriptor by then.
int close_fd(int fd)
{
    return close(fd) != 0 && errno != EINTR ? -1 : 0;
}

void sync_parent_directory(const std::string &path)
{
    const std::string::size_type slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const int fd = open_retry(dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return;
    while (fsync(fd) != 0 && errno == EINTR) {
    }
    close(fd);
}

// Copies and closes nothing; the caller owns both descriptors.
int copy_blocks(int in, int out, const char *src, const char *dst)
{
    char buf[block_size];
    for (;;) {
        const ssize_t got = read_retry(in, buf, sizeof buf);
        if (got < 0) {
            messlog2(0, 0, "Unable to read file %s: %s", src, std::strerror(errno));
            return 1;
        }
        if (got == 0)
            return 0;
        errno = 0;
        const ssize_t put = write_all(out, buf, static_cast<size_t>(got));
        if (put == 0) {
            messlog2(0, 0, "Unable to copy file %s to %s: %s\n", src, dst, std::strerror(errno));
            return 1;
        }
        if (put < 0) {
            messlog2(0, 0, "Error while copying file %s to %s: %s", src, dst, std::strerror(errno));
            return 1;
        }
    }
}

int copy_locked(const char *src, const char *dst)
{
    const int in = open_retry(src, O_RDONLY);
    if (in < 0) {
        messlog2(0, 0, "Unable to open file %s: %s", src, std::strerror(errno));
        return 1;
    }
    struct stat st;
    if (fstat(in, &st) != 0) {
        messlog2(0, 0, "Unable to open file %s: %s", src, std::strerror(errno));
        close_fd(in);
        return 1;
    }
    const bool to_stdout = std::strcmp(dst, "-") == 0;
    int out = STDOUT_FILENO;
    if (to_stdout) {
        // Whatever the caller printed through stdio must come first.
        std::fflush(stdout);
    } else {
        out = open_retry(dst, O_WRONLY | O_CREAT | O_TRUNC, st.st_mode & 07777);
        if (out < 0) {
            messlog2(0, 0, "Unable to open file %s: %s", dst, std::strerror(errno));
            close_fd(in);
            return 1;
        }
    }

    int result = copy_blocks(in, out, src, dst);
    if (close_fd(in) != 0 && result == 0) {
        messlog2(0, 0, "Unable to close file %s: %s\n", src, std::strerror(errno));
        result = 1;
    }
    if (!to_stdout && close_fd(out) != 0 && result == 0) {
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

    lock_struct_t *lock = mk_lock(dst, 1);
    if (!is_locked(lock)) {
        const int saved = lock == nullptr ? ENOMEM : errno;
        free_lock(lock);
        errno = saved;
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
    const int in = open_retry(src, O_RDONLY);
    if (in < 0)
        atomic_failed(src, dst, "open");

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
    for (;;) {
        const ssize_t got = read_retry(in, buf, sizeof buf);
        if (got < 0)
            atomic_failed(src, dst, "read", tmp);
        if (got == 0)
            break;
        errno = 0;
        if (write_all(out, buf, static_cast<size_t>(got)) <= 0) {
            if (errno == 0)
                errno = EIO;
            atomic_failed(src, dst, "write", tmp);
        }
    }
    close_fd(in);

    int rc;
    // chown before chmod: chown clears set-id bits the mode may ask for.
    do
        rc = fchown(out, owner, group);
    while (rc != 0 && errno == EINTR);
    if (rc != 0)
        atomic_failed(src, dst, "chown", tmp);
    do
        rc = fchmod(out, mode);
    while (rc != 0 && errno == EINTR);
    if (rc != 0)
        atomic_failed(src, dst, "chmod", tmp);
    do
        rc = fsync(out);
    while (rc != 0 && errno == EINTR);
    if (rc != 0 || close_fd(out) != 0)
        atomic_failed(src, dst, "flush", tmp);
    if (rename(tmp.c_str(), dst) != 0)
        atomic_failed(src, dst, "rename", tmp);
    sync_parent_directory(dst);
}
