#include "mail/services/service_scripts.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using testsupport::runInChild;

// Scripts of the test's own that append "NAME ACTION" to one log and exit
// with their given code. The real scripts' environment, the skipping of
// absent ones and the status of one stopped server the service system tests
// prove; here the order over all four and the names.
TEST(ServiceScripts, CourierScriptsInOrderAndServiceNames)
{
    const testsupport::TempDir dir("service-scripts");
    const std::string log = dir.path() + "/log";
    service_scripts_set_dir_for_testing(dir.path().c_str());
    const auto scripts = [&](std::vector<std::pair<std::string, std::string>> list) {
        for (const char *name : {"courier-imap", "courier-imap-ssl", "courier-pop", "courier-pop-ssl", "courier"})
            std::remove((dir.path() + "/" + name).c_str());
        std::remove(log.c_str());
        for (const auto &s : list) {
            testsupport::spit(dir.path() + "/" + s.first, "#!/bin/sh\necho \"" + s.first + " $1\" >> " + log + "\n" +
                                                          s.second + "\n");
            ::chmod((dir.path() + "/" + s.first).c_str(), 0700);
        }
    };
    const struct {
        const char *fault;
        std::function<void()> setup;
        const char *service, *action;
        std::string out; // printed, then the result and the log
    } cases[] = {
        {"a_script_left_out_or_run_out_of_order",
         [&] { scripts({{"courier-pop-ssl", ""}, {"courier-pop", ""}, {"courier-imap-ssl", ""}, {"courier-imap", ""}}); },
         "courier-imap", "status",
         "0 courier-imap status\ncourier-imap-ssl status\ncourier-pop status\ncourier-pop-ssl status\n"},
        {"later_failure_overrides_the_first_or_stops_the_run",
         [&] { scripts({{"courier-imap", "exit 3"}, {"courier-imap-ssl", "exit 1"}, {"courier-pop", ""}}); },
         "courier-imap", "status", "3 courier-imap status\ncourier-imap-ssl status\ncourier-pop status\n"},
        {"unrelated_script_taken_for_a_courier_one", [&] { scripts({{"courier-imap", ""}, {"courier", ""}}); },
         "courier-imap", "status", "0 courier-imap status\n"},
        {"a_server_started_before_all_stopped_or_failed_stop_unreported",
         [&] { scripts({{"courier-imap", ""}, {"courier-pop", "[ \"$1\" = stop ] && exit 4; exit 0"}}); },
         "courier-imap", "restart",
         "4 courier-imap stop\ncourier-pop stop\ncourier-imap start\ncourier-pop start\n"},
        {"other_service_not_its_own_script", [&] { scripts({{"spamd", ""}}); }, "spamd", "reload",
         "0 spamd reload\n"},
        {"path_escapes_the_script_directory", [&] { scripts({{"courier-imap", ""}}); }, "../courier-imap", "start",
         "Invalid service name '../courier-imap'\n-1 "},
    };
    for (const auto &c : cases) {
        c.setup();
        const auto r = runInChild([&] { return std::printf("%d ", restart_daemon(c.service, c.action)) < 0; });
        EXPECT_EQ(r.out + testsupport::slurp(log), c.out) << c.fault;
    }
    service_scripts_set_dir_for_testing(nullptr);

    const auto r = runInChild([] {
        print_status(nullptr, 0);
        print_status("mta", 1);
        print_status("imaps", -1);
        return 0;
    });
    EXPECT_EQ(r.out + r.err, "is running\nmta is stopped\nimaps is stopped\n");
}
