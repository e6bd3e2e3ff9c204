#include "tools/deliver/maildir.h"

#include "tools/deliver/outcome.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace deliver {

namespace {

// "/" would split the name and ":" starts the Maildir flags.
std::string hostPart()
{
    char host[256] = "localhost";
    if (::gethostname(host, sizeof host - 1) != 0)
        std::strcpy(host, "localhost");
    std::string out;
    for (const char *p = host; *p != '\0'; ++p) {
        if (*p == '/')
            out += "\\057";
        else if (*p == ':')
            out += "\\072";
        else
            out += *p;
    }
    return out;
}

bool copyAll(int from, int to)
{
    char buffer[65536];
    for (;;) {
        const ssize_t n = fd_io::read_retry(from, buffer, sizeof buffer);
        if (n <= 0)
            return n == 0;
        if (fd_io::write_all(to, buffer, static_cast<size_t>(n)) != n) {
            if (errno == 0)
                errno = ENOSPC;
            return false;
        }
    }
}

} // namespace

void deliverToMaildir(const std::string &dir, int message, off_t size)
{
    std::string base = dir;
    if (base.empty() || base.back() != '/')
        base += '/';
    timeval tv;
    ::gettimeofday(&tv, nullptr);
    const std::string name = std::to_string(tv.tv_sec) + ".M" + std::to_string(tv.tv_usec) + "P" +
                             std::to_string(::getpid()) + "." + hostPart() +
                             ",S=" + std::to_string(size);
    const std::string tmp = base + "tmp/" + name, fresh = base + "new/" + name;
    const int fd = fd_io::open_retry(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (fd < 0)
        throw temporary("cannot create " + tmp + ": " + std::strerror(errno));
    const char *step = nullptr;
    if (!copyAll(message, fd))
        step = "write";
    else if (fd_io::fsync_retry(fd) != 0)
        step = "fsync";
    if (step != nullptr)
        fd_io::close_quietly(fd);
    else if (fd_io::close_fd(fd) != 0)
        step = "close";
    else if (::link(tmp.c_str(), fresh.c_str()) != 0)
        step = "link";
    if (step != nullptr) {
        const int saved = errno;
        ::unlink(tmp.c_str());
        throw temporary(std::string("Maildir delivery failed: ") + step + " " + tmp + ": " +
                        std::strerror(saved));
    }
    ::unlink(tmp.c_str());
    fd_io::sync_parent_directory(fresh);
}

} // namespace deliver
