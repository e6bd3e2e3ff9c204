#include "utils/proc_status.h"

#include "test_common.h"

#include "support/named_child.h"

using namespace zarnet::process;

TEST(ProcStatus, WalkReportsNameAndParent)
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
    // Only the parent's own children, however they are listed.
    testsupport::NamedChild kid("kid");
    std::vector<std::string> seen[2];
    for (const pid_t parent : {getpid(), kid.pid()})
        walkChildren(parent, [&](pid_t, pid_t ppid, const std::string &name) {
            seen[parent == kid.pid()].push_back(name + " " + std::to_string(ppid));
            return false;
        });
    EXPECT_EQ(seen[0], std::vector<std::string>{"kid " + std::to_string(getpid())});
    EXPECT_TRUE(seen[1].empty());
}
