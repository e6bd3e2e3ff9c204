#include "mail/services/service_scripts.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

// Scripts of the test's own log "NAME ACTION", then run their given body.
TEST(ServiceScripts, CourierScriptsInOrderAndServiceNames)
{
    const testsupport::TempDir dir("service-scripts");
    const std::string log = dir.path() + "/log";
    service_scripts_set_dir_for_testing(dir.path().c_str());
    const struct {
        const char *fault;
        std::vector<std::pair<std::string, std::string>> scripts;
        const char *service, *action;
        std::string out; // printed, then the result and the log
    } cases[] = {
        {"later_failure_overrides_the_first_or_stops_the_run_or_order_wrong",
         {{"courier-pop-ssl", ""}, {"courier-pop", ""}, {"courier-imap-ssl", "exit 1"}, {"courier-imap", "exit 3"},
          {"courier", ""}}, "courier-imap", "status",
         "3 courier-imap status\ncourier-imap-ssl status\ncourier-pop status\ncourier-pop-ssl status\n"},
        {"a_server_started_before_all_stopped_or_failed_stop_unreported",
         {{"courier-imap", ""}, {"courier-pop", "[ \"$1\" = stop ] && exit 4; exit 0"}}, "courier-imap", "restart",
         "4 courier-imap stop\ncourier-pop stop\ncourier-imap start\ncourier-pop start\n"},
        {"path_escapes_the_script_directory", {{"courier-imap", ""}}, "../courier-imap", "start",
         "Invalid service name '../courier-imap'\n-1 "},
    };
    for (const auto &c : cases) {
        for (const char *name : {"courier-imap", "courier-imap-ssl", "courier-pop", "courier-pop-ssl", "courier", "log"})
            std::remove((dir.path() + "/" + name).c_str());
        for (const auto &s : c.scripts) {
            testsupport::spit(dir.path() + "/" + s.first,
                              "#!/bin/sh\necho \"" + s.first + " $1\" >> " + log + "\n" + s.second + "\n");
            ::chmod((dir.path() + "/" + s.first).c_str(), 0700);
        }
        const auto r = testsupport::runInChild([&] { return std::printf("%d ", restart_daemon(c.service, c.action)) < 0; });
        EXPECT_EQ(r.out + testsupport::slurp(log), c.out) << c.fault;
    }
    service_scripts_set_dir_for_testing(nullptr);
}
