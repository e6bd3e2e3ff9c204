#include "utils/TmpFile.h"

#include "test_common.h"

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
            EXPECT_TRUE(fstat(tmp.fd(), &st) == 0 && path.rfind(prefix, 0) == 0 && (st.st_mode & 07777) == 0600u) << path;
            tmp << "body " << 42;
            errno = EXDEV;
        }
        EXPECT_EQ(errno, EXDEV) << "autoclean " << autoclean;
        EXPECT_EQ(testsupport::slurp(path), autoclean ? "" : "body 42") << "removed or buffered text lost";
    }
    const auto r = testsupport::runInChild([&] { return unlink(zarnet::TmpFile(prefix, true).path().c_str()); });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.err + "|" + r.out, "TmpFile autoclean failed: No such file or directory\n|") << "standard error only";
}
