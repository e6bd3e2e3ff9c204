#include "utils/FdOwner.h"

#include "utils/ExSystemError.h"

#include <unistd.h>

#include <cerrno>

namespace zarnet {
namespace process {

namespace {

// Linux releases the descriptor even when close() reports EINTR; closing the
// number again could only fail with EBADF or hit a descriptor opened since,
// so EINTR counts as closed.
int closeOnce(int fd)
{
    if (::close(fd) == 0 || errno == EINTR)
        return 0;
    return -1;
}

} // namespace

FdOwner &FdOwner::operator=(FdOwner &&other) noexcept
{
    if (this != &other)
        reset(other.release());
    return *this;
}

int FdOwner::release() noexcept
{
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void FdOwner::reset(int fd) noexcept
{
    if (fd != fd_)
        close_nothrow();
    fd_ = fd;
}

void FdOwner::close(const char *step)
{
    if (fd_ < 0)
        return;
    const int fd = release();
    if (closeOnce(fd) != 0)
        throwSystemError(step, errno);
}

void FdOwner::close_nothrow() noexcept
{
    if (fd_ < 0)
        return;
    const int saved = errno;
    closeOnce(release());
    errno = saved;
}

PipeEnds makePipe(const char *step, int flags)
{
    int fds[2];
    if (::pipe2(fds, flags) != 0)
        throwSystemError(step, errno);
    return PipeEnds{FdOwner(fds[0]), FdOwner(fds[1])};
}

void setNonblocking(int fd, const char *step)
{
    int flags;
    do {
        flags = ::fcntl(fd, F_GETFL);
    } while (flags < 0 && errno == EINTR);
    if (flags < 0)
        throwSystemError(step, errno);
    if (flags & O_NONBLOCK)
        return;
    int rc;
    do {
        rc = ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0)
        throwSystemError(step, errno);
}

} // namespace process
} // namespace zarnet
