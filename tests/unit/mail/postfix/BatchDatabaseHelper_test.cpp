#include "mail/postfix/BatchDatabaseHelper.h"

#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace zarnet::mail::postfix;
using testsupport::PostfixDirs;
using Table = std::map<std::string, std::string>;
using Runs = std::vector<std::string>;

namespace {

// Every compiler run goes through a wrapper that logs its arguments. The
// immediate incremental batch of the commands the system tests prove.
class BatchCompiler : public testing::Test {
protected:
    PostfixDirs dirs;
    testsupport::CompilerLog compilerLog{dirs.root + "/compiler.log"};
    std::string a = dirs.table("a_table"), b = dirs.table("b_table");

    void SetUp() override
    {
        PostfixDirs::create(a);
        PostfixDirs::create(b);
    }
};

} // namespace

TEST_F(BatchCompiler, ImmediateReplacingKeepsOnlyTheLastChange)
{
    const RecordList none;
    BatchDatabaseHelper(true, true).addChanges(a, none.begin(), none.end());
    EXPECT_TRUE(compilerLog.runs().empty()) << "an empty range ran the compiler";
    BatchDatabaseHelper batch(false, true);
    batch.addChange(a, "k1", "v1");
    batch.addChange(a, "k2", "v2");
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"k2", "v2"}}));
}

TEST_F(BatchCompiler, DeferredOneRunPerTableInNameOrderAdditionsFirst)
{
    {
        BatchDatabaseHelper dropped(true, false);
        dropped.addChange(a, "k", "v");
        dropped.removeChanges(b, {"x"});
    }
    EXPECT_TRUE(compilerLog.runs().empty()) << "a batch destroyed without commit wrote";

    BatchDatabaseHelper batch(true, false);
    batch.removeChanges(a, {"gone"});
    batch.addChange(b, "b1", "v1");
    batch.addChange(a, "a1", "v1");
    batch.addChange(a, "gone", "v");
    const RecordList more{{"a2", "v2"}, {"a3", "v3"}};
    batch.addChanges(a, more.begin(), more.end());
    EXPECT_TRUE(compilerLog.runs().empty()) << "deferred changes written before commit";
    batch.commit();
    batch.commit(); // emptied: nothing more to write
    EXPECT_EQ(compilerLog.runs(), (Runs{"-r -i " + a, "-r -i " + b, "-d - " + a}));
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"a1", "v1"}, {"a2", "v2"}, {"a3", "v3"}}));
    EXPECT_EQ(PostfixDirs::dump(b), (Table{{"b1", "v1"}}));

    // Replacing: the whole list in call order, so the later value wins.
    BatchDatabaseHelper replacing(false, false);
    replacing.addChange(a, "k", "first");
    replacing.addChange(a, "k", "second");
    replacing.commit();
    EXPECT_EQ(compilerLog.runs().back(), "-r " + dirs.table(".a_table.rebuild"));
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"k", "second"}}));
}

TEST_F(BatchCompiler, FailedCommitKeepsWhatWasNotWritten)
{
    BatchDatabaseHelper batch(true, false);
    batch.addChange(a, "a1", "v1");
    batch.removeChanges(b, {"b0"});
    setenv("MAILTEND_COMPILER_FAIL", "-r:exit", 1);
    EXPECT_THROW(batch.commit(), PostfixConfigurationError);
    unsetenv("MAILTEND_COMPILER_FAIL");
    EXPECT_TRUE(PostfixDirs::dump(a).empty());
    batch.commit(); // the same changes, written now
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"a1", "v1"}}));
    EXPECT_EQ(compilerLog.runs().back(), "-d - " + b);
}
