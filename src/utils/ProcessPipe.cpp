#include "utils/ProcessPipe.h"

#include "utils/ExSystemError.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <stdexcept>

namespace zarnet {
namespace process {

namespace {

// A write to a pipe whose reader has gone raises SIGPIPE, which would end
// this process. The run keeps SIGPIPE blocked; a SIGPIPE it caused is
// discarded before the mask is restored.
class SigpipeDiscard {
public:
    SigpipeDiscard() { pendingBefore_ = isPending(); }
    SigpipeDiscard(const SigpipeDiscard &) = delete;
    SigpipeDiscard &operator=(const SigpipeDiscard &) = delete;
    ~SigpipeDiscard() { discard(); }

    void discard() noexcept
    {
        if (done_)
            return;
        done_ = true;
        if (pendingBefore_ || !isPending())
            return;
        const int saved = errno;
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, SIGPIPE);
        const struct timespec now = {0, 0};
        while (::sigtimedwait(&only, nullptr, &now) < 0 && errno == EINTR) {
        }
        errno = saved;
    }

private:
    static bool isPending() noexcept
    {
        sigset_t pending;
        return ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    bool pendingBefore_ = false;
    bool done_ = false;
};

std::vector<char *> cStrings(const std::vector<std::string> &strings)
{
    std::vector<char *> out;
    out.reserve(strings.size() + 1);
    for (const std::string &s : strings)
        out.push_back(const_cast<char *>(s.c_str())); // exec never writes through them
    out.push_back(nullptr);
    return out;
}

} // namespace

Pipe::Pipe(const Parameters<PipeProcessFlags> &first)
{
    chain_.push_back(first);
}

Pipe::~Pipe() = default;

void Pipe::append(const Parameters<PipeProcessFlags> &next)
{
    chain_.push_back(next);
}

void Pipe::setInput(InputSource source)
{
    input_ = std::move(source);
}

void Pipe::setExitCallback(std::function<void(unsigned, int)> callback)
{
    onExit_ = std::move(callback);
}

int Pipe::run()
{
    if (chain_.empty())
        throw std::logic_error("No processes to launch were assigned so far");
    if (launched_)
        throw std::logic_error("the pipe has been launched already");
    launched_ = true;
    statuses_.clear();

    PipeEnds in, out, err;
    if (input_) {
        in = makePipe("pipe");
        setNonblocking(in.write.get(), "fcntl");
    }
    if (stdout_.receiver) {
        out = makePipe("pipe");
        setNonblocking(out.read.get(), "fcntl");
    }
    if (stderr_.receiver) {
        err = makePipe("pipe");
        setNonblocking(err.read.get(), "fcntl");
    }

    // Both stay blocked for the whole run: the pump lets SIGCHLD in only
    // while it waits, so callbacks never race the handler.
    SignalBlock block({SIGCHLD, SIGPIPE});
    SigpipeDiscard sigpipe;
    ProcessSetCatcher catcher;
    std::vector<std::unique_ptr<ProcessLaunch>> launches;

    // On a throw: close every stream first, so the processes see end of
    // file or a broken pipe and end, then collect each one not yet reaped.
    struct Cleanup {
        PipeEnds *ends[3];
        ProcessSetCatcher &catcher;
        std::vector<std::unique_ptr<ProcessLaunch>> &launches;
        bool armed = true;
        ~Cleanup()
        {
            if (!armed)
                return;
            for (PipeEnds *e : ends) {
                e->read.close_nothrow();
                e->write.close_nothrow();
            }
            for (auto &l : launches) {
                l->stdinFd().close_nothrow();
                l->stdoutFd().close_nothrow();
                l->stderrFd().close_nothrow();
            }
            catcher.remove(false);
            for (auto &l : launches) {
                if (l->reaped() || catcher.hasFinished(l->pid()))
                    continue;
                try {
                    l->waitExit();
                } catch (...) {
                    // Nothing left to do for a child that cannot be waited for.
                }
            }
        }
    } cleanup{{&in, &out, &err}, catcher, launches};

    const auto selector = [](const FdOwner &fd) {
        return fd.valid() ? fd.get() : static_cast<int>(ProcessLaunch::FD_INHERIT);
    };
    launchAll(chain_, selector(in.read), selector(out.write), catcher, launches, statuses_,
              selector(err.write));
    // The children hold these ends now; ours would keep end of file away.
    in.read.close("pipe close");
    out.write.close("pipe close");
    err.write.close("pipe close");

    pump(catcher, in.write, out.read, err.read);
    catcher.remove(true);
    cleanup.armed = false;
    sigpipe.discard();
    block.restore();
    return statuses_.back().status;
}

void Pipe::deliver(ProcessSetCatcher &catcher, std::size_t &delivered)
{
    for (const ProcessStatus &changed : catcher.takeChanged()) {
        const auto it = std::find_if(statuses_.begin(), statuses_.end(),
                                     [&](const ProcessStatus &s) { return s.pid == changed.pid; });
        if (it == statuses_.end())
            throw std::out_of_range("no such pid");
        it->status = changed.status;
        it->changed = true;
        ++delivered;
        if (onExit_)
            onExit_(static_cast<unsigned>(it - statuses_.begin()), changed.status);
    }
}

void Pipe::pump(ProcessSetCatcher &catcher, FdOwner &in, FdOwner &out, FdOwner &err)
{
    // poll rather than select: descriptors numbered past FD_SETSIZE (the
    // panel may hand us many) must not overrun an fd_set.
    sigset_t waitMask;
    if (::sigprocmask(SIG_BLOCK, nullptr, &waitMask) != 0)
        throwSystemError("get sigprocmask", errno);
    sigdelset(&waitMask, SIGCHLD);

    std::vector<char> pending;
    std::size_t offset = 0;
    bool sourceDone = !in.valid();
    std::vector<char> chunk;
    chunk.reserve(1024);
    std::size_t delivered = 0;
    const std::size_t total = statuses_.size();

    const auto feed = [&] {
        while (offset == pending.size() && !sourceDone) {
            pending.clear();
            offset = 0;
            sourceDone = !input_(pending);
        }
        if (offset < pending.size()) {
            const std::size_t left = pending.size() - offset;
            const unsigned len = static_cast<unsigned>(std::min<std::size_t>(left, 1u << 30));
            try {
                offset += static_cast<std::size_t>(nonblock_write(in.get(), &pending[offset], len));
            } catch (const SystemError &e) {
                if (e.code() != EPIPE)
                    throw;
                // The first process stopped reading: the rest of the input has no taker.
                pending.clear();
                offset = 0;
                sourceDone = true;
            }
        }
        if (offset == pending.size() && sourceDone)
            in.close("pipe close");
    };
    // Chunks stay 1 KiB, but a full pipe is emptied in one wake-up (a
    // bounded number of reads, so input keeps flowing): one poll per KiB
    // made large dumps measurably slower than the compiler alone.
    const auto drain = [&](FdOwner &fd, const Receiver &receiver) {
        char raw[1024];
        for (int reads = 0; reads < 64; ++reads) {
            const ssize_t n = ::read(fd.get(), raw, sizeof raw);
            if (n > 0) {
                chunk.assign(raw, raw + n);
                receiver(chunk);
                if (static_cast<size_t>(n) < sizeof raw)
                    return;
            } else if (n == 0) {
                fd.close("pipe read-end close");
                return;
            } else if (errno == EINTR) {
                continue;
            } else if (errno == EAGAIN) {
                return;
            } else {
                throwSystemError("read", errno);
            }
        }
    };

    for (;;) {
        deliver(catcher, delivered);
        if (delivered == total && !out.valid() && !err.valid())
            break;

        struct pollfd fds[4];
        nfds_t count = 0;
        int control = -1, input = -1, output = -1, error = -1;
        if (delivered < total) {
            control = static_cast<int>(count);
            fds[count++] = {catcher.controlFd(), POLLIN, 0};
        }
        if (in.valid()) {
            input = static_cast<int>(count);
            fds[count++] = {in.get(), POLLOUT, 0};
        }
        if (out.valid()) {
            output = static_cast<int>(count);
            fds[count++] = {out.get(), POLLIN, 0};
        }
        if (err.valid()) {
            error = static_cast<int>(count);
            fds[count++] = {err.get(), POLLIN, 0};
        }

        if (::ppoll(fds, count, nullptr, &waitMask) < 0) {
            if (errno == EINTR)
                continue; // the handler ran: statuses are picked up at the top
            throwSystemError("select", errno); // the wait step keeps its established name
        }
        if (control >= 0 && fds[control].revents)
            catcher.clear_control();
        if (input >= 0 && fds[input].revents)
            feed();
        if (output >= 0 && fds[output].revents)
            drain(out, stdout_.receiver);
        if (error >= 0 && fds[error].revents)
            drain(err, stderr_.receiver);
    }
    in.close_nothrow(); // everything has ended; leftover input has no reader
}

void collectOutput(std::string &to, const std::vector<char> &chunk)
{
    to.append(chunk.begin(), chunk.end());
}

Receiver makeStringReceiver(std::string &to)
{
    return [&to](const std::vector<char> &chunk) { collectOutput(to, chunk); };
}

int nonblock_write(int fd, const void *buf, unsigned len)
{
    if (len == 0)
        return 0;
    const int saved = errno;
    for (;;) {
        const ssize_t n = ::write(fd, buf, len);
        if (n >= 0) {
            errno = saved;
            return static_cast<int>(n);
        }
        if (errno == EINTR)
            continue;
        // A pipe refuses an atomic write (up to PIPE_BUF) that does not fit
        // whole, though a shorter one would.
        if ((errno == EAGAIN || errno == EWOULDBLOCK) && len >= 2) {
            len /= 2;
            continue;
        }
        throwSystemError("write", errno);
    }
}

void launchAll(const std::vector<Parameters<PipeProcessFlags>> &chain, int stdinFd,
               int stdoutFd, ProcessSetCatcher &catcher,
               std::vector<std::unique_ptr<ProcessLaunch>> &launches,
               std::vector<ProcessStatus> &statuses, int stderrFd)
{
    // Blocked until every pid is registered, so none can end unnoticed.
    SignalBlock block({SIGCHLD});
    catcher.install();
    // No reallocation below: a started child is always stored.
    launches.reserve(launches.size() + chain.size());
    statuses.reserve(statuses.size() + chain.size());

    ProcessLaunch *previous = nullptr;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const Parameters<PipeProcessFlags> &p = chain[i];
        std::vector<char *> argv = cStrings(p.argv);
        std::vector<char *> envp;
        if (p.flags.env)
            envp = cStrings(*p.flags.env);
        const bool last = i + 1 == chain.size();

        auto launch = std::make_unique<ProcessLaunch>(
            argv.data(), p.path.c_str(), p.flags.cwd ? p.flags.cwd->c_str() : nullptr,
            p.flags.env ? envp.data() : nullptr, p.flags.closeOtherFds, p.flags.searchPath,
            p.flags.newSession, p.flags.preExecHook,
            previous ? previous->stdoutFd().get() : stdinFd,
            last ? stdoutFd : static_cast<int>(ProcessLaunch::FD_PIPE), stderrFd);
        launches.push_back(std::move(launch));
        ProcessLaunch &current = *launches.back();
        if (previous)
            previous->stdoutFd().close("pipe close");
        current.waitExec();
        catcher.watch(current.pid());
        statuses.push_back(ProcessStatus{current.pid(), false, 0});
        previous = &current;
    }
    block.restore();
}

} // namespace process
} // namespace zarnet
