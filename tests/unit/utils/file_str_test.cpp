#include "utils/file_str.h"

#include "test_common.h"

#include "utils/MKLock.h"

namespace {

class FileStrTest : public ::testing::Test {
protected:
    void SetUp() override { mk_lock_set_dir_for_testing((dir_ + "/locks").c_str()); }
    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    const testsupport::TempDir temp_{"file_str"};
    const std::string dir_ = temp_.path();
    const std::string path_ = dir_ + "/.qmail";
};

TEST_F(FileStrTest, EditsGiveTheExpectedContent)
{
    const int ADD = FILE_STR_ADD, RM = FILE_STR_REMOVE, PAT = FILE_STR_REMOVE_PATTERN, PRE = FILE_STR_PREPEND;
    const int APP = FILE_STR_APPEND, END = FILE_STR_MATCH_END, INSIDE = FILE_STR_MATCH_CONTAIN;
    const std::string kLong(10000, 'x'), longFile = kLong + "\nshort\n";
    const struct { const char *fault; const char *before; std::string text; int operation, position;
                     std::string want; } cases[] = {
        {"append_glued_to_unterminated_last_line", "a", {"b"}, ADD, APP, "a\nb\n"},
        {"prepend_alters_unterminated_last_line", "b", {"a"}, ADD, PRE, "a\nb"},
        {"remove_by_prefix_or_line_feed_of_line", "a\nb\nab\n", {"a"}, RM, 0, "b\nab\n"},
        {"remove_misses_unterminated_last_line", "a\nb", {"b"}, RM, 0, "a\n"},
        {"move_to_top_duplicates_or_misplaces", "x\na\ny\na\n", {"a"}, FILE_STR_MOVE_TO_TOP, 0, "a\nx\ny\n"},
        {"pattern_end_not_applied", "a@ex.com\nb@ex.org\n", {"@ex.com"}, PAT, END, "b@ex.org\n"},
        {"pattern_end_longer_than_line_underflows", "om\n", {".com"}, PAT, END, "om\n"},
        {"pattern_contain_not_applied", "x foo y\nbar\n", {"foo"}, PAT, INSIDE, "bar\n"},
        // Lines longer than one read block must be compared and copied whole.
        {"long_line_cut_by_prepend", longFile.c_str(), {"a"}, ADD, PRE, "a\n" + longFile},
        {"long_line_removed_by_first_block", longFile.c_str(), {std::string(4095, 'x')}, RM, 0, longFile},
        {"long_line_not_removed_whole", longFile.c_str(), {kLong}, RM, 0, "short\n"},
        {"long_line_end_taken_from_first_block", longFile.c_str(), {"xy"}, PAT, END, longFile},
    };
    for (const auto &c : cases) {
        spit(path_, c.before);
        EXPECT_EQ(file_str(path_.c_str(), c.text.c_str(), c.operation, c.position), 0) << c.fault;
        EXPECT_EQ(slurp(path_), c.want) << c.fault;
        EXPECT_FALSE(exists(path_ + ".tmp")) << c.fault;
    }
}

TEST_F(FileStrTest, OwnerAndModeKeptByRewriteAndByAppend)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give the file away";
    // Removals share the rewrite (by rename) with prepending.
    spit(path_, "a\n");
    struct stat before, after;
    ASSERT_TRUE(chown(path_.c_str(), 1234, 5678) == 0 && chmod(path_.c_str(), 0640) == 0 && stat(path_.c_str(), &before) == 0);
    EXPECT_EQ(file_str(path_.c_str(), "new", FILE_STR_ADD, FILE_STR_PREPEND), 0);
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    EXPECT_TRUE(after.st_uid == 1234u && after.st_gid == 5678u && (after.st_mode & 07777) == 0640u && after.st_ino != before.st_ino);
}

TEST_F(FileStrTest, FailuresReturnOneReportAndLeaveNothingBehind)
{
    const std::string none = dir_ + "/none";
    const auto report = [](const std::string &what, int code) {
        return what + ": " + std::strerror(code) + "\n\nSystem error " + std::to_string(code) + ": " + std::strerror(code) + "\n";
    };
    // A link planted in the file's place must not lead the edit elsewhere.
    const std::string target = dir_ + "/secret", link = dir_ + "/link";
    spit(target, "line\nsecret\n");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    const std::string fifo = dir_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // The messages end in a line feed and the message routine then adds the
    // system error line, hence the empty line between them.
    const struct { const char *fault; std::string path; int operation, position; std::string want_out; } cases[] = {
        {"remove_from_missing_file_reports_or_creates", none, FILE_STR_REMOVE, 0, ""},
        {"missing_file_not_reported", none, FILE_STR_ADD, FILE_STR_PREPEND, report("Unable to open file " + none, ENOENT)},
        {"fifo_waited_on", fifo, FILE_STR_REMOVE, 0,
         "Unable to open file " + fifo + ": not a regular file\n\nSystem error 22: Invalid argument\n"},
        {"rewrite_follows_link", link, FILE_STR_REMOVE, 0, report("Unable to open file " + link, ELOOP)},
        {"unknown_operation_run", none, 7, 0,
         "file_str: unknown operation 7 at position 0 on " + none + "\n\nSystem error 22: Invalid argument\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] { return file_str(c.path.c_str(), "line", c.operation, c.position); });
        EXPECT_EQ(r.status, 1) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_FALSE(exists(none)) << c.fault << ": created the file";
        EXPECT_FALSE(exists(c.path + ".tmp")) << c.fault << ": left the temporary file";
        EXPECT_EQ(testsupport::thrown([&] { zarnet::MKLock(c.path, zarnet::MKLock::DeriveName, zarnet::MKLock::NonBlock); }),
                  "nothing") << c.fault << ": the lock was not given back";
    }
    EXPECT_EQ(slurp(target), "line\nsecret\n");
}

// Waiting for the lock is proven by the concurrency system test; here a lock
// that cannot be taken.
TEST_F(FileStrTest, ReportsALockFailure)
{
    spit(dir_ + "/plain", "x");
    mk_lock_set_dir_for_testing((dir_ + "/plain/locks").c_str());
    spit(path_, "a\n");
    const auto r = testsupport::runInChild([&] { return file_str(path_.c_str(), "b", FILE_STR_ADD, FILE_STR_PREPEND); });
    const std::string tail = "Error occurred while locking the file " + path_ + ": Not a directory\n\nSystem error 20: Not a directory\n";
    EXPECT_TRUE(r.status == 1 && r.out.size() >= tail.size() && r.out.substr(r.out.size() - tail.size()) == tail) << r;
    EXPECT_EQ(slurp(path_), "a\n");
}

} // namespace
