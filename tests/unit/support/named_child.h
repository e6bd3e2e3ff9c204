// A child that only waits, under a command name of the test's choosing, for
// tests that look for processes by name and parent.
#ifndef MAILTEND_TESTS_NAMED_CHILD_H
#define MAILTEND_TESTS_NAMED_CHILD_H

#include <sys/types.h>

#include <string>

namespace testsupport {

class NamedChild {
public:
    // Returns once the child carries the name (at most 15 bytes are kept).
    // Throws std::runtime_error when it cannot be started.
    explicit NamedChild(const std::string &name);
    // Kills and reaps the child.
    ~NamedChild();
    NamedChild(const NamedChild &) = delete;
    NamedChild &operator=(const NamedChild &) = delete;

    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

} // namespace testsupport

#endif
