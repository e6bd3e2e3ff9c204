#include "utils/ProcessSetCatcher.h"

#include "utils/ProcessLaunch.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>

using zarnet::process::ProcessLaunch;
using zarnet::process::ProcessSetCatcher;
using zarnet::process::SignalBlock;

namespace {

std::unique_ptr<ProcessLaunch> startProgram(const char *path, int stdinSel)
{
    char *argv[] = {const_cast<char *>(path), nullptr};
    auto p = std::make_unique<ProcessLaunch>(argv, path, nullptr, nullptr, false, false, false,
                                             std::function<void()>(), stdinSel,
                                             ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_INHERIT);
    p->waitExec();
    return p;
}

// Lets SIGCHLD in only while waiting on the control pipe, as the pump does;
// gives up after a minute so a lost wake-up fails instead of hanging.
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

TEST(ProcessSetCatcher, SecondInstanceIsRefused)
{
    ProcessSetCatcher first, second;
    first.install();
    try {
        second.install();
        ADD_FAILURE() << "a second catcher was installed";
    } catch (const std::logic_error &e) {
        EXPECT_STREQ(e.what(), "ProcessSetCatcher instance has been installed already");
    }
    EXPECT_TRUE(first.installed()) << "the refused install disturbed the installed one";
    first.remove(true);
    EXPECT_NO_THROW(second.install()) << "removal did not free the slot";
    second.remove(true);
}

TEST(ProcessSetCatcher, LeavesUnwatchedChildrenToTheirOwner)
{
    SignalBlock block({SIGCHLD});
    ProcessSetCatcher catcher;
    catcher.install();
    auto other = startProgram("/bin/true", ProcessLaunch::FD_DEVNULL);
    // Wait for it to end without collecting it, so its SIGCHLD is pending.
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, other->pid(), &info, WEXITED | WNOWAIT), 0);
    auto watched = startProgram("/bin/true", ProcessLaunch::FD_DEVNULL);
    catcher.watch(watched->pid());

    ASSERT_TRUE(waitUntil(catcher, [&] { return catcher.finishedCount() == 1; }));
    int status = -1;
    EXPECT_EQ(waitpid(other->pid(), &status, WNOHANG), other->pid())
        << "the handler took the status of a child it was not watching";
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
        try {
            catcher.remove(strict);
            EXPECT_FALSE(strict) << "strict removal ignored a running process";
        } catch (const std::logic_error &e) {
            EXPECT_TRUE(strict) << "the quiet removal threw";
            EXPECT_STREQ(e.what(), "there're some child processes still running");
        }
        EXPECT_FALSE(catcher.installed()) << "strict=" << strict << " left the catcher installed";
        cat->stdinFd().close();
        cat->waitExit();
    }
}

TEST(ProcessSetCatcher, RestoresThePreviousAction)
{
    struct sigaction mine = {}, original, after;
    mine.sa_handler = &noteSigchld;
    ASSERT_EQ(sigaction(SIGCHLD, &mine, &original), 0);
    {
        ProcessSetCatcher catcher;
        catcher.install();
    } // removed by the destructor
    sigaction(SIGCHLD, &original, &after);
    EXPECT_EQ(after.sa_handler, &noteSigchld) << "the previous SIGCHLD action was not restored";
}

TEST(ProcessSetCatcher, HandlerKeepsErrnoAndSurvivesAStolenChild)
{
    SignalBlock block({SIGCHLD});
    ProcessSetCatcher catcher;
    catcher.install();
    // Reaped by someone else before the handler looks: waitpid fails with
    // ECHILD, which must neither leak into errno nor leave it unfinished.
    auto child = startProgram("/bin/true", ProcessLaunch::FD_DEVNULL);
    child->waitExit();
    catcher.watch(child->pid());
    errno = E2BIG;
    ProcessSetCatcher::childHandler(SIGCHLD, nullptr, nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_TRUE(catcher.hasFinished(child->pid())) << "a pump would wait for it forever";
    EXPECT_NO_THROW(catcher.remove(true));
}
