#include "utils/AutocleanOFStream.h"

#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class AutocleanOFStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string tmpl = ::testing::TempDir() + "autoclean-XXXXXX";
        ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
        dir_ = tmpl;
        target_ = dir_ + "/virtual";
        tmp_ = dir_ + "/virtual.new";
        std::ofstream(target_) << "old\n";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string dir_, target_, tmp_;
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

} // namespace
