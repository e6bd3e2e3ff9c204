#include "support/named_child.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace testsupport {

NamedChild::NamedChild(const std::string &name)
{
    int ready[2];
    if (::pipe(ready) != 0)
        throw std::runtime_error("pipe");
    if ((pid_ = ::fork()) == 0) {
        ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        // The parent's read then meets end of file: the name is in place.
        ::close(ready[1]);
        for (;;)
            ::pause();
    }
    ::close(ready[1]);
    char byte;
    while (pid_ > 0 && ::read(ready[0], &byte, 1) < 0 && errno == EINTR) {
    }
    ::close(ready[0]);
    if (pid_ < 0)
        throw std::runtime_error("fork");
}

NamedChild::~NamedChild()
{
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace testsupport
