#include "utils/ProcessSetCatcher.h"

#include "utils/ExSystemError.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace process {

namespace {

std::atomic<ProcessSetCatcher *> g_installed{nullptr};
static_assert(std::atomic<ProcessSetCatcher *>::is_always_lock_free,
              "the SIGCHLD handler reads the installed catcher");

} // namespace

ProcessSetCatcher::~ProcessSetCatcher()
{
    remove(false);
}

bool ProcessSetCatcher::installed() const noexcept
{
    return g_installed.load() == this;
}

void ProcessSetCatcher::install()
{
    if (g_installed.load() != nullptr)
        throw std::logic_error("ProcessSetCatcher instance has been installed already");

    // The pipe exists and the pointer is set before the handler can run, so
    // it never sees a half-built catcher.
    control_ = makePipe("process set catcher control pipe", O_CLOEXEC | O_NONBLOCK);
    slots_.clear();
    changes_ = 0;
    finished_ = 0;
    g_installed.store(this);

    struct sigaction action = {};
    action.sa_sigaction = &ProcessSetCatcher::childHandler;
    action.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
    sigemptyset(&action.sa_mask);
    if (::sigaction(SIGCHLD, &action, &previous_) != 0) {
        const int e = errno;
        g_installed.store(nullptr);
        control_.read.close_nothrow();
        control_.write.close_nothrow();
        throwSystemError("sigaction", e);
    }
}

void ProcessSetCatcher::remove(bool strict)
{
    if (!installed())
        return;
    // Handler first, pipe last: the handler must never write to a closed
    // (or reused) descriptor.
    const int saved = errno;
    const int rc = ::sigaction(SIGCHLD, &previous_, nullptr);
    const int e = errno;
    g_installed.store(nullptr);
    control_.read.close_nothrow();
    control_.write.close_nothrow();
    errno = saved;
    if (!strict)
        return;
    if (rc != 0)
        throwSystemError("restore sigaction", e);
    if (static_cast<std::size_t>(finished_) < slots_.size())
        throw std::logic_error("there're some child processes still running");
}

unsigned ProcessSetCatcher::clear_control() noexcept
{
    const int fd = control_.read.get();
    if (fd < 0)
        return 0;
    const int saved = errno;
    unsigned total = 0;
    char buf[64];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            total += static_cast<unsigned>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break; // empty (EAGAIN) or closed
    }
    errno = saved;
    return total;
}

void ProcessSetCatcher::watch(pid_t pid)
{
    if (!installed())
        throw std::logic_error("ProcessSetCatcher is not installed");
    sigset_t current;
    if (::sigprocmask(SIG_BLOCK, nullptr, &current) != 0)
        throwSystemError("get sigprocmask", errno);
    if (sigismember(&current, SIGCHLD) != 1)
        throw std::logic_error("SIGCHLD must be blocked while processes are registered");
    slots_.push_back(Slot{pid, 0, 0, 0});
}

bool ProcessSetCatcher::hasFinished(pid_t pid) const noexcept
{
    for (const Slot &s : slots_)
        if (s.pid == pid)
            return s.done != 0;
    return false;
}

std::vector<ProcessStatus> ProcessSetCatcher::takeChanged()
{
    std::vector<ProcessStatus> out;
    for (Slot &s : slots_) {
        if (s.changed) {
            s.changed = 0;
            out.push_back(ProcessStatus{s.pid, true, static_cast<int>(s.status)});
        }
    }
    return out;
}

void ProcessSetCatcher::childHandler(int, siginfo_t *, void *)
{
    ProcessSetCatcher *self = g_installed.load();
    if (self)
        self->handle();
}

void ProcessSetCatcher::handle() noexcept
{
    const int saved = errno;
    // One SIGCHLD may stand for several children, so every unfinished slot is asked.
    for (Slot &s : slots_) {
        if (s.done)
            continue;
        int status = 0;
        pid_t rc;
        do {
            rc = ::waitpid(s.pid, &status, WNOHANG);
        } while (rc < 0 && errno == EINTR);
        if (rc == 0)
            continue;
        if (rc < 0) {
            // Reaped behind our back: its status is lost, but waiting for
            // it forever would hang the pump.
            status = -1;
        } else if (!WIFEXITED(status) && !WIFSIGNALED(status)) {
            continue;
        }
        s.status = status;
        s.done = 1;
        s.changed = 1;
        changes_ = changes_ + 1;
        finished_ = finished_ + 1;
        const char byte = 't';
        ssize_t n;
        do {
            n = ::write(control_.write.get(), &byte, 1);
        } while (n < 0 && errno == EINTR);
        // A full pipe already holds a wake-up: EAGAIN is fine.
    }
    errno = saved;
}

} // namespace process
} // namespace zarnet
