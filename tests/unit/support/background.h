// A second process beside the test: a lock holder, a waiting locker, a reader.
#pragma once
#include <sys/types.h>

#include <functional>
#include <string>

namespace testsupport {

class BackgroundChild {
public:
    // The child leaves with _exit(body()), or 99 when body throws.
    explicit BackgroundChild(const std::function<int()> &body);
    ~BackgroundChild();
    BackgroundChild(const BackgroundChild &) = delete;
    BackgroundChild &operator=(const BackgroundChild &) = delete;
    pid_t pid() const { return pid_; }
    // Reaps the child; its status as exitText gives it.
    std::string wait();

private:
    pid_t pid_;
    bool reaped_ = false;
};

// A raw wait status as "exit N" or "signal N", for got/want messages.
std::string exitText(int status);
// Everything read from fd up to end of file (or a read error).
std::string readAll(int fd);

} // namespace testsupport
