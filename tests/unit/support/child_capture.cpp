#include "support/child_capture.h"

#include "support/background.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace testsupport {

std::ostream &operator<<(std::ostream &os, const ChildResult &r)
{
    return os << "{status " << r.status << ", out \"" << r.out << "\", err \"" << r.err << "\"}";
}

ChildResult runInChild(const std::function<int()> &body)
{
    // Unflushed parent output would otherwise be written twice.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    // Files, not pipes: a child writing much to one stream never waits for a reader.
    FILE *files[2] = {std::tmpfile(), std::tmpfile()};
    const pid_t pid = files[0] && files[1] ? fork() : -1;
    if (pid < 0) {
        for (FILE *f : files)
            if (f != nullptr)
                std::fclose(f);
        throw std::runtime_error("cannot start the child");
    }
    if (pid == 0) {
        dup2(fileno(files[0]), 1);
        dup2(fileno(files[1]), 2);
        std::exit(body());
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ChildResult r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::string *sinks[2] = {&r.out, &r.err};
    for (int i = 0; i < 2; ++i) {
        lseek(fileno(files[i]), 0, SEEK_SET);
        *sinks[i] = readAll(fileno(files[i]));
        std::fclose(files[i]);
    }
    return r;
}

} // namespace testsupport
