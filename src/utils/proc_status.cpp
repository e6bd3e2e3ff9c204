#include "utils/proc_status.h"

#include "utils/ExSystemError.h"
#include "utils/fd_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <vector>

namespace zarnet {
namespace process {

namespace {

const char procRoot[] = "/proc";

struct DirCloser {
    void operator()(DIR *d) const { ::closedir(d); }
};

bool allDigits(const char *s)
{
    if (*s == '\0')
        return false;
    for (; *s != '\0'; ++s)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

// The pids listed now; read in one pass so visitors may start or signal
// processes without disturbing the listing.
std::vector<pid_t> listPids()
{
    std::unique_ptr<DIR, DirCloser> dir(::opendir(procRoot));
    if (!dir)
        throwSystemError("opendir /proc");
    std::vector<pid_t> pids;
    for (;;) {
        errno = 0;
        const dirent *d = ::readdir(dir.get());
        if (d == nullptr) {
            if (errno != 0)
                throwSystemError("readdir /proc");
            break;
        }
        if (!allDigits(d->d_name))
            continue;
        const long pid = std::strtol(d->d_name, nullptr, 10);
        if (pid > 0 && pid <= INT_MAX)
            pids.push_back(static_cast<pid_t>(pid));
    }
    return pids;
}

std::string procPath(pid_t pid, const char *entry)
{
    return std::string(procRoot) + "/" + std::to_string(pid) + "/" + entry;
}

} // namespace

// From /proc/<pid>/stat. The name sits in parentheses and may itself hold
// blanks and parentheses, so it ends at the last ")".
bool readProcess(pid_t pid, pid_t &ppid, std::string &name)
{
    const int fd = fd_io::open_retry(procPath(pid, "stat").c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    char buf[1024];
    const ssize_t n = fd_io::read_retry(fd, buf, sizeof buf - 1);
    fd_io::close_quietly(fd);
    if (n <= 0)
        return false;
    const std::string line(buf, static_cast<std::size_t>(n));
    const std::size_t open = line.find('(');
    const std::size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return false;
    // ") S 1234 ...": the state, then the parent pid
    const std::size_t fields = close + 2;
    if (fields + 2 >= line.size())
        return false;
    char *end = nullptr;
    const long parent = std::strtol(line.c_str() + fields + 2, &end, 10);
    if (end == line.c_str() + fields + 2 || parent < 0 || parent > INT_MAX)
        return false;
    ppid = static_cast<pid_t>(parent);
    name = line.substr(open + 1, close - open - 1);
    return true;
}

namespace {

// The children the kernel lists for pid's main thread, which for a
// single-threaded parent are all of them; false when the kernel keeps no
// such list.
bool listChildren(pid_t pid, std::vector<pid_t> &children)
{
    const std::string path = procPath(pid, "task/") + std::to_string(pid) + "/children";
    const int fd = fd_io::open_retry(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = fd_io::read_retry(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    fd_io::close_quietly(fd);
    if (n < 0)
        return false;
    const char *p = text.c_str();
    for (;;) {
        char *end = nullptr;
        const long child = std::strtol(p, &end, 10);
        if (end == p)
            break;
        if (child > 0 && child <= INT_MAX)
            children.push_back(static_cast<pid_t>(child));
        p = end;
    }
    return true;
}

} // namespace

bool walkChildren(pid_t parent, const ProcessVisitor &visit)
{
    std::vector<pid_t> children;
    if (!listChildren(parent, children))
        return walkProcesses([&](pid_t pid, pid_t ppid, const std::string &name) {
            return ppid == parent && visit(pid, ppid, name);
        });
    for (pid_t pid : children) {
        pid_t ppid = 0;
        std::string name;
        if (readProcess(pid, ppid, name) && ppid == parent && visit(pid, ppid, name))
            return true;
    }
    return false;
}

bool walkProcesses(const ProcessVisitor &visit)
{
    for (pid_t pid : listPids()) {
        pid_t ppid = 0;
        std::string name;
        if (readProcess(pid, ppid, name) && visit(pid, ppid, name))
            return true;
    }
    return false;
}

} // namespace process
} // namespace zarnet
