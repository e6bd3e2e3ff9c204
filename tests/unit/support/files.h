#pragma once
#include <string>

namespace testsupport {

// The file's bytes; "" when it cannot be read.
std::string slurp(const std::string &path);
void spit(const std::string &path, const std::string &text);
// Whether anything, a dangling symbolic link included, has the name.
bool exists(const std::string &path);

} // namespace testsupport
