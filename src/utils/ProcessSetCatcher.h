// Reaping a set of child processes from a SIGCHLD handler.
//
// While installed, the catcher's handler collects the wait status of every
// watched pid that has ended and writes one byte to its control pipe, so a
// loop waiting on that pipe (with poll or select) wakes up. Only watched pids
// are waited for: children started elsewhere keep their status for their own
// owner.
//
// One instance may be installed at a time; the handler reaches it through a
// process-wide pointer. The handler allocates nothing and preserves errno;
// watch() grows the table and so must run with SIGCHLD blocked (enforced).
//
// Throws: install() std::logic_error when another instance is installed,
// SystemError for "sigaction", "process set catcher control pipe"; the strict
// remove(true) throws SystemError "restore sigaction" and std::logic_error
// when a watched process has not finished, after fully uninstalling. The
// destructor uses the quiet remove(false).
#ifndef MAILTEND_UTILS_PROCESSSETCATCHER_H
#define MAILTEND_UTILS_PROCESSSETCATCHER_H

#include "utils/FdOwner.h"

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace zarnet {
namespace process {

// One launched process: status is the raw wait status once changed is set.
struct ProcessStatus {
    pid_t pid;
    bool changed;
    int status;
};

class ProcessSetCatcher {
public:
    ProcessSetCatcher() = default;
    ProcessSetCatcher(const ProcessSetCatcher &) = delete;
    ProcessSetCatcher &operator=(const ProcessSetCatcher &) = delete;
    ~ProcessSetCatcher();

    void install();
    // strict: true throws as described above; false never throws.
    void remove(bool strict);
    bool installed() const noexcept;

    // Empties the control pipe; returns the number of bytes it held.
    unsigned clear_control() noexcept;
    int controlFd() const noexcept { return control_.read.get(); }

    // Requires the catcher to be installed and SIGCHLD blocked (std::logic_error).
    void watch(pid_t pid);
    std::size_t watchedCount() const noexcept { return slots_.size(); }
    unsigned finishedCount() const noexcept { return finished_; }
    unsigned statusChanges() const noexcept { return changes_; }
    bool hasFinished(pid_t pid) const noexcept;

    // Statuses that arrived since the last call, each reported once.
    std::vector<ProcessStatus> takeChanged();

    static void childHandler(int sig, siginfo_t *info, void *context);

private:
    // Written by the handler, hence volatile sig_atomic_t (an int on Linux,
    // wide enough for a pid and a wait status).
    struct Slot {
        pid_t pid;
        volatile sig_atomic_t status;
        volatile sig_atomic_t done;
        volatile sig_atomic_t changed;
    };

    void handle() noexcept;

    std::vector<Slot> slots_;
    volatile sig_atomic_t changes_ = 0;
    volatile sig_atomic_t finished_ = 0;
    struct sigaction previous_ = {};
    PipeEnds control_;
};

} // namespace process
} // namespace zarnet

#endif
