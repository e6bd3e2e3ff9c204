// Runs code in a child process with standard output and standard error
// captured apart.
#pragma once
#include <functional>
#include <ostream>
#include <string>

namespace testsupport {

struct ChildResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

std::ostream &operator<<(std::ostream &os, const ChildResult &r);

// body's return value is the child's exit status when it returns.
ChildResult runInChild(const std::function<int()> &body);

} // namespace testsupport
