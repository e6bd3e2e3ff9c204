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
#include <vector>

namespace {

using testsupport::slurp;
using testsupport::spit;

const char *const kFiles[] = {"imapd", "imapd-ssl", "pop3d", "pop3d-ssl"};
int restarts = 0, restart_result = 0;

int recordRestart(const char *service, const char *action)
{
    restarts += std::string(service) + " " + action == "courier-imap restart" ? 1 : 100;
    return restart_result;
}

// Each case in a child: what it printed, the result and the number of
// restarts; then the four files, joined by "|" ("-" for none), which must
// be left without temporary files beside them, with mode 0600 when changed.
class CourierConfigure : public ::testing::Test {
protected:
    void SetUp() override
    {
        spit(conf_, "COURIER_IMAP_ROOT_D " + temp_.path() + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
        courier_set_restart_for_testing(recordRestart);
    }
    void TearDown() override
    {
        courier_set_restart_for_testing(nullptr);
        zrn_conf_set_path_for_testing(nullptr);
    }
    void check(const char *fault, const std::string &in, std::function<void()> setup, std::function<int()> call,
               int restartResult, const std::string &out, const std::string &files)
    {
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
        for (const char *name : kFiles)
            spit(dir_ + "/" + name, in);
        setup();
        restart_result = restartResult;
        const auto r = testsupport::runInChild([&] {
            restarts = 0;
            const int rc = call();
            return std::printf("%d %d", rc, restarts) < 0;
        });
        std::string got;
        for (const char *name : kFiles) {
            struct stat st;
            const std::string path = dir_ + "/" + name;
            got += (got.empty() ? "" : "|") + (std::filesystem::is_regular_file(path) ? slurp(path) : "-");
            EXPECT_TRUE(stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || slurp(path) == in ||
                        (st.st_mode & 07777) == 0600)
                << fault << " " << name;
        }
        for (const auto &e : std::filesystem::directory_iterator(dir_))
            EXPECT_EQ(e.path().filename().string().find('.'), std::string::npos) << fault << ": " << e.path();
        EXPECT_EQ(r.out, out) << fault;
        EXPECT_EQ(got, files) << fault;
    }

    const testsupport::TempDir temp_{"courier"};
    const std::string conf_ = temp_.path() + "/zrn.conf", dir_ = temp_.path() + "/etc/courier-imap";
};

std::function<int()> params(int relay, int popauth, int16_t poplock)
{
    return [=] { return set_courier_params(relay, popauth, poplock, 0); };
}

std::string all(const std::string &text) { return text + "|" + text + "|" + text + "|" + text; }

} // namespace

TEST_F(CourierConfigure, EditsEveryFileLineByLine)
{
    const auto none = [] {};
    const struct {
        const char *fault;
        std::function<int()> call;
        std::string in, want;
    } cases[] = {
        {"duplicate_not_collapsed", params(0, 1, -1), "POPAUTH=0\n# c\nPOPAUTH=2\n", "POPAUTH=1\n# c\n"},
        {"zero_poplock_kept", params(0, 0, 0), "A=1\nPOPLOCK_TIME=30\n", "A=1\n"},
        {"negative_poplock_touched", params(0, 0, -1), "POPLOCK_TIME=30\n", "POPLOCK_TIME=30\n"},
        {"poplock_not_decimal", params(0, 0, 300), "POPLOCK_TIME=30\n", "POPLOCK_TIME=300\n"},
        {"prefix_taken_for_name", params(0, 1, -1), "POPAUTHX=1\n", "POPAUTHX=1\nPOPAUTH=1\n"},
        {"percent_line_formatted", params(1, 0, -1), "MSG=\"100%s %d%n\"\n", "MSG=\"100%s %d%n\"\nRELAYCLIENT=\n"},
        {"last_line_glued_to_appended", params(0, 1, -1), "A=1", "A=1\nPOPAUTH=1\n"},
        {"cleared_flags_kept", params(0, 0, -1), "RELAYCLIENT=\nPOPAUTH=1\nSHORTNAMES=1\nB=2\n", "B=2\n"},
        {"shortnames_not_set", [] { return set_courier_shortnames_params(1); }, "SHORTNAMES=0\nPOPAUTH=1\n",
         "SHORTNAMES=1\nPOPAUTH=1\n"},
        {"null_value_or_loose_match", [] {
             const courier_param list[] = {{"X", COURIER_PARAM_SET, nullptr}, {nullptr, 0, nullptr}};
             return set_courier_params_list(list); }, "X\nX =1\n", "X\nX =1\nX=\n"},
    };
    for (const auto &c : cases)
        check(c.fault, c.in, none, c.call, 0, "0 1", all(c.want));
}

TEST_F(CourierConfigure, FailuresStopAtTheirFile)
{
    std::vector<std::string> names;
    std::string first31;
    for (int i = 0; i < 32; ++i) {
        names.push_back("V" + std::to_string(i));
        first31 += i < 31 ? names.back() + "=1\n" : "";
    }
    std::vector<courier_param> list;
    for (const std::string &name : names)
        list.push_back({name.c_str(), COURIER_PARAM_SET, "1"});
    list.push_back({nullptr, 0, nullptr});
    std::string tooMany;
    for (int i = 0; i < 8; ++i)
        tooMany += "Too many variables specified, tail is ignored\n";
    const std::string popauth = "A=1\nPOPAUTH=1\n";
    check("missing_file_fatal_or_unreported", "A=1\n", [&] { unlink((dir_ + "/imapd-ssl").c_str()); },
          params(0, 1, -1), 0, "Unable to open " + dir_ + "/imapd-ssl: No such file or directory\n\n"
          "System error 2: No such file or directory\n0 1", popauth + "|-|" + popauth + "|" + popauth);
    check("failure_undoes_earlier_or_restarts", "A=1\n", [&] {
              unlink((dir_ + "/pop3d").c_str());
              mkdir((dir_ + "/pop3d").c_str(), 0755); },
          params(0, 1, -1), 0, "Unable to write temporary file content for " + dir_ + "/pop3d: Is a directory\n\n"
          "System error 21: Is a directory\n-1 0", popauth + "|" + popauth + "|-|A=1\n");
    check("restart_result_dropped", "A=1\n", [] {}, params(0, 1, -1), 5, "5 1", all(popauth));
    check("records_past_31_used_or_tail_reported_once", "A=1\nB=2\n", [] {},
          [&] { return set_courier_params_list(list.data()); }, 0, tooMany + "0 1", all("A=1\nB=2\n" + first31));
}
