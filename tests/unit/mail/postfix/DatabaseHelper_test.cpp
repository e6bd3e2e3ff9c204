#include "mail/postfix/DatabaseHelper.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

using zarnet::mail::postfix::DatabaseHelper;
using zarnet::mail::postfix::Record;
using zarnet::mail::postfix::RecordList;

TEST(CheckOutput, LabelsByMode)
{
    const struct {
        const char *name;
        const char *output;
        bool lax, strict;
    } cases[] = {
        {"empty", "", true, true},
        {"one_colon_only", "postmap: nothing to see", true, true},
        {"colon_at_end", "postmap:", true, true},
        {"fatal", "postmap: fatal: open /x: No such file or directory\n", false, false},
        {"error", "postmap: error: bad\n", false, false},
        {"panic", "postmap: panic: bad\n", false, false},
        {"warning", "postmap: warning: /x.db: duplicate entry\n", true, true},
        {"notice_fails_only_strict", "postmap: notice: something:\n", true, false},
        {"fatal_on_later_line", "postmap: warning: w:\npostmap: fatal: f\n", false, false},
        {"last_line_without_feed", "postmap: warning: w: x\npostconf: fatal: f", false, false},
        {"label_needs_following_colon", "postmap: fatal", true, true},
        {"label_not_at_first_word", "postmap: the fatal: thing", true, false},
        {"blanks_before_label", "postmap:    fatal: x", false, false},
        {"tab_is_not_a_blank", "postmap:\tfatal: x", true, false},
        {"label_is_last_char", "x: y", true, true},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(DatabaseHelper::checkOutput(c.output, false), c.lax) << c.name << " (lax)";
        EXPECT_EQ(DatabaseHelper::checkOutput(c.output, true), c.strict) << c.name << " (strict)";
    }
}

TEST(FormRecord, TextFormAndEndOfRange)
{
    const RecordList records{{"a@x.test", "a@x.test"}, {"@x.test", "\"|/bin/prog 'q'\""}};
    std::vector<char> buffer;
    RecordList::const_iterator pos = records.begin();
    EXPECT_TRUE(DatabaseHelper::formRecord(buffer, pos, records.end()));
    EXPECT_FALSE(DatabaseHelper::formRecord(buffer, pos, records.end()));
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()),
              "a@x.test a@x.test\n@x.test \"|/bin/prog 'q'\"\n");
    EXPECT_FALSE(DatabaseHelper::formRecord(buffer, pos, records.end()));
}

TEST(SourcePath, AfterFirstColon)
{
    EXPECT_EQ(DatabaseHelper::sourcePath("hash:/var/x"), "/var/x");
    EXPECT_EQ(DatabaseHelper::sourcePath("/var/x"), "/var/x");
    EXPECT_EQ(DatabaseHelper::sourcePath("pcre:/a:b"), "/a:b");
}

TEST(DatabaseHelper, RecordsTheTextFormCannotCarryAreRefusedBeforeAnyRun)
{
    // The table path does not exist: had a process run, the error would be
    // the compiler's, not invalid_argument.
    const char *table = "hash:/nonexistent-dir/t";
    const RecordList bad[] = {
        {{"key with blank", "v"}},
        {{"key\twith-tab", "v"}},
        {{"", "v"}},
        {{"#comment", "v"}},
        {{"\vcontinues", "v"}},
        {{"k\r", "v"}},
        {{"k", "line\nfeed"}},
        {{"k", "carriage\rreturn"}},
        {{"k", ""}},
        {{"good", "v"}, {"k\n", "v"}},
    };
    for (const RecordList &records : bad) {
        EXPECT_THROW(DatabaseHelper::addRecords(table, records.begin(), records.end()),
                     std::invalid_argument)
            << records.back().first;
        EXPECT_THROW(DatabaseHelper::replaceRecords(table, records.begin(), records.end()),
                     std::invalid_argument)
            << records.back().first;
    }
    EXPECT_THROW(DatabaseHelper::removeRecord(table, "a b"), std::invalid_argument);
    const std::vector<std::string> keys{"ok", "bad\n"};
    EXPECT_THROW(DatabaseHelper::removeRecords(table, keys.begin(), keys.end()),
                 std::invalid_argument);
}

// ---- against the real table compiler ----

#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"
#include "utils/ExSystemError.h"
#include "utils/MKLock.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

using zarnet::mail::postfix::PostfixConfigurationError;
using zarnet::mail::postfix::PostfixDatabaseError;
using testsupport::PostfixDirs;
using Table = std::map<std::string, std::string>;

namespace {

// Every run goes through a wrapper that logs it and can probe the table's
// lock or fail on purpose; the real compiler does the work.
class DatabaseHelperCompiler : public testing::Test {
protected:
    PostfixDirs dirs;
    testsupport::CompilerLog compilerLog{dirs.root + "/compiler.log"};
    const std::string table = dirs.table("virtual");

    void SetUp() override { PostfixDirs::create(table); }
    // Anything but the indexed table itself left in the table directory.
    bool sourceLeft() const
    {
        std::vector<std::string> names;
        DIR *d = opendir(dirs.tables.c_str());
        while (const dirent *e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != ".." &&
                std::string(e->d_name) != "virtual.db")
                names.push_back(e->d_name);
        closedir(d);
        return !names.empty();
    }
    std::vector<std::string> runs() const { return compilerLog.runs(); }
};

} // namespace

TEST_F(DatabaseHelperCompiler, AddReplaceRemoveKeepOtherKeys)
{
    const RecordList first{{"a@x.test", "a@x.test"}, {"b@x.test", "b@x.test, c@y.test"}};
    DatabaseHelper::addRecords(table, first.begin(), first.end());
    DatabaseHelper::addRecord(table, "a@x.test", "z@y.test"); // replaces
    DatabaseHelper::addRecord(table, "@x.test", "\"|/usr/lib/prog 'two words'\"");
    EXPECT_EQ(PostfixDirs::dump(table),
              (Table{{"a@x.test", "z@y.test"},
                     {"b@x.test", "b@x.test, c@y.test"},
                     {"@x.test", "\"|/usr/lib/prog 'two words'\""}}));

    DatabaseHelper::removeRecord(table, "a@x.test");
    DatabaseHelper::removeRecord(table, "never-there@x.test"); // absent key is no error
    const std::vector<std::string> keys{"@x.test", "missing@x.test"};
    DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"b@x.test", "b@x.test, c@y.test"}}));
    EXPECT_FALSE(sourceLeft());
}

TEST_F(DatabaseHelperCompiler, LargeInputThroughStdin)
{
    RecordList many;
    for (int i = 0; i < 20000; ++i)
        many.emplace_back("u" + std::to_string(i) + "@x.test", "u" + std::to_string(i) + "@y.test");
    DatabaseHelper::addRecords(table, many.begin(), many.end());
    const Table t = PostfixDirs::dump(table);
    EXPECT_EQ(t.size(), 20000u);
    EXPECT_EQ(t.at("u19999@x.test"), "u19999@y.test");
}

TEST_F(DatabaseHelperCompiler, ReplaceMakesTheWholeContentAndLeavesNoSource)
{
    DatabaseHelper::addRecord(table, "old@x.test", "old@x.test");
    const RecordList now{{"n1@x.test", "n1@x.test"}, {"n2@x.test", "n2@x.test"}};
    DatabaseHelper::replaceRecords(table, now.begin(), now.end());
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"n1@x.test", "n1@x.test"}, {"n2@x.test", "n2@x.test"}}));
    EXPECT_FALSE(sourceLeft());

    const RecordList none;
    DatabaseHelper::replaceRecords(table, none.begin(), none.end());
    EXPECT_TRUE(PostfixDirs::dump(table).empty());
    EXPECT_FALSE(sourceLeft());
}

TEST_F(DatabaseHelperCompiler, FilterRewritesEveryRecordAndLeavesNoSource)
{
    const RecordList records{{"a@old.test", "a@old.test"},
                             {"b@old.test", "b@old.test,c@other.test"},
                             {"c@other.test", "a@old.test c@other.test"},
                             {"old.test", "old.test/"}};
    DatabaseHelper::addRecords(table, records.begin(), records.end());
    const std::string from = "old.test", to = "new.test";
    using namespace zarnet::mail::postfix::database;
    DatabaseHelper::filterRecords(table, ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(from, to, false)));
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"a@new.test", "a@new.test"},
                                               {"b@new.test", "b@new.test, c@other.test"},
                                               {"c@other.test", "a@new.test, c@other.test"},
                                               {"new.test", "old.test/"}}));
    DatabaseHelper::filterRecords(table, ElementsFilter<NotInDomainFilter>(NotInDomainFilter(to, false)));
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"c@other.test", "c@other.test"}}));
    EXPECT_FALSE(sourceLeft());
}

TEST_F(DatabaseHelperCompiler, CompilerFailuresCarryItsText)
{
    const RecordList one{{"a@x.test", "a@x.test"}};
    const auto expectText = [](const std::exception &e) {
        EXPECT_NE(std::string(e.what()).find("postmap: fatal: "), std::string::npos) << e.what();
    };
    // The table's directory is gone: the compiler's own fatal line comes back.
    const std::string lost = "hash:" + dirs.root + "/no-such-dir/virtual";
    try {
        DatabaseHelper::addRecords(lost, one.begin(), one.end());
        ADD_FAILURE() << "add succeeded";
    } catch (const PostfixConfigurationError &e) {
        expectText(e);
    }
    try {
        DatabaseHelper::removeRecord(lost, "a@x.test");
        ADD_FAILURE() << "remove succeeded";
    } catch (const PostfixDatabaseError &e) {
        expectText(e);
    }
    // The dump of a table that was never built fails; nothing is left behind.
    try {
        DatabaseHelper::filterRecords(dirs.table("never-built"), [](std::string &) { return true; });
        ADD_FAILURE() << "filter succeeded";
    } catch (const PostfixConfigurationError &e) {
        expectText(e);
    }
    EXPECT_FALSE(sourceLeft());
    // A text source that cannot be created says which and why.
    for (int i = 0; i < 2; ++i) {
        try {
            if (i == 0)
                DatabaseHelper::replaceRecords(lost, one.begin(), one.end());
            else
                DatabaseHelper::filterRecords(lost, [](std::string &) { return true; });
            ADD_FAILURE() << "rewrite " << i << " succeeded";
        } catch (const zarnet::SystemError &e) {
            EXPECT_EQ(e.code(), ENOENT);
            EXPECT_NE(std::string(e.what()).find("no-such-dir/.virtual.rebuild"), std::string::npos);
        }
    }
}

TEST_F(DatabaseHelperCompiler, FailedOrKilledRebuildLeavesTheLiveTable)
{
    DatabaseHelper::addRecord(table, "keep@x.test", "keep@x.test");
    const RecordList other{{"other@x.test", "other@x.test"}};
    const auto drop = [](std::string &) { return false; };
    const struct {
        const char *name;
        const char *fail;
        std::function<void()> rewrite;
        const char *text;
    } cases[] = {
        {"filter_compile_fails", "hash:exit", [&] { DatabaseHelper::filterRecords(table, drop); },
         "postmap: fatal: injected\n"},
        {"filter_compile_killed_after_writing", "hash:kill",
         [&] { DatabaseHelper::filterRecords(table, drop); }, "unknown error"},
        {"replace_compile_fails", "-r:exit",
         [&] { DatabaseHelper::replaceRecords(table, other.begin(), other.end()); },
         "postmap: fatal: injected\n"},
        {"replace_compile_killed_after_writing", "-r:kill",
         [&] { DatabaseHelper::replaceRecords(table, other.begin(), other.end()); }, "unknown error"},
    };
    for (const auto &c : cases) {
        // "hash:" stands for the run whose first argument is the table.
        std::string fail = c.fail;
        if (fail.rfind("hash:", 0) == 0)
            fail = dirs.table(".virtual.rebuild") + fail.substr(4);
        setenv("MAILTEND_COMPILER_FAIL", fail.c_str(), 1);
        try {
            c.rewrite();
            ADD_FAILURE() << c.name << ": rewrite succeeded";
        } catch (const PostfixConfigurationError &e) {
            EXPECT_STREQ(e.what(), c.text) << c.name;
        }
        unsetenv("MAILTEND_COMPILER_FAIL");
        EXPECT_EQ(PostfixDirs::dump(table), (Table{{"keep@x.test", "keep@x.test"}})) << c.name;
        EXPECT_FALSE(sourceLeft()) << c.name;
    }
}

TEST_F(DatabaseHelperCompiler, EveryChangeHoldsTheTableLock)
{
    char *lockFile = mk_flock_path(dirs.source("virtual").c_str());
    setenv("MAILTEND_PROBE_LOCK", lockFile, 1);
    const RecordList one{{"a@x.test", "a@x.test"}};
    DatabaseHelper::addRecords(table, one.begin(), one.end());
    DatabaseHelper::removeRecord(table, "a@x.test");
    const std::vector<std::string> keys{"b@x.test"};
    DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    DatabaseHelper::replaceRecords(table, one.begin(), one.end());
    bool heldInFilter = false;
    DatabaseHelper::filterRecords(table, [&](std::string &) {
        lock_struct_t *probe = mk_nonblock_lock(lockFile, 0);
        heldInFilter = is_already_locked(probe);
        rm_lock(probe);
        return true;
    });
    std::free(lockFile);
    EXPECT_TRUE(heldInFilter);
    const std::vector<std::string> got = runs();
    ASSERT_EQ(got.size(), 6u);
    for (const std::string &run : got)
        EXPECT_EQ(run.substr(run.size() - 5), " held") << run;
}

TEST_F(DatabaseHelperCompiler, RemovalEndedBySignalFails)
{
    DatabaseHelper::addRecord(table, "a@x.test", "a@x.test");
    setenv("MAILTEND_COMPILER_FAIL", "-d:kill", 1);
    EXPECT_THROW(DatabaseHelper::removeRecord(table, "absent@x.test"), PostfixDatabaseError);
}

TEST_F(DatabaseHelperCompiler, ThrowingFilterLeavesTableAndNoSource)
{
    DatabaseHelper::addRecord(table, "keep@x.test", "keep@x.test");
    EXPECT_THROW(DatabaseHelper::filterRecords(table, [](std::string &) -> bool {
                     throw std::runtime_error("filter broke");
                 }),
                 std::runtime_error);
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"keep@x.test", "keep@x.test"}}));
    EXPECT_FALSE(sourceLeft());
}
