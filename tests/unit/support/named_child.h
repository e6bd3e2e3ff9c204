// A child that only waits, under a command name of the test's choosing.
#pragma once
#include <sys/types.h>

#include <string>

namespace testsupport {

class NamedChild {
public:
    // Returns once the child carries the name (at most 15 bytes are kept).
    explicit NamedChild(const std::string &name);
    ~NamedChild();
    NamedChild(const NamedChild &) = delete;
    NamedChild &operator=(const NamedChild &) = delete;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

} // namespace testsupport
