#include "mail/services/courier_configure.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

namespace {

using testsupport::slurp;
using testsupport::spit;

int restarts = 0, restart_result = 0;

std::function<int()> params(int relay, int popauth, int16_t poplock)
{
    return [=] { return set_courier_params(relay, popauth, poplock, 0); };
}

std::string all(const std::string &text) { return text + "|" + text + "|" + text + "|" + text; }

struct Case {
    const char *fault;
    std::function<int()> call;
    std::string in, want; // want: the four files joined by "|", "-" for none
    std::function<void(const std::string &dir)> setup = [](const std::string &) {}; // on the four files of "in"
    int restartResult = 0;
    std::string out = "0 1"; // printed, then the result and the number of restarts
};

} // namespace

TEST(CourierConfigure, EditsLineByLineAndStopsAtAFailedFile)
{
    const testsupport::TempDir temp{"courier"};
    spit(temp.path() + "/zrn.conf", "COURIER_IMAP_ROOT_D " + temp.path() + "\n");
    zrn_conf_set_path_for_testing((temp.path() + "/zrn.conf").c_str());
    courier_set_restart_for_testing([](const char *service, const char *action) {
        return restarts += std::string(service) + " " + action == "courier-imap restart" ? 1 : 100, restart_result; });
    const std::string popauth = "A=1\nPOPAUTH=1\n";
    const Case cases[] = {
        {"loose_match_or_duplicate_kept", params(0, 1, -1), "POPAUTHX=1\nPOPAUTH\nPOPAUTH =0\nPOPAUTH=0\nPOPAUTH=2\n",
         all("POPAUTHX=1\nPOPAUTH\nPOPAUTH =0\nPOPAUTH=1\n")},
        {"cleared_flags_or_zero_poplock_kept", params(0, 0, 0),
         "RELAYCLIENT=\nPOPAUTH=1\nSHORTNAMES=1\nPOPLOCK_TIME=30\nB=2\n", all("B=2\n")},
        {"poplock_not_decimal", params(0, 0, 300), "POPLOCK_TIME=30\n", all("POPLOCK_TIME=300\n")},
        {"percent_line_formatted_or_last_line_glued", params(1, 0, -1), "MSG=\"100%s %d%n\"",
         all("MSG=\"100%s %d%n\"\nRELAYCLIENT=\n")},
        {"shortnames_not_set", [] { return set_courier_shortnames_params(1); }, "SHORTNAMES=0\n", all("SHORTNAMES=1\n")},
        {"missing_file_fatal_or_unreported", params(0, 1, -1), "A=1\n", popauth + "|-|" + popauth + "|" + popauth,
         [](const std::string &dir) { unlink((dir + "/imapd-ssl").c_str()); }, 0,
         "Unable to open " + temp.path() + "/etc/courier-imap/imapd-ssl: No such file or directory\n\n"
         "System error 2: No such file or directory\n0 1"},
        {"failure_undoes_earlier_or_restarts", params(0, 1, -1), "A=1\n", popauth + "|" + popauth + "|-|A=1\n",
         [](const std::string &dir) { unlink((dir + "/pop3d").c_str()); mkdir((dir + "/pop3d").c_str(), 0755); }, 0,
         "Unable to write temporary file content for " + temp.path() + "/etc/courier-imap/pop3d: Is a directory\n\n"
         "System error 21: Is a directory\n-1 0"},
        {"restart_result_dropped_or_negative_poplock_touched", params(0, 0, -1), "POPLOCK_TIME=30\n",
         all("POPLOCK_TIME=30\n"), [](const std::string &) {}, 5, "5 1"},
    };
    const std::string dir = temp.path() + "/etc/courier-imap";
    // A changed file must have mode 0600 and no temporary file may stay beside it.
    for (const auto &c : cases) {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        for (const char *name : {"imapd", "imapd-ssl", "pop3d", "pop3d-ssl"})
            spit(dir + "/" + name, c.in);
        c.setup(dir);
        restart_result = c.restartResult;
        const auto r = testsupport::runInChild([&] {
            const int rc = c.call();
            return std::printf("%d %d", rc, restarts) < 0;
        });
        std::string got;
        for (const char *name : {"imapd", "imapd-ssl", "pop3d", "pop3d-ssl"}) {
            struct stat st;
            const bool file = stat((dir + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode);
            got += (got.empty() ? "" : "|") + (file ? slurp(dir + "/" + name) : "-");
            EXPECT_TRUE(!file || slurp(dir + "/" + name) == c.in || (st.st_mode & 07777) == 0600) << c.fault << name;
        }
        for (const auto &e : std::filesystem::directory_iterator(dir))
            EXPECT_EQ(e.path().filename().string().find('.'), std::string::npos) << c.fault << ": " << e.path();
        EXPECT_EQ(r.out + " " + got, c.out + " " + c.want) << c.fault;
    }
    courier_set_restart_for_testing(nullptr);
    zrn_conf_set_path_for_testing(nullptr);
}
