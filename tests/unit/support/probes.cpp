#include "support/probes.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace testsupport {

std::string children()
{
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    std::string pids;
    std::getline(list, pids);
    return pids;
}

bool waitUntilBlocked(pid_t pid, ino_t ino)
{
    const std::string who = std::to_string(pid), inode = ":" + std::to_string(ino);
    for (int i = 0; i < 20000; ++i, usleep(500)) {
        std::ifstream locks("/proc/locks");
        for (std::string line; std::getline(locks, line);) {
            std::istringstream in(line);
            std::string id, arrow, kind, advisory, mode, owner, file;
            in >> id >> arrow >> kind >> advisory >> mode >> owner >> file;
            if (arrow == "->" && kind == "FLOCK" && owner == who && file.size() > inode.size() &&
                file.compare(file.size() - inode.size(), inode.size(), inode) == 0)
                return true;
        }
    }
    return false;
}

std::string pattern(std::size_t n, unsigned mul, unsigned add)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>((i * mul + add) % 251);
    return s;
}

std::string sameBytes(const std::string &got, const std::string &want)
{
    if (got == want)
        return "equal";
    std::size_t i = 0;
    while (i < got.size() && i < want.size() && got[i] == want[i])
        ++i;
    return "got " + std::to_string(got.size()) + " bytes, want " + std::to_string(want.size()) +
           ", first difference at " + std::to_string(i);
}

} // namespace testsupport
