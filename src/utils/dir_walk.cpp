#include "utils/dir_walk.h"

#include "utils/fd_io.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace dir_walk {

int open_dir(int dirfd, const char *name)
{
    // O_NONBLOCK: should the kernel ever get to opening a FIFO here, the
    // open must not wait for a writer.
    return fd_io::openat_retry(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK);
}

bool Entry::stat(struct stat &st) const
{
    return ::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0;
}

int Entry::open_dir() const
{
    return dir_walk::open_dir(dir, name);
}

Result each_entry(int fd, const std::function<bool(const Entry &)> &visit)
{
    DIR *stream = ::fdopendir(fd);
    if (stream == nullptr) {
        fd_io::close_quietly(fd);
        return Result::Unreadable;
    }
    Result result = Result::Done;
    for (;;) {
        errno = 0;
        const struct dirent *d = ::readdir(stream);
        if (d == nullptr) {
            if (errno != 0)
                result = Result::Unreadable;
            break;
        }
        if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0)
            continue;
        if (!visit(Entry{::dirfd(stream), d->d_name})) {
            result = Result::Stopped;
            break;
        }
    }
    const int saved = errno;
    if (::closedir(stream) != 0 && result == Result::Done)
        return Result::CloseFailed;
    errno = saved;
    return result;
}

} // namespace dir_walk
