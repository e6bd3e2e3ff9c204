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

// An init script of the test's own, with the master pid file beside it; the
// script body runs under /bin/sh with $LOG naming the log file.
class ServiceManagerTest : public ::testing::Test {
protected:
    ServiceManagerTest() { ServiceManager::setPathsForTesting(script_, pidFile_); }
    ~ServiceManagerTest() override { ServiceManager::setPathsForTesting("", ""); }

    void script(const std::string &body)
    {
        std::remove(log_.c_str());
        spit(script_, "#!/bin/sh\nLOG=" + log_ + "\n" + body + "\n");
        ::chmod(script_.c_str(), 0700);
    }

    testsupport::TempDir dir_{"service-manager"};
    std::string script_ = dir_.path() + "/postfix", pidFile_ = dir_.path() + "/master.pid",
                log_ = dir_.path() + "/log";
};

} // namespace

// What the real init script and server show (environment, start, stop,
// status) the service system tests prove; here the rest of the contract.
TEST_F(ServiceManagerTest, RcCommandRunsTheScriptAlone)
{
    const struct {
        const char *fault;
        std::string body;
        int code;
        std::string logged;
    } cases[] = {
        {"action_not_the_one_argument_or_stdin_not_null", "echo \"$#:$1\" > $LOG; readlink /proc/$$/fd/0 >> $LOG",
         0, "1:reload\n/dev/null\n"},
        {"exit_code_lost", "exit 3", 3, ""},
        {"signal_death_not_255", "kill -KILL $$", 255, ""},
    };
    for (const auto &c : cases) {
        script(c.body);
        EXPECT_EQ(ServiceManager::rcCommand("reload"), c.code) << c.fault;
        EXPECT_EQ(slurp(log_), c.logged) << c.fault;
    }
    script("echo script; echo complaint >&2");
    const auto r = testsupport::runInChild([] {
        std::printf("before\n");
        const int code = ServiceManager::rcCommand("start");
        std::printf("after\n");
        return code;
    });
    EXPECT_EQ(r.out + r.err, "before\nscript\ncomplaint\nafter\n") << "output out of place or on stderr";
    std::remove(script_.c_str());
    EXPECT_EQ(testsupport::thrown([] { ServiceManager::rcCommand("start"); }), "SystemError: execve (2)");
}

TEST_F(ServiceManagerTest, StatusNeedsQueueManagerChildOfRecordedMaster)
{
    const std::string self = std::to_string(::getpid());
    const struct {
        const char *fault;
        const char *child;
        std::string pidText; // "child": the child's own pid, "-": no file
        int want;
    } cases[] = {
        {"padded_pid_file_not_read", "qmgr", "       " + self + "\n", 0},
        {"any_child_taken_for_the_queue_manager", "pickup", self + "\n", 1},
        {"name_matched_by_prefix", "qmgrd", self + "\n", 1},
        {"parent_not_compared", "qmgr", "child", 1},
        {"garbage_read_as_a_pid", "qmgr", "none\n", 1},
        {"missing_pid_file_not_stopped", "qmgr", "-", 1},
    };
    for (const auto &c : cases) {
        NamedChild child(c.child);
        std::remove(pidFile_.c_str());
        if (c.pidText != "-")
            spit(pidFile_, c.pidText == "child" ? std::to_string(child.pid()) : c.pidText);
        EXPECT_EQ(ServiceManager::statusServer(0), c.want) << c.fault;
    }
}

TEST_F(ServiceManagerTest, FailedScriptCodesAndUnconfirmedStart)
{
    script("echo \"$1\" >> $LOG; exit 7");
    {
        NamedChild qmgr("qmgr");
        spit(pidFile_, std::to_string(::getpid()));
        EXPECT_EQ(ServiceManager::stopServer(), 7) << "failed stop not returned";
        EXPECT_EQ(ServiceManager::restartServer(), 7) << "failed restart not returned";
    }
    EXPECT_EQ(ServiceManager::startServer(), 7) << "failed start not returned";
    EXPECT_EQ(ServiceManager::reloadServer(), 7);
    EXPECT_EQ(slurp(log_), "stop\nrestart\nstart\nreload\n");

    // The only slow case: an unconfirmed start waits the full five seconds.
    script("echo \"$1\" >> $LOG");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ServiceManager::startServer(), 1);
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(slurp(log_), "start\n");
    EXPECT_TRUE(took >= 4.5 && took < 8.0) << took;
    const auto again = std::chrono::steady_clock::now();
    ServiceManager::statusServer(0);
    EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::milliseconds(500)) << "status 0 slept";
}
