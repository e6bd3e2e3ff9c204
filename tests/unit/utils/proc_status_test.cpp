#include "utils/proc_status.h"

#include "support/named_child.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

using namespace zarnet::process;
using testsupport::NamedChild;

TEST(WalkProcesses, ReportsNameAndParentOfEachProcess)
{
    // Names that would be cut at their first ")" or blank, or make fields be
    // counted from their own parenthesis.
    for (const std::string name : {"qmgr", "a) b (c", "x y", "1) R 77 (z"}) {
        NamedChild child(name);
        std::string got = "<not seen>";
        pid_t gotParent = -1;
        const bool stopped = walkProcesses([&](pid_t pid, pid_t ppid, const std::string &name) {
            if (pid != child.pid())
                return false;
            got = name;
            gotParent = ppid;
            return true;
        });
        EXPECT_TRUE(stopped) << name;
        EXPECT_EQ(got, name);
        EXPECT_EQ(gotParent, ::getpid()) << name;
    }
}

TEST(FindProcessByPath, MatchesTheWholeExecutablePathAndKillprocSignalsIt)
{
    testsupport::TempDir dir("proc-status");
    const std::string path = dir.path() + "/sleeper";
    std::filesystem::copy_file("/bin/sleep", path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);

    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::execl(path.c_str(), path.c_str(), "60", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    pid_t found = -1;
    for (int i = 0; i < 500 && found == -1; ++i) {
        found = findProcessByPath(path);
        if (found == -1)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(found, pid);

    EXPECT_EQ(findProcessByPath(path.substr(0, path.size() - 1)), -1) << "a prefix taken as a match";
    EXPECT_EQ(findProcessByPath(path + "2"), -1) << "a longer path taken as a match";

    EXPECT_EQ(killproc(path, SIGTERM), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
    EXPECT_EQ(killproc(path, SIGTERM), 0);
    EXPECT_EQ(findProcessByPath(path), -1);
}
