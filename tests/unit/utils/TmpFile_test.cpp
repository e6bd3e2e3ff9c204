#include "utils/TmpFile.h"

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

class TmpFileTest : public ::testing::Test {
protected:
    const testsupport::TempDir temp_{"tmpfile"};
    const std::string dir_ = temp_.path();
    const std::string prefix_ = dir_ + "/handler.";
};

TEST_F(TmpFileTest, AutocleanDecidesWhetherTheFileOutlivesTheObject)
{
    for (const bool autoclean : {true, false}) {
        std::string path;
        {
            zarnet::TmpFile tmp(prefix_, autoclean);
            path = tmp.path();
            ASSERT_EQ(path.size(), prefix_.size() + 6) << path;
            EXPECT_EQ(path.compare(0, prefix_.size(), prefix_), 0) << path;
            struct stat st;
            ASSERT_EQ(fstat(tmp.fd(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0600u);
            tmp << "body " << 42;
            errno = EXDEV;
        }
        EXPECT_EQ(errno, EXDEV) << "autoclean " << autoclean;
        EXPECT_EQ(exists(path), !autoclean) << "autoclean " << autoclean;
        if (!autoclean) {
            EXPECT_EQ(testsupport::slurp(path), "body 42") << "buffered text lost at destruction";
        }
    }
}

TEST_F(TmpFileTest, SamePrefixGivesDistinctFiles)
{
    zarnet::TmpFile a(prefix_, true), b(prefix_, true);
    EXPECT_NE(a.path(), b.path());
    EXPECT_NE(a.fd(), b.fd());
}

TEST_F(TmpFileTest, CreationFailureThrowsWithErrno)
{
    try {
        zarnet::TmpFile tmp(dir_ + "/missing/x.", true);
        ADD_FAILURE() << "created " << tmp.path();
    } catch (const zarnet::SystemError &e) {
        EXPECT_EQ(e.code(), ENOENT);
        EXPECT_EQ(std::string(e.what()), "mkstemp() failed: No such file or directory");
    }
}

TEST_F(TmpFileTest, AutocleanFailureIsReportedOnStandardErrorOnly)
{
    const auto r = testsupport::runInChild([&] {
        zarnet::TmpFile tmp(prefix_, true);
        unlink(tmp.path().c_str());
        return 0;
    });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.err, "TmpFile autoclean failed: No such file or directory\n");
    EXPECT_EQ(r.out, "");
}

} // namespace
