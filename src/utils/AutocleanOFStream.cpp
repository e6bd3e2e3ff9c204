#include "utils/AutocleanOFStream.h"

#include "utils/ExSystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zarnet {

namespace {

// Durability of the rename itself; the content is already safe either way,
// so a directory that cannot be synced (some filesystems refuse) is no error.
void sync_parent_directory(const std::string &target)
{
    const std::string::size_type slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
    int fd;
    do
        fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return;
    while (fsync(fd) != 0 && errno == EINTR) {
    }
    close(fd);
}

} // namespace

AutocleanOFStream::AutocleanOFStream(const std::string &path)
    : std::ofstream(path, std::ios::out | std::ios::trunc), path_(path)
{
}

AutocleanOFStream::~AutocleanOFStream()
{
    const int saved = errno;
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
    errno = 0;
    flush();
    if (fail())
        throwSystemError("write " + path_, errno != 0 ? errno : EIO);
    close();
    if (fail())
        throwSystemError("close " + path_, errno != 0 ? errno : EIO);

    int fd;
    do
        fd = ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        throwSystemError("open " + path_);

    auto fail_with = [&](const char *step) {
        const int saved = errno;
        ::close(fd);
        throwSystemError(std::string(step) + " " + path_, saved);
    };
    int rc;
    if (set_attributes) {
        // chown first: it clears set-id bits that the mode may ask for.
        do
            rc = fchown(fd, owner, group);
        while (rc != 0 && errno == EINTR);
        if (rc != 0)
            fail_with("fchown");
        do
            rc = fchmod(fd, mode);
        while (rc != 0 && errno == EINTR);
        if (rc != 0)
            fail_with("fchmod");
    }
    do
        rc = fsync(fd);
    while (rc != 0 && errno == EINTR);
    if (rc != 0)
        fail_with("fsync");
    ::close(fd);

    if (rename(path_.c_str(), target.c_str()) != 0)
        throwSystemError("rename " + path_ + " to " + target);
    committed_ = true;
    sync_parent_directory(target);
}

} // namespace zarnet
