// Running a chain of programs and pumping its streams.
//
// A Pipe runs its processes with each one's stdout feeding the next one's
// stdin. The input source feeds the first process; the stdout channel
// receives the last process's output and the stderr channel the error
// output of all of them, in chunks of at most 1024 bytes as they arrive. The
// pump reads every captured stream to end of file, so output written just
// before a process ends is never lost; it never blocks on a full pipe.
//
// Unset pieces: no input source leaves the first stdin inherited; an unset
// channel receiver leaves that stream inherited (not captured, not
// discarded).
//
// run() starts the chain once and returns the raw wait status of the LAST
// process; every process's status goes to the exit callback (index in the
// chain, raw status) as it ends and is kept in statuses(). A non-zero exit is
// not an error here: the caller judges it. Input the chain stops reading is
// dropped (the write end is closed), not reported.
//
// Throws: SystemError for failed system calls (a program that cannot be
// executed throws from run() with "execv"/"execvp"/"execve" and its errno),
// whatever a child's pre-exec hook threw, std::logic_error for misuse,
// std::out_of_range "no such pid", and whatever a callback throws. When run()
// throws after starting processes, it closes every stream it holds and waits
// for each started process, so no zombie is left.
//
// Callbacks run with SIGCHLD and SIGPIPE blocked and must not start another
// Pipe (only one catcher may be installed).
#ifndef MAILTEND_UTILS_PROCESSPIPE_H
#define MAILTEND_UTILS_PROCESSPIPE_H

#include "utils/ProcessLaunch.h"
#include "utils/ProcessSetCatcher.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zarnet {
namespace process {

// Fills the (cleared) buffer with the next input bytes; returns false when
// there is no more. Bytes left in the buffer with false are still written.
typedef std::function<bool(std::vector<char> &)> InputSource;
typedef std::function<void(const std::vector<char> &)> Receiver;

struct Channel {
    Receiver receiver;
};

class Pipe {
public:
    // An empty chain to be filled with append().
    Pipe() = default;
    explicit Pipe(const Parameters<PipeProcessFlags> &first);
    // Copies the whole configuration and state: a copy of a pipe that has
    // run has run too, so copy before run() to reuse a configuration.
    Pipe(const Pipe &) = default;
    Pipe &operator=(const Pipe &) = default;
    virtual ~Pipe();

    void append(const Parameters<PipeProcessFlags> &next);
    void setInput(InputSource source);
    Channel &stdoutChannel() noexcept { return stdout_; }
    Channel &stderrChannel() noexcept { return stderr_; }
    void setExitCallback(std::function<void(unsigned, int)> callback);

    int run();
    const std::vector<ProcessStatus> &statuses() const noexcept { return statuses_; }

private:
    void pump(ProcessSetCatcher &catcher, FdOwner &in, FdOwner &out, FdOwner &err);
    void deliver(ProcessSetCatcher &catcher, std::size_t &delivered);

    std::vector<Parameters<PipeProcessFlags>> chain_;
    InputSource input_;
    Channel stdout_;
    Channel stderr_;
    std::function<void(unsigned, int)> onExit_;
    std::vector<ProcessStatus> statuses_;
    bool launched_ = false;
};

void collectOutput(std::string &to, const std::vector<char> &chunk);
// A receiver that appends everything it gets to `to`, which must outlive it.
Receiver makeStringReceiver(std::string &to);

// Writes as much of buf as the non-blocking fd takes, halving the length
// while an atomic write of it does not fit. Returns the count written (0 for
// len 0, without a system call); errno is left as it was. Throws SystemError
// "write" for any other failure, and for EAGAIN at length 1.
int nonblock_write(int fd, const void *buf, unsigned len);

// Starts the chain (one ProcessLaunch each, appended to launches, with the
// matching entries appended to statuses in chain order), stdout of each
// feeding the next one's stdin; stdinFd and stdoutFd are selectors for the
// first stdin and the last stdout, stderrFd for every process's stderr.
// Installs the catcher and registers every pid with SIGCHLD blocked. On a
// throw, the launches started so far are left in `launches` for the caller
// to close and reap; the caller's selector descriptors stay the caller's.
void launchAll(const std::vector<Parameters<PipeProcessFlags>> &chain, int stdinFd,
               int stdoutFd, ProcessSetCatcher &catcher,
               std::vector<std::unique_ptr<ProcessLaunch>> &launches,
               std::vector<ProcessStatus> &statuses,
               int stderrFd = ProcessLaunch::FD_INHERIT);

} // namespace process
} // namespace zarnet

#endif
