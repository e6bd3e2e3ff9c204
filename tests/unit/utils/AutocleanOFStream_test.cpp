#include "utils/AutocleanOFStream.h"

#include "test_common.h"

#include "utils/ExSystemError.h"

using zarnet::AutocleanOFStream;

// Callers set exceptions(badbit | failbit); on a full disk the last flush
// fails again when the stream is closed. Run in a child: a throw out of the
// destructor would terminate the process.
TEST(AutocleanOFStream, CommitReplacesTheTargetOtherwiseTheFileDisappearsAndFailuresThrowSystemError)
{
    const testsupport::TempDir temp("autoclean");
    const std::string dir = temp.path(), target = dir + "/virtual", tmp = dir + "/virtual.new", full = dir + "/full";
    mkdir((dir + "/busy").c_str(), 0755);
    mkdir((dir + "/busy/keep").c_str(), 0755);
    symlink("/dev/full", full.c_str()); // every flush fails
    const bool root = geteuid() == 0;   // giving the file away needs root
    // commitTo "" for none; owned by 1234:5678, mode 0640; want: the SystemError's code, else 0
    const struct { const char *fault; std::string path, commitTo; bool failWrite, exceptions, owned; int want;
                     std::string content; } cases[] = {
        {"uncommitted file kept or target touched", tmp, "", false, false, false, 0, "old\n"},
        {"unflushed text lost", tmp, target, false, false, false, 0, "new"},
        {"owner or mode not set", tmp, target, false, false, root, 0, "new"},
        {"rename failure not thrown", tmp, dir + "/busy", false, false, false, EISDIR, "old\n"},
        {"earlier write failure ignored", tmp, target, true, false, false, EIO, "old\n"},
        {"stream exception instead of SystemError", full, target, false, true, false, ENOSPC, "old\n"},
        {"destructor throws the stream's exception", full, "", false, true, false, 0, "old\n"},
    };
    for (const auto &c : cases) {
        testsupport::spit(target, "old\n");
        const auto r = testsupport::runInChild([&] {
            errno = 0;
            try {
                AutocleanOFStream out(c.path);
                if (c.exceptions)
                    out.exceptions(std::ios::badbit | std::ios::failbit);
                out << "new";
                if (c.failWrite)
                    out.setstate(std::ios::badbit); // as a failed write leaves it
                if (c.owned)
                    out.commit(c.commitTo, 1234, 5678, 0640);
                else if (!c.commitTo.empty())
                    out.commit(c.commitTo);
                errno = EXDEV;
            } catch (const zarnet::SystemError &e) {
                return e.code();
            }
            return errno == EXDEV ? 0 : 254;
        });
        EXPECT_EQ(r.status, c.want) << c.fault << " (254: destruction changed errno; 134: not a SystemError) " << r;
        EXPECT_FALSE(exists(c.path)) << c.fault;
        EXPECT_EQ(slurp(target), c.content) << c.fault;
        struct stat st;
        EXPECT_TRUE(!c.owned || (stat(target.c_str(), &st) == 0 && st.st_uid == 1234u && st.st_gid == 5678u &&
                                 (st.st_mode & 07777) == 0640u)) << c.fault;
    }
    EXPECT_TRUE(exists(dir + "/busy/keep"));
    EXPECT_TRUE(AutocleanOFStream(dir + "/missing/dir/file").fail()) << "unopenable path must fail, not throw";
}
