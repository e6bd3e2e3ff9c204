#include "mail/services/service_scripts.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <map>

using testsupport::runInChild;
using testsupport::slurp;
using testsupport::spit;

namespace {

// Scripts of the test's own that append "NAME ACTION" to one log and exit
// with their given code.
class ServiceScripts : public ::testing::Test {
protected:
    ServiceScripts() : dir_("service-scripts"), log_(dir_.path() + "/log")
    {
        service_scripts_set_dir_for_testing(dir_.path().c_str());
    }
    ~ServiceScripts() override { service_scripts_set_dir_for_testing(nullptr); }

    void script(const std::string &name, const std::string &tail)
    {
        const std::string path = dir_.path() + "/" + name;
        spit(path, "#!/bin/sh\necho \"" + name + " $1\" >> " + log_ + "\n" + tail + "\n");
        ::chmod(path.c_str(), 0700);
    }
    std::string log() const { return slurp(log_); }

    testsupport::TempDir dir_;
    std::string log_;
};

} // namespace

TEST_F(ServiceScripts, CourierMeansThePresentPop3AndImapScripts)
{
    const struct {
        const char *fault;
        std::map<std::string, std::string> scripts; // name: what follows the log line
        int want;
        std::string logged;
    } cases[] = {
        {"a script left out or run out of order",
         {{"courier-pop-ssl", ""}, {"courier-pop", ""}, {"courier-imap-ssl", ""},
          {"courier-imap", ""}},
         0,
         "courier-imap status\ncourier-imap-ssl status\ncourier-pop status\n"
         "courier-pop-ssl status\n"},
        {"absent scripts not skipped", {{"courier-pop", ""}, {"courier-imap-ssl", ""}}, 0,
         "courier-imap-ssl status\ncourier-pop status\n"},
        {"one stopped service reported as all running",
         {{"courier-imap", ""}, {"courier-pop", "exit 3"}}, 3,
         "courier-imap status\ncourier-pop status\n"},
        {"later failure overrides the first, or stops the run",
         {{"courier-imap", "exit 3"}, {"courier-imap-ssl", "exit 1"}, {"courier-pop", ""}}, 3,
         "courier-imap status\ncourier-imap-ssl status\ncourier-pop status\n"},
        {"unrelated script taken for a courier one", {{"courier-imap", ""}, {"courier", ""}}, 0,
         "courier-imap status\n"},
    };
    for (const auto &c : cases) {
        for (const char *name :
             {"courier-imap", "courier-imap-ssl", "courier-pop", "courier-pop-ssl", "courier"})
            std::remove((dir_.path() + "/" + name).c_str());
        std::remove(log_.c_str());
        for (const auto &s : c.scripts)
            script(s.first, s.second);
        EXPECT_EQ(restart_daemon("courier-imap", "status"), c.want) << c.fault;
        EXPECT_EQ(log(), c.logged) << c.fault;
    }
}

TEST_F(ServiceScripts, RestartStopsEveryServerBeforeStartingAny)
{
    script("courier-imap", "");
    script("courier-pop", "[ \"$1\" = stop ] && exit 4; exit 0");
    EXPECT_EQ(restart_daemon("courier-imap", "restart"), 4) << "failed stop not reported";
    EXPECT_EQ(log(), "courier-imap stop\ncourier-pop stop\ncourier-imap start\ncourier-pop start\n");
}

TEST_F(ServiceScripts, OtherServicesAndBadNames)
{
    script("courier-imap", "");
    script("spamd", "cat /proc/$$/environ >> " + log_);
    EXPECT_EQ(restart_daemon("spamd", "reload"), 0);
    EXPECT_EQ(log(), std::string("spamd reload\nLANG=C\0", 20)) << "environment not exactly LANG=C";

    const std::string missing = "No start/stop script of nothing in " + dir_.path() + "\n";
    const struct {
        const char *fault;
        const char *service, *action;
        std::string message;
    } cases[] = {
        {"missing service not reported", "nothing", "start", missing},
        {"path escapes the script directory", "../courier-imap", "start",
         "Invalid service name '../courier-imap'\n"},
    };
    for (const auto &c : cases) {
        std::remove(log_.c_str());
        const auto r = runInChild([&] { return restart_daemon(c.service, c.action) == -1; });
        EXPECT_EQ(r.status, 1) << c.fault << "\n" << r;
        EXPECT_EQ(r.out, c.message) << c.fault;
        EXPECT_EQ(r.err, c.message) << c.fault;
        EXPECT_EQ(log(), "") << c.fault;
    }
}

TEST(PrintStatus, RunningOnlyForZero)
{
    const auto r = runInChild([] {
        print_status(nullptr, 0);
        print_status("mta", 1);
        print_status("imaps", -1);
        print_status(nullptr, 255);
        return 0;
    });
    EXPECT_EQ(r.out, "is running\nmta is stopped\nimaps is stopped\nis stopped\n");
    EXPECT_EQ(r.err, "");
}
