#include "tools/deliver/maildir.h"

#include "tools/deliver/outcome.h"
#include "utils/FdOwner.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace deliver {

namespace {

using zarnet::process::FdOwner;

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

FdOwner openDirectory(int at, const std::string &name, const std::string &shown)
{
    FdOwner fd(fd_io::retry_eintr([&] {
        return ::openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }));
    if (!fd.valid()) {
        const int saved = errno;
        struct stat st;
        // With O_DIRECTORY a link fails as "not a directory"; say what it is.
        if ((saved == ELOOP || saved == ENOTDIR) &&
            ::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
            throw temporary("cannot open " + shown + ": it is a symbolic link");
        throw temporary("cannot open " + shown + ": " + std::strerror(saved));
    }
    return fd;
}

} // namespace

bool staysInHome(const std::string &dir)
{
    if (dir.empty() || dir[0] == '/')
        return false;
    std::string::size_type start = 0;
    while (start <= dir.size()) {
        std::string::size_type end = dir.find('/', start);
        if (end == std::string::npos)
            end = dir.size();
        if (dir.compare(start, end - start, "..") == 0)
            return false;
        start = end + 1;
    }
    return true;
}

void deliverToMaildir(const std::string &home, const std::string &dir, const Spool &message)
{
    if (!staysInHome(dir))
        throw temporary("Maildir " + dir + " is outside the mailbox home");
    FdOwner at(fd_io::retry_eintr([&] {
        return ::open(home.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }));
    if (!at.valid())
        throw temporary("cannot open " + home + ": " + std::strerror(errno));
    std::string shown = home;
    std::string::size_type start = 0;
    while (start < dir.size()) {
        std::string::size_type end = dir.find('/', start);
        if (end == std::string::npos)
            end = dir.size();
        const std::string part = dir.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".")
            continue;
        shown += "/" + part;
        at = openDirectory(at.get(), part, shown);
    }
    const FdOwner tmpDir = openDirectory(at.get(), "tmp", shown + "/tmp");
    const FdOwner newDir = openDirectory(at.get(), "new", shown + "/new");

    timeval tv;
    ::gettimeofday(&tv, nullptr);
    const std::string name = std::to_string(tv.tv_sec) + ".M" + std::to_string(tv.tv_usec) + "P" +
                             std::to_string(::getpid()) + "." + hostPart() +
                             ",S=" + std::to_string(message.size());
    const std::string tmp = shown + "/tmp/" + name;
    const int fd = fd_io::retry_eintr([&] {
        return ::openat(tmpDir.get(), name.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    });
    if (fd < 0)
        throw temporary("cannot create " + tmp + ": " + std::strerror(errno));
    const char *step = nullptr;
    if (!message.copyTo(fd))
        step = "write";
    else if (fd_io::fsync_retry(fd) != 0)
        step = "fsync";
    if (step != nullptr)
        fd_io::close_quietly(fd);
    else if (fd_io::close_fd(fd) != 0)
        step = "close";
    else if (::linkat(tmpDir.get(), name.c_str(), newDir.get(), name.c_str(), 0) != 0)
        step = "link";
    if (step != nullptr) {
        const int saved = errno;
        ::unlinkat(tmpDir.get(), name.c_str(), 0);
        throw temporary(std::string("Maildir delivery failed: ") + step + " " + tmp + ": " +
                        std::strerror(saved));
    }
    ::unlinkat(tmpDir.get(), name.c_str(), 0);
    // Best effort: the copy is in new/ already, and a failure reported now
    // would only store it again on the retry.
    (void)fd_io::fsync_retry(newDir.get());
}

} // namespace deliver
