#include "mail/services/courier_configure.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using testsupport::slurp;
using testsupport::spit;

const char *const kFiles[] = {"imapd", "imapd-ssl", "pop3d", "pop3d-ssl"};

std::vector<std::string> restarts;
int restart_result = 0;

int recordRestart(const char *service, const char *action)
{
    restarts.push_back(std::string(service) + " " + action);
    return restart_result;
}

class CourierConfigure : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(dir_);
        spit(conf_, "COURIER_IMAP_ROOT_D " + temp_.path() + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
        courier_set_restart_for_testing(recordRestart);
        restarts.clear();
        restart_result = 0;
    }
    void TearDown() override
    {
        courier_set_restart_for_testing(nullptr);
        zrn_conf_set_path_for_testing(nullptr);
    }

    std::string file(const char *name) const { return dir_ + "/" + name; }
    void fill(const std::string &text) const
    {
        for (const char *name : kFiles)
            spit(file(name), text);
    }

    const testsupport::TempDir temp_{"courier"};
    const std::string conf_ = temp_.path() + "/zrn.conf";
    const std::string dir_ = temp_.path() + "/etc/courier-imap";
};

TEST_F(CourierConfigure, EditsEveryFileLineByLine)
{
    const auto params = [](int relay, int popauth, int16_t poplock) {
        return [=] { return set_courier_params(relay, popauth, poplock, 0); };
    };
    const struct {
        const char *fault;
        std::function<int()> call;
        std::string in, want;
    } cases[] = {
        {"duplicate_not_collapsed", params(0, 1, -1), "POPAUTH=0\n# c\nPOPAUTH=2\n",
         "POPAUTH=1\n# c\n"},
        {"zero_poplock_kept", params(0, 0, 0), "A=1\nPOPLOCK_TIME=30\n", "A=1\n"},
        {"negative_poplock_touched", params(0, 0, -1), "POPLOCK_TIME=30\n", "POPLOCK_TIME=30\n"},
        {"poplock_not_decimal", params(0, 0, 300), "POPLOCK_TIME=30\n", "POPLOCK_TIME=300\n"},
        {"prefix_taken_for_name", params(0, 1, -1), "POPAUTHX=1\n", "POPAUTHX=1\nPOPAUTH=1\n"},
        {"percent_line_formatted", params(1, 0, -1), "MSG=\"100%s %d%n\"\n",
         "MSG=\"100%s %d%n\"\nRELAYCLIENT=\n"},
        {"last_line_glued_to_appended", params(0, 1, -1), "A=1", "A=1\nPOPAUTH=1\n"},
        {"cleared_flags_kept", params(0, 0, -1), "RELAYCLIENT=\nPOPAUTH=1\nSHORTNAMES=1\nB=2\n",
         "B=2\n"},
        {"shortnames_not_set", [] { return set_courier_shortnames_params(1); },
         "SHORTNAMES=0\nPOPAUTH=1\n", "SHORTNAMES=1\nPOPAUTH=1\n"},
        {"shortnames_not_removed", [] { return set_courier_shortnames_params(0); },
         "SHORTNAMES=1\nPOPAUTH=1\n", "POPAUTH=1\n"},
        {"null_value_or_loose_match",
         [] {
             const courier_param list[] = {{"X", COURIER_PARAM_SET, nullptr},
                                           {nullptr, 0, nullptr}};
             return set_courier_params_list(list);
         },
         "X\nX =1\n", "X\nX =1\nX=\n"},
    };
    for (const auto &c : cases) {
        fill(c.in);
        restarts.clear();
        EXPECT_EQ(c.call(), 0) << c.fault;
        for (const char *name : kFiles) {
            EXPECT_EQ(slurp(file(name)), c.want) << c.fault << " " << name;
            struct stat st;
            EXPECT_TRUE(stat(file(name).c_str(), &st) == 0 && (st.st_mode & 07777) == 0600)
                << c.fault << " " << name << " mode";
        }
        EXPECT_EQ(restarts, std::vector<std::string>{"courier-imap restart"}) << c.fault;
    }
}

TEST_F(CourierConfigure, FailuresStopAtTheirFile)
{
    std::vector<std::string> names;
    std::string first31;
    for (int i = 0; i < 32; ++i) {
        names.push_back("V" + std::to_string(i));
        if (i < 31)
            first31 += names.back() + "=1\n";
    }
    const std::string tooMany = "Too many variables specified, tail is ignored\n";
    const std::string popauth = "A=1\nPOPAUTH=1\n";
    const struct {
        const char *fault;
        std::function<void()> setup;
        int restartResult;
        size_t records; // 0: set_courier_params(0, 1, -1, 0); else V0=1, V1=1, ...
        int status;     // 10 per restart, plus the result (1 for -1)
        std::string out; // "DIR" stands for the settings directory
        std::string want[4]; // "A=1\n" is the input left alone, "-" no file
    } cases[] = {
        {"missing_file_fatal_or_unreported", [&] { unlink(file("imapd-ssl").c_str()); }, 0, 0, 10,
         "Unable to open DIR/imapd-ssl: No such file or directory\n\n"
         "System error 2: No such file or directory\n",
         {popauth, "-", popauth, popauth}},
        {"failure_undoes_earlier_or_restarts",
         [&] {
             unlink(file("pop3d").c_str());
             mkdir(file("pop3d").c_str(), 0755);
         },
         0, 0, 1,
         "Unable to write temporary file content for DIR/pop3d: Is a directory\n\n"
         "System error 21: Is a directory\n",
         {popauth, popauth, "-", "A=1\n"}},
        {"restart_result_dropped", [] {}, 5, 0, 15, "", {popauth, popauth, popauth, popauth}},
        {"records_past_31_used_or_tail_reported_once", [&] { fill("A=1\nB=2\n"); }, 0, 32, 10,
         tooMany + tooMany + tooMany + tooMany + tooMany + tooMany + tooMany + tooMany,
         {"A=1\nB=2\n" + first31, "A=1\nB=2\n" + first31, "A=1\nB=2\n" + first31,
          "A=1\nB=2\n" + first31}},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
        fill("A=1\n");
        c.setup();
        restarts.clear();
        restart_result = c.restartResult;
        const auto r = testsupport::runInChild([&] {
            int rc;
            if (c.records == 0) {
                rc = set_courier_params(0, 1, -1, 0);
            } else {
                std::vector<courier_param> list;
                for (size_t i = 0; i < c.records; ++i)
                    list.push_back({names[i].c_str(), COURIER_PARAM_SET, "1"});
                list.push_back({nullptr, 0, nullptr});
                rc = set_courier_params_list(list.data());
            }
            return 10 * static_cast<int>(restarts.size()) + (rc == -1 ? 1 : rc);
        });
        std::string want = c.out;
        if (want.find("DIR") != std::string::npos)
            want.replace(want.find("DIR"), 3, dir_);
        EXPECT_EQ(r.status, c.status) << c.fault << " " << r;
        EXPECT_EQ(r.out, want) << c.fault;
        for (int i = 0; i < 4; ++i) {
            if (c.want[i] == "-")
                EXPECT_FALSE(std::filesystem::is_regular_file(file(kFiles[i]))) << c.fault;
            else
                EXPECT_EQ(slurp(file(kFiles[i])), c.want[i]) << c.fault << " " << kFiles[i];
        }
        for (const auto &e : std::filesystem::directory_iterator(dir_))
            EXPECT_EQ(e.path().filename().string().find('.'), std::string::npos)
                << c.fault << ": temporary file left: " << e.path();
    }
}

} // namespace
