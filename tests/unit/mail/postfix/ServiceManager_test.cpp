#include "mail/postfix/ServiceManager.h"

#include "support/files.h"
#include "support/named_child.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>

using zarnet::mail::postfix::ServiceManager;
using testsupport::NamedChild;
using testsupport::slurp;
using testsupport::spit;

// What the real init script and server show (environment, start, stop,
// status) the service system tests prove; here the rest of the contract.
TEST(ServiceManagerTest, ScriptCodesAndStatus)
{
    // An init script of the test's own whose body runs with $LOG naming the log.
    const testsupport::TempDir dir{"service-manager"};
    const std::string script_ = dir.path() + "/postfix", pidFile_ = dir.path() + "/master.pid", log_ = dir.path() + "/log";
    ServiceManager::setPathsForTesting(script_, pidFile_);
    const auto script = [&](const std::string &body) {
        std::remove(log_.c_str());
        spit(script_, "#!/bin/sh\nLOG=" + log_ + "\n" + body + "\n");
        ::chmod(script_.c_str(), 0700);
    };
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
    const std::string self = std::to_string(::getpid());
    const struct {
        const char *fault, *child;
        std::string pidText; // "child": the child's own pid
    } stopped[] = {
        {"any_child_taken_for_the_queue_manager", "pickup", self},
        {"name_matched_by_prefix", "qmgrd", self},
        {"parent_not_compared", "qmgr", "child"},
        {"garbage_read_as_a_pid", "qmgr", "none\n"},
    };
    for (const auto &c : stopped) {
        NamedChild child(c.child);
        spit(pidFile_, c.pidText == "child" ? std::to_string(child.pid()) : c.pidText);
        EXPECT_EQ(ServiceManager::statusServer(0), 1) << c.fault;
    }

    script("echo \"$1\" >> $LOG; exit 7");
    {
        NamedChild qmgr("qmgr");
        spit(pidFile_, self);
        const int stop = ServiceManager::stopServer();
        EXPECT_EQ(stop * 10 + ServiceManager::restartServer(), 77) << "failed stop or restart";
    }
    EXPECT_EQ(ServiceManager::startServer(), 7) << "failed start";
    EXPECT_EQ(slurp(log_), "stop\nrestart\nstart\n");
    // The only slow case: an unconfirmed start waits the full five seconds.
    script("echo \"$1\" >> $LOG");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ServiceManager::startServer(), 1);
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(slurp(log_) == "start\n" && took >= 4.5 && took < 8.0) << took;
    ServiceManager::setPathsForTesting("", "");
}

namespace {
volatile sig_atomic_t hangups = 0;
void countHangup(int) { hangups = hangups + 1; }
} // namespace

// The reload signal goes to the process the pid file names, and only while
// it is a running master (its queue manager is its child); the test process
// plays that master.
TEST(ServiceManagerTest, ReloadSignalsOnlyARunningMaster)
{
    const testsupport::TempDir dir{"service-reload"};
    const std::string pidFile = dir.path() + "/master.pid";
    ServiceManager::setPathsForTesting(dir.path() + "/no-script", pidFile);
    struct sigaction hup = {}, old = {};
    hup.sa_handler = countHangup;
    ASSERT_EQ(::sigaction(SIGHUP, &hup, &old), 0);
    const std::string self = std::to_string(::getpid());
    const struct {
        const char *fault, *pidText, *child, *ownName;
        int code, signals;
    } cases[] = {
        {"running_master_not_signalled", "self", "qmgr", nullptr, 0, 1},
        {"signalled_without_a_queue_manager", "self", "pickup", nullptr, 1, 0},
        {"master_between_queue_managers_not_signalled", "self", "pickup", "master", 0, 1},
        {"signalled_with_no_pid_file", nullptr, "qmgr", "master", 1, 0},
        {"signalled_an_unrelated_process", "1", "qmgr", nullptr, 1, 0},
    };
    char name[16] = {};
    ASSERT_EQ(::prctl(PR_GET_NAME, name), 0);
    for (const auto &c : cases) {
        ::prctl(PR_SET_NAME, c.ownName != nullptr ? c.ownName : name);
        std::remove(pidFile.c_str());
        if (c.pidText != nullptr)
            spit(pidFile, std::string(c.pidText) == "self" ? self : c.pidText);
        NamedChild child(c.child);
        hangups = 0;
        EXPECT_EQ(ServiceManager::reloadServer(), c.code) << c.fault;
        EXPECT_EQ(hangups, c.signals) << c.fault;
    }
    ::prctl(PR_SET_NAME, name);
    ::sigaction(SIGHUP, &old, nullptr);
    // Only the master's own children of that name are signalled.
    NamedChild rewrite("trivial-rewrite"), other("pickup");
    for (const std::string pidText : {"1", "self"}) {
        spit(pidFile, pidText == "self" ? self : pidText);
        EXPECT_EQ(ServiceManager::signalServerProcesses("trivial-rewrite", SIGCONT),
                  pidText == "self" ? 1 : 0) << pidText;
    }
    ServiceManager::setPathsForTesting("", "");
}
