#include "tools/deliver/spool.h"

#include "tools/deliver/outcome.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace deliver {

namespace {

std::string why(const char *step)
{
    return std::string("cannot spool the message: ") + step + ": " + std::strerror(errno);
}

} // namespace

Spool::Spool(int from)
{
    char name[] = "/tmp/mailtend-deliver.XXXXXX";
    zarnet::process::FdOwner writer(::mkostemp(name, O_CLOEXEC));
    if (!writer.valid())
        throw temporary(why("mkstemp"));
    reader_.reset(fd_io::open_retry(name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const int saved = errno;
    ::unlink(name);
    errno = saved;
    if (!reader_.valid())
        throw temporary(why("open"));
    char buffer[65536];
    for (;;) {
        const ssize_t n = fd_io::read_retry(from, buffer, sizeof buffer);
        if (n < 0)
            throw temporary(why("read"));
        if (n == 0)
            break;
        if (fd_io::write_all(writer.get(), buffer, static_cast<size_t>(n)) != n) {
            if (errno == 0)
                errno = ENOSPC;
            throw temporary(why("write"));
        }
        size_ += n;
    }
    if (fd_io::close_fd(writer.release()) != 0)
        throw temporary(why("close"));
}

zarnet::process::FdOwner Spool::open() const
{
    const std::string self = "/proc/self/fd/" + std::to_string(reader_.get());
    zarnet::process::FdOwner fd(fd_io::open_retry(self.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        throw temporary(why("reopen"));
    return fd;
}

bool Spool::copyTo(int to) const
{
    char buffer[65536];
    for (off_t at = 0;;) {
        const ssize_t n = fd_io::retry_eintr(
            [&] { return ::pread(reader_.get(), buffer, sizeof buffer, at); });
        if (n <= 0)
            return n == 0;
        if (fd_io::write_all(to, buffer, static_cast<size_t>(n)) != n) {
            if (errno == 0)
                errno = ENOSPC;
            return false;
        }
        at += n;
    }
}

} // namespace deliver
