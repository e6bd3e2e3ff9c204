#include "utils/fork_exec.h"

#include "test_common.h"

TEST(ForkExec, ResultAndReportFollowTheChild)
{
    const testsupport::TempDir temp("forkexec");
    const std::string script = temp.path() + "/prog", killer = temp.path() + "/killer", out = temp.path() + "/out";
    testsupport::spit(script, "#!/bin/sh\necho \"$0|$1|$2\" > \"$2\"\nexit \"$1\"\n");
    testsupport::spit(killer, "#!/bin/sh\nkill -9 $$\n");
    chmod(script.c_str(), 0755), chmod(killer.c_str(), 0755);
    const struct { const char *fault; std::string path; std::vector<std::string> argv; int want;
                     std::string want_report; } cases[] = {
        {"success not 0", script, {"name", "0", out}, 0, ""},
        {"exit status ignored", script, {"name", "3", out}, -1, script + " exited with status 3\n"},
        {"signal not reported", killer, {"killer"}, -1, killer + " killed by signal 9\n"},
        {"exec failure not reported", temp.path() + "/absent", {"absent"}, -1,
         "execv " + temp.path() + "/absent: No such file or directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            std::vector<char *> argv;
            for (const auto &a : c.argv)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            return fork_execv_log(c.path.c_str(), argv.data()) == c.want && waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.fault << " (wrong result or child left) " << r;
        EXPECT_EQ(r.out, c.want_report) << c.fault;
    }
    EXPECT_EQ(testsupport::slurp(out), script + "|3|" + out + "\n") << "arguments not passed as given";
}
