#include "utils/ProcessSetCatcher.h"

#include "support/thrown.h"
#include "utils/ProcessLaunch.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>

using zarnet::process::ProcessLaunch;
using zarnet::process::ProcessSetCatcher;
using zarnet::process::SignalBlock;

namespace {

std::unique_ptr<ProcessLaunch> startProgram(const char *path, int in = ProcessLaunch::FD_DEVNULL)
{
    char *argv[] = {const_cast<char *>(path), nullptr};
    auto p = std::make_unique<ProcessLaunch>(argv, path, nullptr, nullptr, false, false, false, nullptr, in,
                                             ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_INHERIT);
    p->waitExec();
    return p;
}

// Lets SIGCHLD in only while waiting on the control pipe, as the pump does.
// The bound only keeps a lost wake-up from hanging the run.
bool waitUntil(ProcessSetCatcher &catcher, const std::function<bool()> &done)
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    sigdelset(&mask, SIGCHLD);
    for (int i = 0; i < 600 && !done(); ++i) {
        struct pollfd p = {catcher.controlFd(), POLLIN, 0};
        const struct timespec tick = {0, 100 * 1000 * 1000};
        ppoll(&p, 1, &tick, &mask);
    }
    return done();
}

void noteSigchld(int) {}

} // namespace

TEST(ProcessSetCatcher, OneInstanceAtATimeAndThePreviousActionRestored)
{
    struct sigaction mine = {}, original, after;
    mine.sa_handler = &noteSigchld;
    ASSERT_EQ(sigaction(SIGCHLD, &mine, &original), 0);
    {
        ProcessSetCatcher first, second;
        first.install();
        EXPECT_EQ(testsupport::thrown([&] { second.install(); }),
                  "logic_error: ProcessSetCatcher instance has been installed already");
        EXPECT_TRUE(first.installed()) << "the refused install disturbed the installed one";
        first.remove(true);
        EXPECT_EQ(testsupport::thrown([&] { second.install(); }), "nothing") << "removal kept the slot";
    } // second is removed by its destructor
    sigaction(SIGCHLD, &original, &after);
    EXPECT_EQ(after.sa_handler, &noteSigchld) << "the previous SIGCHLD action was not restored";
}

TEST(ProcessSetCatcher, LeavesUnwatchedChildrenToTheirOwner)
{
    SignalBlock block({SIGCHLD});
    ProcessSetCatcher catcher;
    catcher.install();
    auto other = startProgram("/bin/true");
    // Wait for it to end without collecting it, so its SIGCHLD is pending.
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, other->pid(), &info, WEXITED | WNOWAIT), 0);
    auto watched = startProgram("/bin/true");
    catcher.watch(watched->pid());

    ASSERT_TRUE(waitUntil(catcher, [&] { return catcher.finishedCount() == 1; }));
    EXPECT_EQ(waitpid(other->pid(), nullptr, WNOHANG), other->pid()) << "the handler took an unwatched child";
    catcher.remove(true);
}

TEST(ProcessSetCatcher, RemoveWhileWatchedProcessRuns)
{
    for (const bool strict : {true, false}) {
        SignalBlock block({SIGCHLD});
        ProcessSetCatcher catcher;
        catcher.install();
        auto cat = startProgram("/bin/cat", ProcessLaunch::FD_PIPE); // runs until its stdin closes
        catcher.watch(cat->pid());
        EXPECT_EQ(testsupport::thrown([&] { catcher.remove(strict); }),
                  strict ? "logic_error: there're some child processes still running" : "nothing");
        EXPECT_FALSE(catcher.installed()) << "strict=" << strict << " left the catcher installed";
        cat->stdinFd().close();
        cat->waitExit();
    }
}

TEST(ProcessSetCatcher, HandlerKeepsErrnoAndSurvivesAStolenChild)
{
    SignalBlock block({SIGCHLD});
    ProcessSetCatcher catcher;
    catcher.install();
    // Reaped by someone else before the handler looks: waitpid fails with
    // ECHILD, which must neither leak into errno nor leave it unfinished.
    auto child = startProgram("/bin/true");
    child->waitExit();
    catcher.watch(child->pid());
    errno = E2BIG;
    ProcessSetCatcher::childHandler(SIGCHLD, nullptr, nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_TRUE(catcher.hasFinished(child->pid())) << "a pump would wait for it forever";
    EXPECT_EQ(testsupport::thrown([&] { catcher.remove(true); }), "nothing");
}
