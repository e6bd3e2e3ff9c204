#include "utils/fork_exec.h"

#include "utils/fd_io.h"
#include "utils/liblog.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

const int exec_failed_status = 67;

} // namespace

int fork_execv_log(const char *path, char *const argv[])
{
    int control[2];
    if (::pipe2(control, O_CLOEXEC) != 0) {
        zarnet_log(3, "pipe: %s", std::strerror(errno));
        return -1;
    }
    // Buffered output would otherwise reach the streams twice or out of order.
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        const int saved = errno;
        fd_io::close_quietly(control[0]);
        fd_io::close_quietly(control[1]);
        zarnet_log(3, "fork: %s", std::strerror(saved));
        return -1;
    }
    if (pid == 0) {
        ::close(control[0]);
        ::execv(path, argv);
        const int code = errno;
        // Nothing sensible is left to do if the parent cannot hear it.
        if (::write(control[1], &code, sizeof code) < 0) {
        }
        ::_exit(exec_failed_status);
    }
    fd_io::close_quietly(control[1]);
    int code = 0;
    const ssize_t got = fd_io::read_retry(control[0], &code, sizeof code);
    fd_io::close_quietly(control[0]);

    int status = 0;
    if (fd_io::retry_eintr([&] { return ::waitpid(pid, &status, 0); }) < 0) {
        zarnet_log(3, "waitpid: %s", std::strerror(errno));
        return -1;
    }
    if (got == static_cast<ssize_t>(sizeof code)) {
        zarnet_log(3, "execv %s: %s", path, std::strerror(code));
        return -1;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return 0;
    if (WIFSIGNALED(status))
        zarnet_log(3, "%s killed by signal %d", path, WTERMSIG(status));
    else
        zarnet_log(3, "%s exited with status %d", path, WEXITSTATUS(status));
    return -1;
}
