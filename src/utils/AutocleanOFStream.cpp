#include "utils/AutocleanOFStream.h"

#include "utils/ExSystemError.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zarnet {

AutocleanOFStream::AutocleanOFStream(const std::string &path)
    : std::ofstream(path, std::ios::out | std::ios::trunc), path_(path)
{
}

AutocleanOFStream::~AutocleanOFStream()
{
    const int saved = errno;
    // With the caller's exception mask a failing close (a full disk fails
    // the final flush again) would throw out of the destructor.
    exceptions(std::ios::goodbit);
    if (is_open())
        close();
    if (!committed_)
        unlink(path_.c_str());
    errno = saved;
}

void AutocleanOFStream::commit(const std::string &target)
{
    commit(target, false, uid_t(-1), gid_t(-1), 0);
}

void AutocleanOFStream::commit(const std::string &target, uid_t owner, gid_t group, mode_t mode)
{
    commit(target, true, owner, group, mode);
}

void AutocleanOFStream::commit(const std::string &target, bool set_attributes, uid_t owner,
                               gid_t group, mode_t mode)
{
    if (!is_open())
        throwSystemError("commit of " + path_ + ": stream not open", EBADF);
    // Failures here are SystemError, not the stream's own exception.
    exceptions(std::ios::goodbit);
    errno = 0;
    flush();
    if (fail())
        throwSystemError("write " + path_, errno != 0 ? errno : EIO);
    close();
    if (fail())
        throwSystemError("close " + path_, errno != 0 ? errno : EIO);

    const int fd = fd_io::open_retry(path_.c_str(), O_RDONLY | O_NOFOLLOW);
    if (fd < 0)
        throwSystemError("open " + path_);

    auto fail_with = [&](const char *step) {
        const int saved = errno;
        ::close(fd);
        throwSystemError(std::string(step) + " " + path_, saved);
    };
    if (set_attributes) {
        // chown first: it clears set-id bits that the mode may ask for.
        if (fd_io::retry_eintr([&] { return fchown(fd, owner, group); }) != 0)
            fail_with("fchown");
        if (fd_io::retry_eintr([&] { return fchmod(fd, mode); }) != 0)
            fail_with("fchmod");
    }
    if (fd_io::fsync_retry(fd) != 0)
        fail_with("fsync");
    ::close(fd);

    if (rename(path_.c_str(), target.c_str()) != 0)
        throwSystemError("rename " + path_ + " to " + target);
    committed_ = true;
    fd_io::sync_parent_directory(target);
}

} // namespace zarnet
