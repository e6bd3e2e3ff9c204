#include "utils/copy_file.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/MKLock.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

using testsupport::exists;
using testsupport::slurp;
using testsupport::spit;

// A size that is not a multiple of the copy block, with varied bytes.
std::string sample(size_t size, char salt)
{
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>((i * 31 + static_cast<size_t>(salt)) % 256);
    return s;
}

class CopyFileTest : public ::testing::Test {
protected:
    void SetUp() override { mk_lock_set_dir_for_testing((dir_ + "/locks").c_str()); }
    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    // Names in dir_ other than the given ones: leftovers of a copy.
    std::string strayFiles(std::initializer_list<std::string> known)
    {
        std::string stray;
        for (const auto &e : std::filesystem::directory_iterator(dir_)) {
            const std::string name = e.path().filename().string();
            bool is_known = name == "locks";
            for (const auto &k : known)
                is_known = is_known || name == k;
            if (!is_known)
                stray += name + " ";
        }
        return stray;
    }

    const testsupport::TempDir temp_{"copy_file"};
    const std::string dir_ = temp_.path();
    const std::string src_ = dir_ + "/src";
    const std::string dst_ = dir_ + "/dst";
};

TEST_F(CopyFileTest, EqualPathsSucceedWithoutTouchingAnything)
{
    const std::string missing = dir_ + "/missing";
    EXPECT_EQ(copy_file(missing.c_str(), missing.c_str()), 0);
    EXPECT_FALSE(exists(missing));
}

// Emptying the destination before copying would empty the source when both
// are one file; something that is not a regular file has nothing to empty.
TEST_F(CopyFileTest, OnlyAnotherRegularFileIsEmptiedBeforeTheCopy)
{
    const std::string content = sample(5000, 'd');
    spit(src_, content);
    const std::string hard_link = dir_ + "/hard";
    ASSERT_EQ(link(src_.c_str(), hard_link.c_str()), 0);
    for (const std::string &same : {dir_ + "/./src", hard_link}) {
        EXPECT_EQ(copy_file(src_.c_str(), same.c_str()), 0) << same;
        EXPECT_TRUE(slurp(src_) == content) << same << ": source has " << slurp(src_).size() << " bytes";
    }
    EXPECT_EQ(copy_file(src_.c_str(), "/dev/null"), 0);
}

TEST_F(CopyFileTest, CopiesContentAndGivesANewFileTheSourceMode)
{
    const std::string content = sample(3 * 4096 + 17, 'a');
    spit(src_, content);
    ASSERT_EQ(chmod(src_.c_str(), 0640), 0);
    const mode_t old_umask = umask(022);
    const int rc = copy_file(src_.c_str(), dst_.c_str());
    umask(old_umask);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(slurp(dst_) == content) << "content differs";
    struct stat st;
    ASSERT_EQ(stat(dst_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(CopyFileTest, ExistingDestinationIsTruncated)
{
    spit(src_, "short");
    spit(dst_, std::string(10000, 'z'));
    EXPECT_EQ(copy_file(src_.c_str(), dst_.c_str()), 0);
    EXPECT_EQ(slurp(dst_), "short");
}

TEST_F(CopyFileTest, DashMeansStandardOutput)
{
    const std::string content = sample(5000, 'b');
    spit(src_, content);
    const auto r = testsupport::runInChild([&] {
        std::printf("before:");
        return copy_file(src_.c_str(), "-");
    });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out == "before:" + content) << "stdout has " << r.out.size() << " bytes";
    EXPECT_FALSE(exists(dir_ + "/-"));
}

TEST_F(CopyFileTest, FailuresReturnOneWithTheirMessage)
{
    ASSERT_EQ(mkdir((dir_ + "/adir").c_str(), 0755), 0);
    spit(src_, "x");
    const std::string missing = dir_ + "/missing";
    const struct {
        const char *name;
        std::string src, dst;
        std::string want_out;
    } cases[] = {
        {"missing_source", missing, dst_,
         "Unable to open file " + missing +
             ": No such file or directory\nSystem error 2: No such file or directory\n"},
        {"unwritable_destination", src_, dir_ + "/adir",
         "Unable to open file " + dir_ + "/adir: Is a directory\nSystem error 21: Is a directory\n"},
        {"unreadable_source", dir_ + "/adir", dst_,
         "Unable to read file " + dir_ + "/adir: Is a directory\nSystem error 21: Is a directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] { return copy_file(c.src.c_str(), c.dst.c_str()); });
        EXPECT_EQ(r.status, 1) << c.name << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.name;
    }
}

TEST_F(CopyFileTest, AtomicCopySetsOwnerAndModeAndLeavesNoTemporary)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the file away";
    const std::string content = sample(4096 * 2, 'c');
    spit(src_, content);
    spit(dst_, "old");
    copy_file_atomic(src_.c_str(), dst_.c_str(), 1234, 5678, 0440);
    EXPECT_TRUE(slurp(dst_) == content);
    struct stat st;
    ASSERT_EQ(stat(dst_.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 5678u);
    EXPECT_EQ(st.st_mode & 07777, 0440u);
    EXPECT_EQ(strayFiles({"src", "dst"}), "");
}

TEST_F(CopyFileTest, AtomicCopyFailuresEndTheProcessWithTheirMessage)
{
    ASSERT_EQ(mkdir((dir_ + "/adir").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir_ + "/busy").c_str(), 0755), 0);
    spit(dir_ + "/busy/keep", "");
    spit(src_, "x");
    const std::string missing = dir_ + "/missing";
    const struct {
        const char *name;
        std::string src, dst;
        std::string step, system_error;
    } cases[] = {
        {"missing_source", missing, dst_, "open", "2: No such file or directory"},
        {"destination_directory_missing", src_, missing + "/dst", "mkstemp", "2: No such file or directory"},
        {"source_unreadable", dir_ + "/adir", dst_, "read", "21: Is a directory"},
        {"destination_is_a_busy_directory", src_, dir_ + "/busy", "rename", "21: Is a directory"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            copy_file_atomic(c.src.c_str(), c.dst.c_str(), uid_t(-1), gid_t(-1), 0644);
            return 0;
        });
        EXPECT_EQ(r.status, 1) << c.name << " " << r;
        const std::string want = "copy_file_atomic(" + c.src + " -> " + c.dst + "): " + c.step +
                                 " failed\nSystem error " + c.system_error + "\n";
        EXPECT_EQ(r.out, want) << c.name;
        EXPECT_EQ(r.err, want) << c.name;
        EXPECT_EQ(strayFiles({"src", "adir", "busy"}), "") << c.name;
        EXPECT_TRUE(exists(dir_ + "/busy/keep")) << c.name;
    }
}

// A reader that re-reads the destination while it is replaced again and
// again must only ever see one complete version.
TEST_F(CopyFileTest, AtomicCopyNeverShowsReadersAPartialFile)
{
    const size_t size = 1 << 20;
    const std::string a_path = dir_ + "/a", b_path = dir_ + "/b";
    spit(a_path, std::string(size, 'a'));
    spit(b_path, std::string(size, 'b'));
    copy_file_atomic(a_path.c_str(), dst_.c_str(), uid_t(-1), gid_t(-1), 0644);

    int stop[2], started[2];
    ASSERT_EQ(pipe(stop), 0);
    ASSERT_EQ(pipe(started), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(stop[1]);
        close(started[0]);
        std::string buf(size + 1, '\0');
        bool announced = false;
        for (;;) {
            const int fd = open(dst_.c_str(), O_RDONLY);
            if (fd < 0)
                _exit(2); // a moment without any destination
            size_t got = 0;
            ssize_t n;
            while ((n = read(fd, &buf[got], buf.size() - got)) > 0)
                got += static_cast<size_t>(n);
            close(fd);
            if (got != size || buf.find_first_not_of(buf[0], 0) < size)
                _exit(3); // short or mixed
            if (!announced) {
                announced = write(started[1], "s", 1) == 1;
            }
            struct pollfd p = {stop[0], POLLIN, 0};
            if (poll(&p, 1, 0) == 1)
                _exit(0);
        }
    }
    close(stop[0]);
    close(started[1]);
    char c;
    ASSERT_EQ(read(started[0], &c, 1), 1);
    for (int i = 0; i < 60; ++i) {
        const std::string &from = i % 2 == 0 ? b_path : a_path;
        copy_file_atomic(from.c_str(), dst_.c_str(), uid_t(-1), gid_t(-1), 0644);
    }
    // The reader may have stopped already on a bad read; its status says why.
    const auto old_pipe = signal(SIGPIPE, SIG_IGN);
    (void)!write(stop[1], "x", 1);
    signal(SIGPIPE, old_pipe);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "2: destination missing, 3: partial or mixed content";
    close(stop[1]);
    close(started[0]);
}

} // namespace
