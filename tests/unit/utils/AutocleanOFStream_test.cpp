#include "utils/AutocleanOFStream.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

namespace {

using testsupport::exists;
using zarnet::AutocleanOFStream;
using testsupport::slurp;

class AutocleanOFStreamTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::spit(target_, "old\n"); }

    const testsupport::TempDir temp_{"autoclean"};
    const std::string dir_ = temp_.path();
    const std::string target_ = dir_ + "/virtual";
    const std::string tmp_ = dir_ + "/virtual.new";
};

TEST_F(AutocleanOFStreamTest, CommitReplacesTheTargetOtherwiseTheFileDisappears)
{
    const struct {
        const char *fault;
        std::function<void(AutocleanOFStream &)> commit;
        std::string want;
        bool owned; // by 1234:5678 with mode 0640
    } cases[] = {
        {"uncommitted file kept or target touched", [](AutocleanOFStream &) {}, "old\n", false},
        {"unflushed text lost", [&](AutocleanOFStream &out) { out.commit(target_); }, "new", false},
        {"owner or mode not set", [&](AutocleanOFStream &out) { out.commit(target_, 1234, 5678, 0640); },
         "new", true},
    };
    for (const auto &c : cases) {
        if (c.owned && geteuid() != 0)
            continue; // giving the file away needs root
        {
            AutocleanOFStream out(tmp_);
            ASSERT_TRUE(out.good());
            out << "new";
            c.commit(out);
            errno = EXDEV;
        }
        EXPECT_EQ(errno, EXDEV) << c.fault << ": destruction changed errno";
        EXPECT_FALSE(exists(tmp_)) << c.fault;
        EXPECT_EQ(slurp(target_), c.want) << c.fault;
        struct stat st;
        ASSERT_EQ(stat(target_.c_str(), &st), 0);
        EXPECT_TRUE(!c.owned || (st.st_uid == 1234u && st.st_gid == 5678u && (st.st_mode & 07777) == 0640u))
            << c.fault << ": " << st.st_uid << ":" << st.st_gid << " " << std::oct << st.st_mode;
    }
}

// Callers set exceptions(badbit | failbit); on a full disk the last flush
// fails again when the stream is closed. Run in a child: a throw out of the
// destructor would terminate the process.
TEST_F(AutocleanOFStreamTest, FailuresThrowSystemErrorAndLeaveTheTargetAndNoFile)
{
    ASSERT_EQ(mkdir((dir_ + "/busy").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir_ + "/busy/keep").c_str(), 0755), 0);
    const std::string full = dir_ + "/full"; // a link to /dev/full: every flush fails
    const struct {
        const char *fault;
        std::string path, target;
        bool fail_write, exceptions;
        int want; // code of the SystemError; 0: no commit, destruction only
    } cases[] = {
        {"rename failure not thrown", tmp_, dir_ + "/busy", false, false, EISDIR},
        {"earlier write failure ignored", tmp_, target_, true, false, EIO},
        {"stream exception instead of SystemError", full, target_, false, true, ENOSPC},
        {"destructor throws the stream's exception", full, target_, false, true, 0},
    };
    for (const auto &c : cases) {
        if (c.path == full) {
            ASSERT_EQ(symlink("/dev/full", full.c_str()), 0);
        }
        const auto r = testsupport::runInChild([&] {
            AutocleanOFStream out(c.path);
            if (c.exceptions)
                out.exceptions(std::ios::badbit | std::ios::failbit);
            out << "x";
            if (c.fail_write)
                out.setstate(std::ios::badbit); // as a failed write leaves it
            try {
                if (c.want != 0)
                    out.commit(c.target);
            } catch (const zarnet::SystemError &e) {
                return e.code();
            } catch (...) {
                return 255;
            }
            return c.want == 0 ? 0 : 254;
        });
        EXPECT_EQ(r.status, c.want) << c.fault << " (254: no throw, 255: not a SystemError) " << r;
        EXPECT_FALSE(exists(c.path)) << c.fault;
        EXPECT_EQ(slurp(target_), "old\n") << c.fault;
    }
    EXPECT_TRUE(exists(dir_ + "/busy/keep"));
    EXPECT_TRUE(AutocleanOFStream(dir_ + "/missing/dir/file").fail()) << "unopenable path must fail, not throw";
}

} // namespace
