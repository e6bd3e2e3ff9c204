#include "support/lock_wait.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace testsupport {

bool waitUntilBlocked(pid_t pid, ino_t ino)
{
    const std::string inode = ":" + std::to_string(ino);
    for (int i = 0; i < 20000; ++i) {
        std::ifstream locks("/proc/locks");
        std::string line;
        while (std::getline(locks, line)) {
            std::istringstream in(line);
            std::string id, arrow, kind, advisory, mode, who, file;
            in >> id >> arrow >> kind >> advisory >> mode >> who >> file;
            if (arrow == "->" && kind == "FLOCK" && who == std::to_string(pid) &&
                file.size() > inode.size() &&
                file.compare(file.size() - inode.size(), inode.size(), inode) == 0)
                return true;
        }
        usleep(500);
    }
    return false;
}

} // namespace testsupport
