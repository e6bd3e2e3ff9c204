#include "utils/AutocleanOFStream.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

using testsupport::exists;
using testsupport::slurp;

class AutocleanOFStreamTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::spit(target_, "old\n"); }

    const testsupport::TempDir temp_{"autoclean"};
    const std::string dir_ = temp_.path();
    const std::string target_ = dir_ + "/virtual";
    const std::string tmp_ = dir_ + "/virtual.new";
};

TEST_F(AutocleanOFStreamTest, UncommittedFileDisappearsAndErrnoSurvives)
{
    {
        zarnet::AutocleanOFStream out(tmp_);
        ASSERT_TRUE(out.good());
        EXPECT_EQ(out.path(), tmp_);
        out << "partial";
        ASSERT_TRUE(exists(tmp_));
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(exists(tmp_));
    EXPECT_EQ(slurp(target_), "old\n");
}

TEST_F(AutocleanOFStreamTest, UnopenablePathLeavesStreamFailedWithoutThrowing)
{
    zarnet::AutocleanOFStream out(dir_ + "/missing/dir/file");
    EXPECT_TRUE(out.fail());
}

TEST_F(AutocleanOFStreamTest, CommitReplacesTargetWithFlushedContent)
{
    {
        zarnet::AutocleanOFStream out(tmp_);
        out << "new content without final flush";
        out.commit(target_);
        EXPECT_FALSE(exists(tmp_));
    }
    EXPECT_EQ(slurp(target_), "new content without final flush");
}

TEST_F(AutocleanOFStreamTest, CommitSetsOwnerAndModeBeforeTheRename)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the file away";
    {
        zarnet::AutocleanOFStream out(tmp_);
        out << "x\n";
        out.commit(target_, 1234, 5678, 0640);
    }
    struct stat st;
    ASSERT_EQ(stat(target_.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 5678u);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(AutocleanOFStreamTest, FailedCommitThrowsAndLeavesTargetAndNoTemporary)
{
    const std::string target_dir = dir_ + "/a-directory";
    ASSERT_EQ(mkdir(target_dir.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((target_dir + "/busy").c_str(), 0755), 0);
    {
        zarnet::AutocleanOFStream out(tmp_);
        out << "x\n";
        // A non-empty directory cannot be replaced by a file.
        try {
            out.commit(target_dir);
            ADD_FAILURE() << "commit over a directory succeeded";
        } catch (const zarnet::SystemError &e) {
            EXPECT_EQ(e.code(), EISDIR) << e.what();
        }
    }
    EXPECT_FALSE(exists(tmp_));
    EXPECT_TRUE(exists(target_dir + "/busy"));
}

TEST_F(AutocleanOFStreamTest, CommitReportsAnEarlierWriteFailure)
{
    zarnet::AutocleanOFStream out(tmp_);
    out.setstate(std::ios::badbit); // as a failed write leaves it
    EXPECT_THROW(out.commit(target_), zarnet::SystemError);
    EXPECT_EQ(slurp(target_), "old\n");
}

// Callers set exceptions(badbit | failbit); on a full disk the last flush
// fails again when the stream is closed. Run in a child: a throw out of the
// destructor would terminate the process.
TEST_F(AutocleanOFStreamTest, StreamExceptionsChangeNeitherCommitNorDestruction)
{
    const std::string destroyed_path = dir_ + "/full-destroyed";
    const std::string committed_path = dir_ + "/full-committed";
    for (const std::string &link : {destroyed_path, committed_path})
        ASSERT_EQ(symlink("/dev/full", link.c_str()), 0);

    const auto destroyed = testsupport::runInChild([&] {
        {
            zarnet::AutocleanOFStream out(destroyed_path);
            out.exceptions(std::ios::badbit | std::ios::failbit);
            out << "x";
        }
        return 0;
    });
    EXPECT_EQ(destroyed.status, 0) << destroyed;
    EXPECT_FALSE(exists(destroyed_path));

    const auto committed = testsupport::runInChild([&] {
        zarnet::AutocleanOFStream out(committed_path);
        out.exceptions(std::ios::badbit | std::ios::failbit);
        out << "x";
        try {
            out.commit(target_);
        } catch (const zarnet::SystemError &e) {
            return e.code() == ENOSPC ? 0 : 2;
        } catch (...) {
            return 3;
        }
        return 1;
    });
    EXPECT_EQ(committed.status, 0) << "1: no failure, 2: wrong code, 3: not a SystemError; "
                                   << committed;
    EXPECT_FALSE(exists(committed_path));
    EXPECT_EQ(slurp(target_), "old\n");
}

} // namespace
