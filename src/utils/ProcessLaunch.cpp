#include "utils/ProcessLaunch.h"

#include "utils/ExSystemError.h"
#include "utils/UtilityErrorStream.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <ostream>
#include <stdexcept>

namespace zarnet {
namespace process {

namespace {

// The mask children get while a SignalBlock is in force; null otherwise.
// Single-threaded: only the outermost block sets it.
const sigset_t *g_childMask = nullptr;

void writeAll(int fd, const char *data, size_t len) noexcept
{
    while (len > 0) {
        const ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return; // the parent is gone or the pipe broke: nobody to tell
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

void writeField(int fd, const char *tag, const char *text) noexcept
{
    writeAll(fd, tag, 4);
    writeAll(fd, text, std::strlen(text) + 1);
}

int retryFcntl(int fd, int cmd, int arg) noexcept
{
    int rc;
    do {
        rc = ::fcntl(fd, cmd, arg);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

int openDevNull(int flags, const char *step)
{
    int fd;
    do {
        fd = ::open("/dev/null", flags | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        throwSystemError(step, errno);
    return fd;
}

// Child side: the step's errno goes back to the parent, as if a SystemError
// had been thrown and caught, without building one.
[[noreturn]] void childFail(int control, const char *step) noexcept
{
    writeException(control, "SystemError", step, true, errno);
    ::_exit(67);
}

void closeFrom(int lowest, int keep) noexcept
{
    const int saved = errno;
    bool done;
    if (keep < lowest)
        done = ::close_range(lowest, ~0U, 0) == 0;
    else
        done = (keep == lowest || ::close_range(lowest, keep - 1, 0) == 0) &&
               ::close_range(keep + 1, ~0U, 0) == 0;
    if (!done) {
        // Kernels without close_range: walk up to the descriptor limit.
        long limit = 20;
        struct rlimit lim;
        if (::getrlimit(RLIMIT_NOFILE, &lim) == 0)
            limit = lim.rlim_cur == RLIM_INFINITY || lim.rlim_cur > (1u << 20)
                        ? (1L << 20)
                        : static_cast<long>(lim.rlim_cur);
        for (long fd = lowest; fd < limit; ++fd)
            if (fd != keep)
                ::close(static_cast<int>(fd));
    }
    errno = saved;
}

struct ChildPlan {
    int control;            // write end of the control pipe
    int closeFirst[4];      // the parent's ends, -1 when absent
    int source[3];          // descriptor for 0, 1, 2; -1 leaves it as inherited
    const char *cwd;
    bool closeOtherFds;
    bool newSession;
    const std::function<void()> *hook;
    char *const *argv;
    const char *path;
    char *const *envp;
    bool searchPath;
};

// Runs between fork and exec: system calls only, no allocation of our own.
[[noreturn]] void runChild(const ChildPlan &plan) noexcept
{
    static const char *const dupStep[3] = {"stdin dup2", "stdout dup2", "stderr dup2"};
    int control = plan.control;
    try {
        for (int fd : plan.closeFirst)
            if (fd >= 0)
                ::close(fd);

        // The control pipe must survive the dup2s onto 0..2 and vanish at exec.
        if (control < 3) {
            const int moved = retryFcntl(control, F_DUPFD_CLOEXEC, 3);
            if (moved < 0)
                childFail(control, "control pipe close-on-exec fcntl");
            ::close(control);
            control = moved;
        } else if (retryFcntl(control, F_SETFD, FD_CLOEXEC) < 0) {
            childFail(control, "control pipe close-on-exec fcntl");
        }

        int src[3] = {plan.source[0], plan.source[1], plan.source[2]};
        // A source on a standard number that another stream takes over would
        // be overwritten by an earlier dup2: move it out of the way first.
        for (int i = 0; i < 3; ++i) {
            if (src[i] < 0 || src[i] >= 3 || src[i] == i)
                continue;
            const int old = src[i];
            const int moved = retryFcntl(old, F_DUPFD_CLOEXEC, 3);
            if (moved < 0)
                childFail(control, dupStep[i]);
            for (int j = i; j < 3; ++j)
                if (src[j] == old)
                    src[j] = moved;
        }
        for (int i = 0; i < 3; ++i) {
            if (src[i] == i) {
                // Already in place; dup2 would not clear close-on-exec, so do it here.
                const int flags = retryFcntl(i, F_GETFD, 0);
                if (flags < 0 || retryFcntl(i, F_SETFD, flags & ~FD_CLOEXEC) < 0)
                    childFail(control, dupStep[i]);
            } else if (src[i] >= 0) {
                int rc;
                do {
                    rc = ::dup2(src[i], i);
                } while (rc < 0 && errno == EINTR);
                if (rc < 0)
                    childFail(control, dupStep[i]);
            }
        }
        for (int i = 0; i < 3; ++i) {
            if (src[i] < 3)
                continue;
            bool seen = false;
            for (int j = 0; j < i; ++j)
                seen = seen || src[j] == src[i];
            if (!seen)
                ::close(src[i]);
        }

        if (plan.cwd) {
            int rc;
            do {
                rc = ::chdir(plan.cwd);
            } while (rc < 0 && errno == EINTR);
            if (rc < 0)
                childFail(control, "cwd chdir");
        }
        if (plan.closeOtherFds)
            closeFrom(3, control);
        if (plan.newSession && ::setsid() < 0)
            childFail(control, "setsid");
        if (g_childMask && ::sigprocmask(SIG_SETMASK, g_childMask, nullptr) != 0)
            childFail(control, "child sigprocmask");
        if (*plan.hook)
            (*plan.hook)();

        const char *step;
        do {
            if (plan.envp) {
                step = "execve";
                ::execve(plan.path, plan.argv, plan.envp);
            } else if (plan.searchPath) {
                step = "execvp";
                ::execvp(plan.path, plan.argv);
            } else {
                step = "execv";
                ::execv(plan.path, plan.argv);
            }
        } while (errno == EINTR);
        childFail(control, step);
    } catch (const SystemError &e) {
        // The bare message: what() would add the errno text a second time.
        writeException(control, "SystemError", e.std::runtime_error::what(), true, e.code());
        ::_exit(67);
    } catch (const std::runtime_error &e) {
        writeException(control, "std::runtime_error", e.what());
        ::_exit(66);
    } catch (const std::exception &e) {
        writeException(control, "std::exception", e.what());
        ::_exit(66);
    } catch (...) {
        writeException(control, "std::runtime_error", "unknown error");
        ::_exit(65);
    }
}

bool validSelector(int sel, bool isStderr)
{
    return sel >= 0 || sel == ProcessLaunch::FD_INHERIT || sel == ProcessLaunch::FD_DEVNULL ||
           sel == ProcessLaunch::FD_PIPE || (isStderr && sel == ProcessLaunch::FD_SAME_AS_STDOUT);
}

// One standard stream before the fork: what the child gets and what the
// parent keeps.
struct StreamPlan {
    int childFd = -1;  // -1: inherited
    FdOwner childOwned; // closed in the parent after the fork
    FdOwner parentEnd;
};

void resolve(StreamPlan &plan, int sel, bool forInput, const char *pipeStep,
             const char *nullStep)
{
    if (sel >= 0) {
        plan.childFd = sel;
    } else if (sel == ProcessLaunch::FD_DEVNULL) {
        plan.childOwned.reset(openDevNull(forInput ? O_RDONLY : O_WRONLY, nullStep));
        plan.childFd = plan.childOwned.get();
    } else if (sel == ProcessLaunch::FD_PIPE) {
        PipeEnds ends = makePipe(pipeStep);
        plan.childOwned = std::move(forInput ? ends.read : ends.write);
        plan.parentEnd = std::move(forInput ? ends.write : ends.read);
        plan.childFd = plan.childOwned.get();
    }
}

} // namespace

void writeException(int fd, const char *type, const char *message, bool withCode,
                    int code) noexcept
{
    if (fd < 0)
        return;
    const int saved = errno;
    writeField(fd, "ET: ", type);
    writeField(fd, "EM: ", message);
    if (withCode) {
        // "EC: %d" by hand: no stdio between fork and exec.
        char text[47] = "EC: ";
        char digits[16];
        int n = 0;
        const unsigned raw = static_cast<unsigned>(code);
        unsigned magnitude = code < 0 ? 0u - raw : raw;
        do {
            digits[n++] = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        size_t len = 4;
        if (code < 0)
            text[len++] = '-';
        while (n > 0)
            text[len++] = digits[--n];
        text[len] = '\0';
        writeAll(fd, text, len + 1);
    }
    errno = saved;
}

ProcessLaunch::ProcessLaunch(char *const argv[], const char *path, const char *cwd,
                             char *const envp[], bool closeOtherFds, bool searchPath,
                             bool newSession, const std::function<void()> &preExecHook,
                             int stdinSel, int stdoutSel, int stderrSel)
{
    if (!validSelector(stdinSel, false))
        throw std::invalid_argument("invalid FD for stdin");
    if (!validSelector(stdoutSel, false))
        throw std::invalid_argument("invalid FD for stdout");
    if (!validSelector(stderrSel, true))
        throw std::invalid_argument("invalid FD for stderr");

    PipeEnds control = makePipe("pipe");
    StreamPlan in, out, err;
    resolve(in, stdinSel, true, "stdin pipe", "stdin /dev/null open");
    resolve(out, stdoutSel, false, "stdout pipe", "stdout /dev/null open");
    if (stderrSel == FD_SAME_AS_STDOUT)
        err.childFd = out.childFd;
    else
        resolve(err, stderrSel, false, "stderr pipe", "stderr /dev/null open");

    // Everything the child needs is laid out before the fork.
    const ChildPlan plan = {control.write.get(),
                            {control.read.get(), in.parentEnd.get(), out.parentEnd.get(),
                             err.parentEnd.get()},
                            {in.childFd, out.childFd, err.childFd},
                            cwd,
                            closeOtherFds,
                            newSession,
                            &preExecHook,
                            argv,
                            path,
                            envp,
                            searchPath};

    pid_t pid;
    do {
        pid = ::fork();
    } while (pid < 0 && errno == EINTR);
    if (pid < 0)
        throwSystemError("fork", errno);
    if (pid == 0)
        runChild(plan);

    // Parent: nothing below may throw, or the child would be left unreaped.
    pid_ = pid;
    stdin_ = std::move(in.parentEnd);
    stdout_ = std::move(out.parentEnd);
    stderr_ = std::move(err.parentEnd);
    control_ = std::move(control.read);
    control.write.close_nothrow();
    in.childOwned.close_nothrow();
    out.childOwned.close_nothrow();
    err.childOwned.close_nothrow();
}

void ProcessLaunch::reap() noexcept
{
    if (reaped_)
        return;
    const int saved = errno;
    int status = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid_, &status, 0);
    } while (rc < 0 && errno == EINTR);
    if (rc == pid_) {
        status_ = status;
        reaped_ = true;
    }
    errno = saved;
}

void ProcessLaunch::waitExec()
{
    if (!control_.valid())
        return;

    std::string type, message, record;
    int code = 0;
    bool haveType = false;
    const auto interpret = [&](const std::string &r) {
        if (r.compare(0, 4, "ET: ") == 0) {
            type = r.substr(4);
            haveType = true;
        } else if (r.compare(0, 4, "EM: ") == 0) {
            message = r.substr(4);
        } else if (r.compare(0, 4, "EC: ") == 0) {
            code = static_cast<int>(std::strtol(r.c_str() + 4, nullptr, 10));
        } else {
            uerr << "child output: " << r << std::endl;
        }
    };

    char chunk[1024];
    for (;;) {
        const ssize_t n = ::read(control_.get(), chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            const int e = errno;
            // Whether the exec happened is unknown: do not leave the child behind.
            control_.close_nothrow();
            ::kill(pid_, SIGKILL);
            reap();
            throwSystemError("control pipe read", e);
        }
        if (n == 0)
            break;
        const char *p = chunk;
        const char *end = chunk + n;
        while (p < end) {
            const char *nul = static_cast<const char *>(std::memchr(p, '\0', end - p));
            if (!nul) {
                record.append(p, end); // carried over to the next chunk
                break;
            }
            record.append(p, nul);
            interpret(record);
            record.clear();
            p = nul + 1;
        }
    }
    if (!record.empty())
        interpret(record);
    control_.close_nothrow();

    if (!haveType)
        return;
    // The child has reported a failure and is ending: collect it now so a
    // throw here leaves no zombie.
    reap();
    if (message.empty())
        message = "an error in child process";
    if (type == "SystemError")
        throwSystemError(message, code);
    if (type == "std::runtime_error")
        throw std::runtime_error(message);
    if (type == "std::exception")
        throw std::exception();
    throw std::bad_exception();
}

int ProcessLaunch::waitExit()
{
    if (reaped_)
        return status_;
    int status = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid_, &status, 0);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0)
        throwSystemError("unable to wait for child process exit", errno);
    status_ = status;
    reaped_ = true;
    return status_;
}

SignalBlock::SignalBlock(std::initializer_list<int> signals)
{
    sigset_t wanted;
    if (::sigprocmask(SIG_BLOCK, nullptr, &previous_) != 0)
        throwSystemError("get sigprocmask", errno);
    wanted = previous_;
    for (int sig : signals)
        if (::sigaddset(&wanted, sig) != 0)
            throwSystemError("sigaddset", errno);
    if (::sigprocmask(SIG_SETMASK, &wanted, nullptr) != 0)
        throwSystemError("set sigprocmask", errno);
    active_ = true;
    if (!g_childMask) {
        g_childMask = &previous_;
        outermost_ = true;
    }
}

SignalBlock::~SignalBlock()
{
    if (!active_)
        return;
    const int saved = errno;
    ::sigprocmask(SIG_SETMASK, &previous_, nullptr);
    if (outermost_)
        g_childMask = nullptr;
    errno = saved;
}

void SignalBlock::restore()
{
    if (!active_)
        return;
    active_ = false;
    if (outermost_)
        g_childMask = nullptr;
    if (::sigprocmask(SIG_SETMASK, &previous_, nullptr) != 0)
        throwSystemError("restore sigprocmask", errno);
}

} // namespace process
} // namespace zarnet
