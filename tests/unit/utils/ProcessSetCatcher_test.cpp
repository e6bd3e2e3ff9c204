#include "utils/ProcessSetCatcher.h"

#include "test_common.h"

#include "utils/ProcessLaunch.h"

using zarnet::process::ProcessLaunch;
using zarnet::process::ProcessSetCatcher;

namespace {

std::unique_ptr<ProcessLaunch> startProgram(const char *path, int in = ProcessLaunch::FD_DEVNULL)
{
    char *argv[] = {const_cast<char *>(path), nullptr};
    auto p = std::make_unique<ProcessLaunch>(argv, path, nullptr, nullptr, false, false, false, nullptr, in,
                                             ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_INHERIT);
    p->waitExec();
    return p;
}

void noteSigchld(int) {}

} // namespace

TEST(ProcessSetCatcher, OneInstanceAtATimeAndRemovalRestoresAndRefusesRunningChildren)
{
    struct sigaction mine = {}, original, after;
    mine.sa_handler = &noteSigchld;
    ASSERT_EQ(sigaction(SIGCHLD, &mine, &original), 0);
    zarnet::process::SignalBlock block({SIGCHLD});
    for (const bool strict : {true, false}) {
        ProcessSetCatcher first, second;
        first.install();
        EXPECT_EQ(thrown([&] { second.install(); }), "logic_error: ProcessSetCatcher instance has been installed already");
        auto cat = startProgram("/bin/cat", ProcessLaunch::FD_PIPE); // runs until its stdin closes
        first.watch(cat->pid());
        EXPECT_EQ(thrown([&] { first.remove(strict); }),
                  strict ? "logic_error: there're some child processes still running" : "nothing");
        EXPECT_FALSE(first.installed()) << "strict=" << strict << " left the catcher installed";
        EXPECT_EQ(thrown([&] { second.install(); }), "nothing") << "removal kept the slot";
        cat->stdinFd().close();
        cat->waitExit();
    }
    sigaction(SIGCHLD, &original, &after);
    EXPECT_EQ(after.sa_handler, &noteSigchld) << "the previous SIGCHLD action was not restored";
}

TEST(ProcessSetCatcher, HandlerKeepsErrnoAndLeavesUnwatchedChildrenToTheirOwner)
{
    zarnet::process::SignalBlock block({SIGCHLD});
    ProcessSetCatcher catcher;
    catcher.install();
    auto other = startProgram("/bin/true");
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, other->pid(), &info, WEXITED | WNOWAIT), 0); // ended, not collected
    // Reaped by someone else before the handler looks: waitpid fails with
    // ECHILD, which must neither leak into errno nor leave it unfinished.
    auto stolen = startProgram("/bin/true");
    stolen->waitExit();
    catcher.watch(stolen->pid());
    errno = E2BIG;
    ProcessSetCatcher::childHandler(SIGCHLD, nullptr, nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_TRUE(catcher.hasFinished(stolen->pid())) << "a pump would wait for it forever";
    EXPECT_EQ(waitpid(other->pid(), nullptr, WNOHANG), other->pid()) << "the handler took an unwatched child";
    EXPECT_EQ(thrown([&] { catcher.remove(true); }), "nothing");
}
