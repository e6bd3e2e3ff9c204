#include "utils/file_str.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/lock_wait.h"
#include "support/temp_dir.h"
#include "utils/MKLock.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using testsupport::exists;
using testsupport::slurp;
using testsupport::spit;

class FileStrTest : public ::testing::Test {
protected:
    void SetUp() override { mk_lock_set_dir_for_testing((dir_ + "/locks").c_str()); }
    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    int edit(const std::vector<std::string> &strings, int operation, int position)
    {
        std::vector<const char *> array;
        for (const auto &s : strings)
            array.push_back(s.c_str());
        array.push_back(nullptr);
        return file_strings(path_.c_str(), array.data(), operation, position);
    }

    const testsupport::TempDir temp_{"file_str"};
    const std::string dir_ = temp_.path();
    const std::string path_ = dir_ + "/.qmail";
};

const std::string kLong(10000, 'x');

TEST_F(FileStrTest, EditsGiveTheExpectedContent)
{
    const char *const missing = nullptr;
    const struct {
        const char *name;
        const char *before; // null: no file
        std::vector<std::string> strings;
        int operation, position;
        std::string want;
    } cases[] = {
        {"prepend_puts_lines_before_old", "b\nc\n", {"a"}, FILE_STR_ADD, FILE_STR_PREPEND, "a\nb\nc\n"},
        {"append_puts_lines_after_old", "a\n", {"b", "c\n"}, FILE_STR_ADD, FILE_STR_APPEND, "a\nb\nc\n"},
        {"append_creates_missing_file", missing, {"a"}, FILE_STR_ADD, FILE_STR_APPEND, "a\n"},
        {"append_keeps_unterminated_last_line_apart", "a", {"b"}, FILE_STR_ADD, FILE_STR_APPEND,
         "a\nb\n"},
        {"prepend_keeps_unterminated_last_line", "b", {"a"}, FILE_STR_ADD, FILE_STR_PREPEND, "a\nb"},
        {"remove_ignores_line_feed_of_line", "a\nb\nab\n", {"a"}, FILE_STR_REMOVE, 0, "b\nab\n"},
        {"remove_ignores_line_feed_of_string", "a\nb\n", {"b\n"}, FILE_STR_REMOVE, 0, "a\n"},
        {"remove_unterminated_last_line", "a\nb", {"b"}, FILE_STR_REMOVE, 0, "a\n"},
        {"remove_every_given_string", "a\nb\nc\na\n", {"a", "c"}, FILE_STR_REMOVE, 0, "b\n"},
        {"remove_is_not_a_prefix_match", "abc\n", {"ab"}, FILE_STR_REMOVE, 0, "abc\n"},
        {"remove_absent_line_keeps_content", "a\n", {"zzz"}, FILE_STR_REMOVE, 0, "a\n"},
        {"pattern_begin", "|/usr/bin/x\n&a@b\n|/bin/y\n", {"|"}, FILE_STR_REMOVE_PATTERN,
         FILE_STR_MATCH_BEGIN, "&a@b\n"},
        {"pattern_begin_is_not_contain", "xab\n", {"ab"}, FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_BEGIN,
         "xab\n"},
        {"pattern_end", "a@example.com\nb@other.org\n", {"@example.com"}, FILE_STR_REMOVE_PATTERN,
         FILE_STR_MATCH_END, "b@other.org\n"},
        {"pattern_end_ignores_line_feed_of_string", "a.com\nb.org\n", {".com\n"},
         FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_END, "b.org\n"},
        {"pattern_end_longer_than_line", "om\n", {".com"}, FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_END,
         "om\n"},
        {"pattern_contain", "x foo y\nbar\n", {"foo"}, FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_CONTAIN,
         "bar\n"},
        // Lines longer than one read block must be compared and copied whole.
        {"long_line_survives_prepend", nullptr, {"a"}, FILE_STR_ADD, FILE_STR_PREPEND,
         "a\n" + kLong + "\nshort\n"},
        {"long_line_not_removed_by_its_first_block", nullptr, {std::string(4095, 'x')}, FILE_STR_REMOVE,
         0, kLong + "\nshort\n"},
        {"long_line_removed_whole", nullptr, {kLong}, FILE_STR_REMOVE, 0, "short\n"},
        {"long_line_removed_whole_by_end", nullptr, {"x"}, FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_END,
         "short\n"},
        {"long_line_kept_by_end_of_first_block", nullptr, {"xy"}, FILE_STR_REMOVE_PATTERN,
         FILE_STR_MATCH_END, kLong + "\nshort\n"},
    };
    for (const auto &c : cases) {
        unlink(path_.c_str());
        const bool long_case = std::string(c.name).rfind("long_", 0) == 0;
        if (long_case)
            spit(path_, kLong + "\nshort\n");
        else if (c.before != nullptr)
            spit(path_, c.before);
        EXPECT_EQ(edit(c.strings, c.operation, c.position), 0) << c.name;
        EXPECT_EQ(slurp(path_), c.want) << c.name;
        EXPECT_FALSE(exists(path_ + ".tmp")) << c.name;
    }
}

TEST_F(FileStrTest, RewriteKeepsOwnerAndModeAndReplacesTheFile)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the file away";
    const struct {
        const char *name;
        std::string string;
        int operation, position;
        bool rewrites;
    } cases[] = {
        {"prepend", "new", FILE_STR_ADD, FILE_STR_PREPEND, true},
        {"append", "new", FILE_STR_ADD, FILE_STR_APPEND, false},
        {"remove_present_line", "a", FILE_STR_REMOVE, 0, true},
        {"remove_absent_line", "absent", FILE_STR_REMOVE, 0, true},
        {"remove_by_pattern", "b", FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_CONTAIN, true},
    };
    for (const auto &c : cases) {
        unlink(path_.c_str());
        spit(path_, "a\nb\n");
        ASSERT_EQ(chown(path_.c_str(), 1234, 5678), 0);
        ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
        struct stat before, after;
        ASSERT_EQ(stat(path_.c_str(), &before), 0);

        EXPECT_EQ(file_str(path_.c_str(), c.string.c_str(), c.operation, c.position), 0) << c.name;

        ASSERT_EQ(stat(path_.c_str(), &after), 0) << c.name;
        EXPECT_EQ(after.st_uid, 1234u) << c.name;
        EXPECT_EQ(after.st_gid, 5678u) << c.name;
        EXPECT_EQ(after.st_mode & 07777, 0640u) << c.name;
        EXPECT_EQ(after.st_ino != before.st_ino, c.rewrites) << c.name << ": replaced by rename";
    }
}

TEST_F(FileStrTest, FailuresReturnOneReportAndLeaveNothingBehind)
{
    const std::string plain = dir_ + "/plain";
    spit(plain, "x");
    const std::string enoent = "No such file or directory";
    // The messages end in a line feed and the message routine then adds the
    // system error line, hence the empty line between them.
    const struct {
        const char *name;
        std::string path;
        int operation, position;
        std::string want_out;
    } cases[] = {
        {"remove_from_missing_file_is_silent", dir_ + "/none", FILE_STR_REMOVE, 0, ""},
        {"prepend_to_missing_file", dir_ + "/none", FILE_STR_ADD, FILE_STR_PREPEND,
         "Unable to open file " + dir_ + "/none: " + enoent + "\n\nSystem error 2: " + enoent + "\n"},
        {"pattern_on_missing_file", dir_ + "/none", FILE_STR_REMOVE_PATTERN, FILE_STR_MATCH_BEGIN,
         "Unable to open file " + dir_ + "/none: " + enoent + "\n\nSystem error 2: " + enoent + "\n"},
        {"stat_failure", plain + "/x", FILE_STR_ADD, FILE_STR_APPEND,
         "file_str: Unable to stat file " + plain +
             "/x: Not a directory\n\nSystem error 20: Not a directory\n"},
        {"reading_a_directory", dir_, FILE_STR_REMOVE, 0,
         "Unable to read file " + dir_ + ": Is a directory\nSystem error 21: Is a directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild(
            [&] { return file_str(c.path.c_str(), "line", c.operation, c.position); });
        EXPECT_EQ(r.status, 1) << c.name << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.name;
        EXPECT_FALSE(exists(dir_ + "/none")) << c.name << ": created the file";
        EXPECT_FALSE(exists(c.path + ".tmp")) << c.name << ": left the temporary file";
        // The lock was given back on the way out.
        lock_struct_t *lock = mk_nonblock_lock(c.path.c_str(), 1);
        EXPECT_TRUE(is_locked(lock)) << c.name;
        free_lock(lock);
    }
}

TEST_F(FileStrTest, LockFailureIsReported)
{
    spit(dir_ + "/plain", "x");
    mk_lock_set_dir_for_testing((dir_ + "/plain/locks").c_str());
    spit(path_, "a\n");
    const auto r = testsupport::runInChild([&] { return file_str(path_.c_str(), "b", FILE_STR_ADD, 1); });
    EXPECT_EQ(r.status, 1) << r;
    const std::string tail = "Error occurred while locking the file " + path_ +
                             ": Not a directory\n\nSystem error 20: Not a directory\n";
    ASSERT_GE(r.out.size(), tail.size()) << r;
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    EXPECT_EQ(slurp(path_), "a\n");
}

TEST_F(FileStrTest, WaitsForTheFilesLockBeforeEditing)
{
    spit(path_, "a\n");
    // Forked before the lock is taken: a child that inherited the locked
    // descriptor would keep the lock alive and wait for itself.
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char c;
        close(go[1]);
        if (read(go[0], &c, 1) != 1)
            _exit(9);
        _exit(file_str(path_.c_str(), "b", FILE_STR_ADD, FILE_STR_PREPEND));
    }
    close(go[0]);
    {
        zarnet::MKLock lock(path_);
        ASSERT_EQ(write(go[1], "g", 1), 1);
        struct stat st;
        ASSERT_EQ(stat(lock.path(), &st), 0);
        EXPECT_TRUE(testsupport::waitUntilBlocked(pid, st.st_ino)) << "the edit did not wait for the lock";
        EXPECT_EQ(slurp(path_), "a\n") << "edited while the lock was held elsewhere";
    }
    close(go[1]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(slurp(path_), "b\na\n");
}

TEST_F(FileStrTest, UnknownOperationIsRefused)
{
    spit(path_, "a\n");
    const auto r = testsupport::runInChild([&] { return file_str(path_.c_str(), "a", 7, 0); });
    EXPECT_EQ(r.status, 1) << r;
    EXPECT_EQ(slurp(path_), "a\n");
}

} // namespace
