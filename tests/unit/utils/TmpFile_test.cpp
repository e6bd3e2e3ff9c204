#include "utils/TmpFile.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "support/thrown.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
            EXPECT_EQ(path.substr(0, prefix_.size()), prefix_);
            struct stat st;
            ASSERT_EQ(fstat(tmp.fd(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0600u);
            tmp << "body " << 42;
            EXPECT_NE(zarnet::TmpFile(prefix_, true).path(), path) << "same prefix, same name";
            errno = EXDEV;
        }
        EXPECT_EQ(errno, EXDEV) << "autoclean " << autoclean;
        EXPECT_EQ(exists(path), !autoclean) << "autoclean " << autoclean;
        if (!autoclean) {
            EXPECT_EQ(testsupport::slurp(path), "body 42") << "buffered text lost at destruction";
        }
    }
}

TEST_F(TmpFileTest, CreationFailureThrowsWithErrno)
{
    EXPECT_EQ(testsupport::thrown([&] { zarnet::TmpFile tmp(dir_ + "/missing/x.", true); }),
              "SystemError: mkstemp() failed (" + std::to_string(ENOENT) + ")");
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
