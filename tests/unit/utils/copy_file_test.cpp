#include "utils/copy_file.h"

#include "test_common.h"

#include "utils/MKLock.h"

#include <set>

namespace {

class CopyFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mk_lock_set_dir_for_testing((dir_ + "/locks").c_str());
        mkdir(adir_.c_str(), 0755);
    }
    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    // What dir_ holds besides the lock directory and adir_: a copy's leftovers show.
    std::set<std::string> entries()
    {
        std::set<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(dir_))
            names.insert(e.path().filename());
        return names.erase("locks"), names.erase("adir"), names;
    }

    const testsupport::TempDir temp_{"copy_file"};
    const std::string dir_ = temp_.path(), src_ = dir_ + "/src", dst_ = dir_ + "/dst", adir_ = dir_ + "/adir";
    const std::string missing_ = dir_ + "/missing";
};

} // namespace

TEST_F(CopyFileTest, ResultsAndReports)
{
    const std::string content = pattern(3 * 4096 + 17, 31, 7);
    spit(src_, content);
    ASSERT_EQ(link(src_.c_str(), (dir_ + "/hard").c_str()), 0);
    // Emptying the destination before copying would empty the source when
    // both are one file; a device must not be written.
    // out: what follows what the caller printed
    const struct { const char *fault; std::string src, dst; int rc; std::string out; } cases[] = {
        {"same file by a hard link emptied", src_, dir_ + "/hard", 0, ""},
        {"device written", src_, "/dev/null", 1, "Unable to open file /dev/null: not a regular file\nSystem error 22: Invalid argument\n"},
        {"dash not standard output, or ahead of earlier output", src_, "-", 0, content},
        {"directory read", adir_, dst_, 1, "Unable to open file " + adir_ + ": Is a directory\nSystem error 21: Is a directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            std::printf("before:");
            return copy_file(c.src.c_str(), c.dst.c_str());
        });
        EXPECT_EQ(r.status, c.rc) << c.fault << ": " << r.err;
        EXPECT_EQ(r.out, "before:" + c.out) << c.fault;
        EXPECT_EQ(sameBytes(slurp(src_), content), "equal") << c.fault;
    }
    EXPECT_FALSE(exists(dir_ + "/-") || exists(dst_));
    spit(dst_, std::string(20000, 'z'));
    EXPECT_EQ(copy_file(src_.c_str(), dst_.c_str()), 0);
    EXPECT_EQ(sameBytes(slurp(dst_), content), "equal") << "a longer old file not cut";
}

TEST_F(CopyFileTest, AtomicCopyFailuresEndTheProcessWithTheirMessageAndLeaveNoFile)
{
    mkdir((dir_ + "/busy").c_str(), 0755);
    spit(dir_ + "/busy/keep", "");
    spit(src_, "x");
    const struct { const char *fault; std::string src, dst, step, system_error; } cases[] = {
        {"open failure unreported", missing_, dst_, "open", "2: No such file or directory"},
        {"temporary file failure unreported", src_, missing_ + "/dst", "mkstemp", "2: No such file or directory"},
        {"directory source read", adir_, dst_, "open", "21: Is a directory"},
        {"temporary file left after a rename failure", src_, dir_ + "/busy", "rename", "21: Is a directory"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            copy_file_atomic(c.src.c_str(), c.dst.c_str(), uid_t(-1), gid_t(-1), 0644);
            return 0;
        });
        EXPECT_EQ(r.status, 1) << c.fault << " " << r;
        const std::string want = "copy_file_atomic(" + c.src + " -> " + c.dst + "): " + c.step +
                                 " failed\nSystem error " + c.system_error + "\n";
        EXPECT_EQ(r.out + "|" + r.err, want + "|" + want) << c.fault;
        EXPECT_EQ(entries(), (std::set<std::string>{"busy", "src"})) << c.fault;
        EXPECT_TRUE(exists(dir_ + "/busy/keep")) << c.fault;
    }
    // Replaced by rename, never rewritten in place: a reader holding the old
    // file keeps reading it whole.
    spit(src_, pattern(1 << 20, 7, 1));
    spit(dst_, "old");
    const int old = open(dst_.c_str(), O_RDONLY);
    copy_file_atomic(src_.c_str(), dst_.c_str(), uid_t(-1), gid_t(-1), 0440);
    EXPECT_EQ(testsupport::readAll(old), "old");
    close(old);
    EXPECT_EQ(sameBytes(slurp(dst_), slurp(src_)), "equal");
    EXPECT_EQ(entries(), (std::set<std::string>{"busy", "dst", "src"}));
}
