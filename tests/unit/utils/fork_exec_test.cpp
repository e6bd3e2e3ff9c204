#include "utils/fork_exec.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/probes.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using testsupport::runInChild;

TEST(ForkExec, ResultAndReportFollowTheChild)
{
    const testsupport::TempDir temp("forkexec");
    const std::string script = temp.path() + "/prog";
    const std::string killer = temp.path() + "/killer";
    testsupport::spit(script, "#!/bin/sh\necho \"$0|$1|$2\" > \"$2\"\nexit \"$1\"\n");
    testsupport::spit(killer, "#!/bin/sh\nkill -9 $$\n");
    for (const auto &p : {script, killer})
        fs::permissions(p, fs::perms(0755));
    const std::string out = temp.path() + "/out";

    const struct {
        const char *fault;
        std::string path;
        std::vector<std::string> argv;
        int want;
        std::string want_report;
    } cases[] = {
        {"success not 0", script, {"name", "0", out}, 0, ""},
        {"exit status ignored", script, {"name", "3", out}, -1, script + " exited with status 3\n"},
        {"signal not reported", killer, {"killer"}, -1, killer + " killed by signal 9\n"},
        {"exec failure not reported", temp.path() + "/absent", {"absent"}, -1,
         "execv " + temp.path() + "/absent: No such file or directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            std::vector<char *> argv;
            for (const auto &a : c.argv)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            const int got = fork_execv_log(c.path.c_str(), argv.data());
            return got == c.want && testsupport::children().empty() ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.fault << " (wrong result or child left) " << r;
        EXPECT_EQ(r.out, c.want_report) << c.fault;
    }
    EXPECT_EQ(testsupport::slurp(out), script + "|3|" + out + "\n") << "arguments not passed as given";
}
