#include "utils/proc_status.h"

#include "test_common.h"

#include "support/named_child.h"

using namespace zarnet::process;

TEST(ProcStatus, WalkReportsNameAndParentAndPathsMatchWhole)
{
    // Names that would be cut at their first ")" or blank, or make fields be
    // counted from their own parenthesis.
    for (const std::string name : {"qmgr", "a) b (c", "1) R 77 (z"}) {
        testsupport::NamedChild child(name);
        std::string got = "<not seen>";
        const bool stopped = walkProcesses([&](pid_t pid, pid_t ppid, const std::string &name) {
            got = name + " " + std::to_string(ppid);
            return pid == child.pid();
        });
        EXPECT_TRUE(stopped) << name;
        EXPECT_EQ(got, name + " " + std::to_string(getpid()));
    }
    testsupport::TempDir dir("proc-status");
    const std::string path = dir.path() + "/sleeper";
    std::filesystem::copy_file("/bin/sleep", path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
        execl(path.c_str(), path.c_str(), "60", static_cast<char *>(nullptr)), _exit(127);
    for (int i = 0; i < 500 && findProcessByPath(path) == -1; ++i)
        usleep(10000);
    EXPECT_EQ(findProcessByPath(path), pid);
    EXPECT_EQ(findProcessByPath(path.substr(0, path.size() - 1)), -1) << "a prefix taken as a match";
    EXPECT_EQ(findProcessByPath(path + "2"), -1) << "a longer path taken as a match";
    EXPECT_EQ(killproc(path, SIGTERM), 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
    EXPECT_EQ(killproc(path, SIGTERM), 0);
}
