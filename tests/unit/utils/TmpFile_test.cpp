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

TEST(TmpFile, AutocleanDecidesWhetherTheFileOutlivesTheObject)
{
    const testsupport::TempDir temp("tmpfile");
    const std::string prefix = temp.path() + "/handler.";
    for (const bool autoclean : {true, false}) {
        std::string path;
        {
            zarnet::TmpFile tmp(prefix, autoclean);
            path = tmp.path();
            struct stat st;
            ASSERT_EQ(fstat(tmp.fd(), &st), 0);
            EXPECT_TRUE(path.rfind(prefix, 0) == 0 && (st.st_mode & 07777) == 0600u) << path;
            tmp << "body " << 42;
            EXPECT_NE(zarnet::TmpFile(prefix, true).path(), path) << "same prefix, same name";
            errno = EXDEV;
        }
        EXPECT_EQ(errno, EXDEV) << "autoclean " << autoclean;
        EXPECT_EQ(testsupport::exists(path), !autoclean) << "autoclean " << autoclean;
        EXPECT_EQ(testsupport::slurp(path), autoclean ? "" : "body 42") << "buffered text lost at destruction";
    }
    EXPECT_EQ(testsupport::thrown([&] { zarnet::TmpFile tmp(temp.path() + "/missing/x.", true); }),
              "SystemError: mkstemp() failed (" + std::to_string(ENOENT) + ")");
    const auto r = testsupport::runInChild([&] {
        zarnet::TmpFile tmp(prefix, true);
        return unlink(tmp.path().c_str());
    });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.err + "|" + r.out, "TmpFile autoclean failed: No such file or directory\n|") << "standard error only";
}
