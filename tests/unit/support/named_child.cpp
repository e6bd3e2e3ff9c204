#include "support/named_child.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace testsupport {

NamedChild::NamedChild(const std::string &name)
{
    int ready[2];
    if (::pipe(ready) != 0)
        throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ < 0) {
        ::close(ready[0]);
        ::close(ready[1]);
        throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
        ::close(ready[0]);
        ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        const char byte = 1;
        if (::write(ready[1], &byte, 1) != 1)
            ::_exit(1);
        for (;;)
            ::pause();
    }
    ::close(ready[1]);
    char byte;
    ssize_t n;
    do
        n = ::read(ready[0], &byte, 1);
    while (n < 0 && errno == EINTR);
    ::close(ready[0]);
    if (n != 1) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        throw std::runtime_error("the named child did not start");
    }
}

NamedChild::~NamedChild()
{
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace testsupport
