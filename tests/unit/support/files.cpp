#include "support/files.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace testsupport {

std::string slurp(const std::string &path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void spit(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary) << text;
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

} // namespace testsupport
