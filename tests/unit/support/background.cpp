#include "support/background.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace testsupport {

BackgroundChild::BackgroundChild(const std::function<int()> &body)
{
    // Unflushed parent output would otherwise be written twice.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    if ((pid_ = fork()) < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        int status = 99;
        try {
            status = body();
        } catch (...) {
        }
        _exit(status);
    }
}

BackgroundChild::~BackgroundChild()
{
    if (!reaped_) {
        kill(pid_, SIGKILL);
        wait();
    }
}

std::string BackgroundChild::wait()
{
    int status = 0;
    pid_t rc;
    while ((rc = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    reaped_ = true;
    return rc == pid_ ? exitText(status) : "not reaped";
}

std::string exitText(int status)
{
    if (WIFEXITED(status))
        return "exit " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
}

std::string readAll(int fd)
{
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0;) {
        if (n > 0)
            text.append(buf, static_cast<size_t>(n));
        else if (errno != EINTR)
            break;
    }
    return text;
}

} // namespace testsupport
