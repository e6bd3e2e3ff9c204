#include "mail/dns/spf_control.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace {

using testsupport::exists;
using testsupport::slurp;
using testsupport::spit;

const char *const kFiles[] = {"spfbehavior", "spfrules", "spfguess", "spfexp"};

// A settings directory of its own for each case.
struct SpfDir {
    SpfDir()
    {
        mkdir(dir.c_str(), 0755);
        spf_set_dir_for_testing(dir.c_str());
    }
    ~SpfDir() { spf_set_dir_for_testing(nullptr); }
    std::string file(const char *name) const { return dir + "/" + name; }

    const testsupport::TempDir temp{"spf"};
    const std::string dir = temp.path() + "/zrn-spf";
};

TEST(SpfControl, WritesExactlyTheGivenSettings)
{
    const struct {
        const char *fault;
        const char *args[4];
        const char *want[4]; // the files afterwards
    } cases[] = {
        {"absent_setting_touched", {nullptr, "v=spf1 a -all", nullptr, nullptr},
         {"old", "v=spf1 a -all", "old", "old"}},
        {"empty_text_not_emptying", {"", nullptr, nullptr, ""}, {"", "old", "old", ""}},
        {"files_mixed_up", {"1", "r", "g", "e"}, {"1", "r", "g", "e"}},
        {"text_used_as_format_or_line_end_added", {nullptr, nullptr, "%s%n\n", "a\nb"},
         {"old", "old", "%s%n\n", "a\nb"}},
    };
    for (const auto &c : cases) {
        const SpfDir spf;
        for (const char *name : kFiles)
            spit(spf.file(name), "old");
        EXPECT_EQ(update_spf(c.args[0], c.args[1], c.args[2], c.args[3]), 0) << c.fault;
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(slurp(spf.file(kFiles[i])), c.want[i]) << c.fault << " " << kFiles[i];
    }
}

TEST(SpfControl, FailuresStopTheSequenceWithTheirText)
{
    const struct {
        const char *fault;
        std::function<void(const SpfDir &)> setup;
        bool unprivileged;
        int status;
        std::string out; // "DIR" stands for the settings directory
        const char *behavior;
    } cases[] = {
        {"unwritable_directory_not_fatal",
         [](const SpfDir &spf) {
             chmod(spf.temp.path().c_str(), 0755);
             chmod(spf.dir.c_str(), 0555);
         },
         true, 1,
         "Unable to open file DIR/spfbehavior for writing: Permission denied\n"
         "System error 13: Permission denied\n",
         ""},
        {"write_failure_ignored_or_not_stopping",
         [](const SpfDir &spf) { symlink("/dev/full", spf.file("spfrules").c_str()); }, false, 3,
         "Unable to update 'spf_rules' parameter\nSystem error 28: No space left on device\n",
         "b"},
    };
    for (const auto &c : cases) {
        const SpfDir spf;
        c.setup(spf);
        const auto r = testsupport::runInChild([&] {
            if (c.unprivileged && (setgid(65534) != 0 || setuid(65534) != 0))
                return 99;
            return update_spf("b", "r", "g", nullptr) == -1 ? 3 : 0;
        });
        std::string want = c.out;
        if (want.find("DIR") != std::string::npos)
            want.replace(want.find("DIR"), 3, spf.dir);
        EXPECT_EQ(r.status, c.status) << c.fault << " " << r;
        EXPECT_EQ(r.out, want) << c.fault;
        EXPECT_EQ(r.err, want) << c.fault;
        EXPECT_EQ(slurp(spf.file("spfbehavior")), c.behavior) << c.fault;
        EXPECT_FALSE(exists(spf.file("spfguess"))) << c.fault << ": the sequence went on";
    }
}

} // namespace
