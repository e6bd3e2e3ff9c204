#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace fd_io {

int open_retry(const char *path, int flags, mode_t mode)
{
    return retry_eintr([&] { return open(path, flags | O_CLOEXEC, mode); });
}

int openat_retry(int dirfd, const char *name, int flags, mode_t mode)
{
    return retry_eintr([&] { return openat(dirfd, name, flags | O_CLOEXEC, mode); });
}

int open_regular(const char *path, int flags, mode_t mode)
{
    const int fd = open_retry(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
    if (fd < 0)
        return -1;
    struct stat st;
    int err = 0, now;
    if (fstat(fd, &st) != 0)
        err = errno;
    else if (!S_ISREG(st.st_mode))
        err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    else if (!(flags & O_NONBLOCK) &&
             ((now = fcntl(fd, F_GETFL)) < 0 || fcntl(fd, F_SETFL, now & ~O_NONBLOCK) != 0))
        err = errno;
    if (err == 0)
        return fd;
    close(fd);
    errno = err;
    return -1;
}

const char *open_error_text(int err)
{
    return err == EINVAL ? "not a regular file" : std::strerror(err);
}

ssize_t read_retry(int fd, void *buf, size_t size)
{
    return retry_eintr([&] { return read(fd, buf, size); });
}

ssize_t write_all(int fd, const void *buf, size_t n)
{
    const char *p = static_cast<const char *>(buf);
    size_t done = 0;
    while (done < n) {
        const ssize_t put = retry_eintr([&] { return write(fd, p + done, n - done); });
        if (put < 0)
            return -1;
        if (put == 0)
            break;
        done += static_cast<size_t>(put);
    }
    return static_cast<ssize_t>(done);
}

int fsync_retry(int fd)
{
    return retry_eintr([&] { return fsync(fd); });
}

int close_fd(int fd)
{
    if (fd < 0)
        return 0;
    return close(fd) != 0 && errno != EINTR ? -1 : 0;
}

void close_quietly(int fd)
{
    const int saved = errno;
    close(fd);
    errno = saved;
}

std::string parent_directory(const std::string &path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

void sync_parent_directory(const std::string &path)
{
    const int saved = errno;
    const int fd = open_retry(parent_directory(path).c_str(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
        fsync_retry(fd);
        close(fd);
    }
    errno = saved;
}

} // namespace fd_io
