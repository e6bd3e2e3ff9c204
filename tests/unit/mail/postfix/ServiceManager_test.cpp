#include "mail/postfix/ServiceManager.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/named_child.h"
#include "support/temp_dir.h"
#include "support/thrown.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>

using zarnet::mail::postfix::ServiceManager;
using testsupport::NamedChild;
using testsupport::slurp;
using testsupport::spit;

namespace {

// An init script of the test's own in a scratch directory, with the master
// pid file beside it; "log" collects what scripts record.
class ServiceManagerTest : public ::testing::Test {
protected:
    ServiceManagerTest()
        : dir_("service-manager"), script_(dir_.path() + "/postfix"),
          pidFile_(dir_.path() + "/master.pid"), log_(dir_.path() + "/log")
    {
        ServiceManager::setPathsForTesting(script_, pidFile_);
    }
    ~ServiceManagerTest() override { ServiceManager::setPathsForTesting("", ""); }

    // body runs under /bin/sh with $LOG set to the log file.
    void script(const std::string &body)
    {
        spit(script_, "#!/bin/sh\nLOG=" + log_ + "\n" + body + "\n");
        ::chmod(script_.c_str(), 0700);
    }
    void masterPid(const std::string &text) { spit(pidFile_, text); }
    std::string log() const { return slurp(log_); }

    testsupport::TempDir dir_;
    std::string script_, pidFile_, log_;
};

double secondsOf(const std::function<void()> &fn)
{
    const auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST_F(ServiceManagerTest, RcCommandRunsTheScriptAlone)
{
    const struct {
        const char *fault;
        std::string body;
        int code;
        std::string logged;
    } cases[] = {
        {"environment leaked or not exactly LANG=C", "cat /proc/$$/environ > $LOG", 0,
         std::string("LANG=C\0", 7)},
        {"action not passed as the one argument", "echo \"$#:$1\" > $LOG", 0, "1:reload\n"},
        {"stdin not /dev/null", "readlink /proc/$$/fd/0 > $LOG", 0, "/dev/null\n"},
        {"exit code lost", "exit 3", 3, ""},
        {"signal death not 255", "kill -KILL $$", 255, ""},
    };
    for (const auto &c : cases) {
        std::remove(log_.c_str());
        script(c.body);
        EXPECT_EQ(ServiceManager::rcCommand("reload"), c.code) << c.fault;
        EXPECT_EQ(log(), c.logged) << c.fault;
    }
}

TEST_F(ServiceManagerTest, RcCommandOutputKeepsItsPlaceOnStdout)
{
    script("echo script; echo complaint >&2");
    const auto r = testsupport::runInChild([] {
        std::printf("before\n");
        const int code = ServiceManager::rcCommand("start");
        std::printf("after\n");
        return code;
    });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "before\nscript\ncomplaint\nafter\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(ServiceManagerTest, RcCommandWithoutScriptThrows)
{
    EXPECT_EQ(testsupport::thrown([] { ServiceManager::rcCommand("start"); }),
              "SystemError: execve (2)");
}

TEST_F(ServiceManagerTest, StatusNeedsQueueManagerChildOfRecordedMaster)
{
    const std::string self = std::to_string(::getpid());
    const struct {
        const char *fault;
        const char *child;
        std::string pidText; // "child": the child's own pid
        int want;
    } cases[] = {
        {"running server not seen", "qmgr", self + "\n", 0},
        {"padded pid file not read", "qmgr", "       " + self + "\n", 0},
        {"any child taken for the queue manager", "pickup", self + "\n", 1},
        {"name matched by prefix", "qmgrd", self + "\n", 1},
        {"parent not compared", "qmgr", "child", 1},
        {"garbage read as a pid", "qmgr", "none\n", 1},
    };
    for (const auto &c : cases) {
        NamedChild child(c.child);
        masterPid(c.pidText == "child" ? std::to_string(child.pid()) : c.pidText);
        EXPECT_EQ(ServiceManager::statusServer(0), c.want) << c.fault;
    }
    std::remove(pidFile_.c_str());
    NamedChild qmgr("qmgr");
    EXPECT_EQ(ServiceManager::statusServer(0), 1) << "missing pid file";
}

TEST_F(ServiceManagerTest, StartAndStopRunTheScriptOnlyWhenNeeded)
{
    script("echo \"$1\" >> $LOG; exit 7");
    {
        NamedChild qmgr("qmgr");
        masterPid(std::to_string(::getpid()));
        EXPECT_EQ(ServiceManager::startServer(), 0);
        EXPECT_EQ(log(), "") << "start of a running server ran the script";
        EXPECT_EQ(ServiceManager::stopServer(), 7);
        EXPECT_EQ(log(), "stop\n");
        EXPECT_EQ(ServiceManager::restartServer(), 7) << "failed restart not returned";
    }
    EXPECT_EQ(ServiceManager::stopServer(), 0);
    EXPECT_EQ(ServiceManager::startServer(), 7) << "failed start not returned";
    EXPECT_EQ(ServiceManager::reloadServer(), 7);
    EXPECT_EQ(log(), "stop\nrestart\nstart\nreload\n");
}

// The only slow test: an unconfirmed start waits the full five seconds.
TEST_F(ServiceManagerTest, UnconfirmedStartWaitsFiveSeconds)
{
    script("echo \"$1\" >> $LOG");
    int got = -1;
    const double took = secondsOf([&] { got = ServiceManager::startServer(); });
    EXPECT_EQ(got, 1);
    EXPECT_EQ(log(), "start\n");
    EXPECT_GE(took, 4.5);
    EXPECT_LT(took, 8.0);
    EXPECT_LT(secondsOf([] { ServiceManager::statusServer(0); }), 0.5) << "status 0 slept";
}
