#include "support/files.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace testsupport {

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
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
