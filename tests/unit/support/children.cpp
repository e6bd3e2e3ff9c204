#include "support/children.h"

#include <unistd.h>

#include <fstream>

namespace testsupport {

std::string children()
{
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    std::string pids;
    std::getline(list, pids);
    return pids;
}

} // namespace testsupport
