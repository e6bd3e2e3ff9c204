// Starting one external program, never through a shell.
//
// ProcessLaunch forks, wires the child's standard descriptors, optionally
// changes directory, closes other descriptors, starts a session and runs a
// hook, then executes the program. Anything that fails in the child before
// the exec travels back over a close-on-exec control pipe and is thrown by
// waitExec() in the parent as the same kind of exception with the same text
// and errno; the child itself ends with status 67 (SystemError), 66 (other
// standard exceptions) or 65 (anything else). A child that failed this way
// has been reaped when waitExec() throws.
//
// Failures in the parent: SystemError naming the step ("pipe", "fork", ...),
// std::invalid_argument for a bad selector (checked before anything is
// created or forked). The owner must call waitExec(), and reap the child with
// waitExit() unless something else (ProcessSetCatcher) does; the destructor
// never waits.
//
// Descriptors: every pipe end this process keeps is close-on-exec. A
// descriptor passed as a selector stays the caller's: it is duplicated onto
// the standard descriptor in the child and never closed in the parent.
#ifndef MAILTEND_UTILS_PROCESSLAUNCH_H
#define MAILTEND_UTILS_PROCESSLAUNCH_H

#include "utils/FdOwner.h"

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zarnet {
namespace process {

class ProcessLaunch {
public:
    // Selectors for stdinSel, stdoutSel and stderrSel; 0 or more names a descriptor.
    enum : int {
        FD_INHERIT = -2,
        FD_DEVNULL = -3,
        FD_PIPE = -4,        // the parent's end is then in stdinFd()/stdoutFd()/stderrFd()
        FD_SAME_AS_STDOUT = -5 // stderr only; with stdout inherited, stderr stays inherited
    };

    // argv and envp are null-terminated; envp may be null (inherit the
    // environment), cwd may be null (stay). With envp the program is run by
    // execve, so path must then be a full path: searchPath applies only
    // without envp.
    ProcessLaunch(char *const argv[], const char *path, const char *cwd, char *const envp[],
                  bool closeOtherFds, bool searchPath, bool newSession,
                  const std::function<void()> &preExecHook, int stdinSel, int stdoutSel,
                  int stderrSel);
    ProcessLaunch(const ProcessLaunch &) = delete;
    ProcessLaunch &operator=(const ProcessLaunch &) = delete;
    ~ProcessLaunch() = default;

    // Returns once the program is executing; a second call returns at once.
    void waitExec();
    // Raw wait status. Throws SystemError "unable to wait for child process exit".
    int waitExit();

    pid_t pid() const noexcept { return pid_; }
    // True once this object has collected the child's status.
    bool reaped() const noexcept { return reaped_; }

    FdOwner &stdinFd() noexcept { return stdin_; }
    FdOwner &stdoutFd() noexcept { return stdout_; }
    FdOwner &stderrFd() noexcept { return stderr_; }

private:
    void reap() noexcept;

    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = 0;
    FdOwner stdin_;
    FdOwner stdout_;
    FdOwner stderr_;
    FdOwner control_;
};

// One failure record on the control pipe: "ET: " type, "EM: " message and,
// with a code, "EC: " and the code in decimal, each field NUL-terminated.
// Allocates nothing, so a forked child may call it; nothing is written to a
// negative fd; errno is preserved.
void writeException(int fd, const char *type, const char *message, bool withCode = false,
                    int code = 0) noexcept;

// Blocks signals for its lifetime. While the outermost block lives, children
// started by ProcessLaunch get the mask that was in force before it, so the
// launcher's own bookkeeping (SIGCHLD, SIGPIPE) never reaches the programs it
// runs. Blocks nest in LIFO order. Throws SystemError "get sigprocmask",
// "sigaddset", "set sigprocmask"; restore() throws "restore sigprocmask",
// the destructor restores quietly.
class SignalBlock {
public:
    explicit SignalBlock(std::initializer_list<int> signals);
    SignalBlock(const SignalBlock &) = delete;
    SignalBlock &operator=(const SignalBlock &) = delete;
    ~SignalBlock();

    void restore();
    const sigset_t &previous() const noexcept { return previous_; }

private:
    sigset_t previous_;
    bool active_ = false;
    bool outermost_ = false;
};

struct CommonFlags {
    bool searchPath = false;
    bool closeOtherFds = false;
    bool newSession = false;
    // "NAME=value" entries; set means exactly this environment (and no PATH search).
    std::optional<std::vector<std::string>> env;
    std::optional<std::string> cwd;
    // Runs in the child just before the exec; what it throws comes back from waitExec().
    std::function<void()> preExecHook;
};

struct PipeProcessFlags : CommonFlags {
};

// One program with its arguments; path is also argv[0].
template <class Flags>
struct Parameters {
    Flags flags;
    std::string path;
    std::vector<std::string> argv;

    // The arguments end at the first empty one, so callers can pass optional
    // arguments positionally and leave the unused ones empty.
    Parameters(std::string path_, std::string a1 = "", std::string a2 = "", std::string a3 = "",
               std::string a4 = "", std::string a5 = "", std::string a6 = "",
               std::string a7 = "", std::string a8 = "", std::string a9 = "")
        : path(std::move(path_))
    {
        argv.reserve(10);
        argv.push_back(path);
        for (std::string *a : {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9}) {
            if (a->empty())
                break;
            argv.push_back(std::move(*a));
        }
    }

    // For argument lists that may hold empty strings or more than nine
    // entries: every element is kept. Pass a vector object; a braced list is
    // ambiguous with the constructor above on purpose.
    Parameters(std::string path_, std::vector<std::string> args) : path(std::move(path_))
    {
        argv.reserve(args.size() + 1);
        argv.push_back(path);
        for (std::string &a : args)
            argv.push_back(std::move(a));
    }
};

} // namespace process
} // namespace zarnet

#endif
