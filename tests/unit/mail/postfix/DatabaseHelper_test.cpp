#include "mail/postfix/DatabaseHelper.h"

#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"
#include "utils/ExSystemError.h"
#include "utils/MKLock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

using namespace zarnet::mail::postfix;
using testsupport::PostfixDirs;
using Table = std::map<std::string, std::string>;

TEST(CheckOutput, LabelsByMode)
{
    const struct {
        const char *name, *output;
        bool lax, strict;
    } cases[] = {
        {"empty", "", true, true},
        {"error", "postmap: error: open /x: No such file or directory\n", false, false},
        {"warning", "postmap: warning: /x.db: duplicate entry\n", true, true},
        {"notice_fails_only_strict", "postmap: notice: something:\n", true, false},
        {"panic_on_last_line_without_feed", "postmap: warning: w: x\npostconf: panic: f", false, false},
        {"label_needs_following_colon", "postmap: fatal", true, true},
        {"label_not_at_first_word", "postmap: the fatal: thing", true, false},
        {"blanks_before_label", "postmap:    fatal: x", false, false},
        {"tab_is_not_a_blank", "postmap:\tfatal: x", true, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(DatabaseHelper::checkOutput(c.output, false) * 2 + DatabaseHelper::checkOutput(c.output, true),
                  c.lax * 2 + c.strict) << c.name << " (lax, strict)";
}

TEST(DatabaseHelper, TextFormsAndRefusedRecords)
{
    EXPECT_EQ(DatabaseHelper::sourcePath("hash:/var/x") + DatabaseHelper::sourcePath("/var/x") +
                  DatabaseHelper::sourcePath("pcre:/a:b"), "/var/x/var/x/a:b");

    // Refused before any run: a run on this table would fail otherwise.
    const char *table = "hash:/nonexistent-dir/t";
    const RecordList bad[] = {{{"key with blank", "v"}}, {{"key\twith-tab", "v"}}, {{"", "v"}}, {{"#comment", "v"}},
                              {{"\vcontinues", "v"}},    {{"k\r", "v"}},           {{"k", "line\nfeed"}},
                              {{"k", "carriage\rreturn"}}, {{"k", ""}},           {{"good", "v"}, {"k\n", "v"}}};
    for (const RecordList &records : bad)
        EXPECT_THROW(DatabaseHelper::addRecords(table, records.begin(), records.end()), std::invalid_argument)
            << records.back().first;
    EXPECT_THROW(DatabaseHelper::removeRecord(table, "a b"), std::invalid_argument);
    const std::vector<std::string> keys{"ok", "bad\n"};
    EXPECT_THROW(DatabaseHelper::removeRecords(table, keys.begin(), keys.end()), std::invalid_argument);
}

namespace {

// Against the real table compiler, through a wrapper that logs every run and
// can probe the table's lock or fail on purpose. Single additions and
// removals of the black-list commands the system tests prove.
class DatabaseHelperCompiler : public testing::Test {
protected:
    PostfixDirs dirs;
    testsupport::CompilerLog compilerLog{dirs.root + "/compiler.log"};
    const std::string table = dirs.table("virtual");

    void SetUp() override { PostfixDirs::create(table); }
    // Anything but the indexed table itself left in the table directory.
    bool sourceLeft() const
    {
        return std::distance(std::filesystem::directory_iterator(dirs.tables), {}) != 1;
    }
};

// The exception's class and text.
std::string caught(const std::function<void()> &fn)
{
    try {
        fn();
    } catch (const PostfixConfigurationError &e) {
        return std::string("configuration: ") + e.what();
    } catch (const PostfixDatabaseError &e) {
        return std::string("database: ") + e.what();
    } catch (const zarnet::SystemError &e) {
        return "system " + std::to_string(e.code()) + ": " + e.what();
    } catch (const std::exception &e) {
        return std::string("other: ") + e.what();
    }
    return "nothing";
}

} // namespace

// Each change under the table's lock, whole tables through more than a pipe
// holds, and no source left.
TEST_F(DatabaseHelperCompiler, ChangesUnderTheLockLeaveNoSource)
{
    char *lockFile = mk_flock_path(dirs.source("virtual").c_str());
    setenv("MAILTEND_PROBE_LOCK", lockFile, 1);
    RecordList many{{"@x.test", "\"|/usr/lib/prog 'two words'\""}};
    for (int i = 0; i < 20000; ++i)
        many.emplace_back("u" + std::to_string(i) + "@x.test", "u" + std::to_string(i) + "@y.test");
    DatabaseHelper::addRecords(table, many.begin(), many.end());
    DatabaseHelper::addRecord(table, "u1@x.test", "z@y.test"); // replaces
    Table t = PostfixDirs::dump(table);
    EXPECT_EQ(std::to_string(t.size()) + " " + t["u19999@x.test"] + " " + t["u1@x.test"] + " " + t["@x.test"],
              "20001 u19999@y.test z@y.test \"|/usr/lib/prog 'two words'\"");
    const std::vector<std::string> keys{"b@x.test"};
    DatabaseHelper::removeRecord(table, "a@x.test");
    DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    const RecordList now{{"b@old.test", "b@old.test,c@other.test"}, {"old.test", "old.test/"}};
    DatabaseHelper::replaceRecords(table, now.begin(), now.end());
    using namespace zarnet::mail::postfix::database;
    const std::string from = "old.test", to = "new.test";
    DatabaseHelper::filterRecords(table, ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(from, to, false)));
    unsetenv("MAILTEND_PROBE_LOCK");
    std::free(lockFile);
    EXPECT_EQ(PostfixDirs::dump(table), (Table{{"b@new.test", "b@new.test, c@other.test"}, {"new.test", "old.test/"}}))
        << "replacement kept other records or filter missed";
    EXPECT_FALSE(sourceLeft());
    const std::vector<std::string> got = compilerLog.runs();
    ASSERT_EQ(got.size(), 7u);
    for (const std::string &run : got)
        EXPECT_EQ(run.substr(run.size() - 5), " held") << run;
}

TEST_F(DatabaseHelperCompiler, FailuresLeaveTheLiveTable)
{
    DatabaseHelper::addRecord(table, "keep@x.test", "keep@x.test");
    const RecordList other{{"other@x.test", "other@x.test"}};
    const std::string lost = "hash:" + dirs.root + "/no-such-dir/virtual";
    const auto filter = [](const std::string &t, bool keep) {
        return [=] { DatabaseHelper::filterRecords(t, [=](std::string &) { return keep; }); };
    };
    const auto replace = [&](const std::string &t) {
        return [&, t] { DatabaseHelper::replaceRecords(t, other.begin(), other.end()); };
    };
    const std::string rebuild = dirs.table(".virtual.rebuild");
    const struct {
        const char *name;
        std::string fail; // which compiler run fails, and how
        std::function<void()> change;
        std::string want;
    } cases[] = {
        {"filter_compile_failure_ignored", rebuild + ":exit", filter(table, false), "configuration: postmap: fatal: injected\n"},
        {"filter_compile_killed_after_writing", rebuild + ":kill", filter(table, false), "configuration: terminated by signal 9 (Killed)"},
        {"replace_compile_failure_ignored", "-r:exit", replace(table), "configuration: postmap: fatal: injected\n"},
        {"removal_killed_taken_for_absent_key", "-d:kill", [&] { DatabaseHelper::removeRecord(table, "x@x.test"); },
         "database: "},
        {"throwing_filter_leaves_source", "", [&] {
             DatabaseHelper::filterRecords(table, [](std::string &) -> bool { throw std::runtime_error("broke"); }); },
         "other: broke"},
        {"dump_failure_of_unbuilt_table_ignored", "", filter(dirs.table("never-built"), true), "configuration: postmap"},
        {"unwritable_replace_source_unreported", "", replace(lost), "system 2: "},
    };
    for (const auto &c : cases) {
        setenv("MAILTEND_COMPILER_FAIL", c.fail.c_str(), 1);
        const std::string got = caught(c.change);
        unsetenv("MAILTEND_COMPILER_FAIL");
        EXPECT_EQ(got.substr(0, c.want.size()), c.want) << c.name << ": " << got;
        EXPECT_EQ(PostfixDirs::dump(table), (Table{{"keep@x.test", "keep@x.test"}})) << c.name;
        EXPECT_FALSE(sourceLeft()) << c.name;
    }
    EXPECT_NE(caught(replace(lost)).find("no-such-dir/.virtual.rebuild"), std::string::npos) << "path not named";
}
