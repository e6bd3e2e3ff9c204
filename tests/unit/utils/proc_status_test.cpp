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
    const struct {
        const char *fault;
        std::string name;
    } cases[] = {
        {"plain name", "qmgr"},
        {"name cut at its first closing parenthesis", "a) b (c"},
        {"name cut at a blank", "x y"},
        {"fields counted from the name's own parenthesis", "1) R 77 (z"},
    };
    for (const auto &c : cases) {
        NamedChild child(c.name);
        std::string got = "<not seen>";
        pid_t gotParent = -1;
        const bool stopped = walkProcesses([&](pid_t pid, pid_t ppid, const std::string &name) {
            if (pid != child.pid())
                return false;
            got = name;
            gotParent = ppid;
            return true;
        });
        EXPECT_TRUE(stopped) << c.fault;
        EXPECT_EQ(got, c.name) << c.fault;
        EXPECT_EQ(gotParent, ::getpid()) << c.fault;
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

    const struct {
        const char *fault;
        std::string path;
    } misses[] = {
        {"prefix of the link taken as a match", path.substr(0, path.size() - 1)},
        {"link taken as a match for a longer path", path + "2"},
    };
    for (const auto &m : misses)
        EXPECT_EQ(findProcessByPath(m.path), -1) << m.fault;

    EXPECT_EQ(killproc(path, SIGTERM), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
    EXPECT_EQ(killproc(path, SIGTERM), 0);
    EXPECT_EQ(findProcessByPath(path), -1);
}
