#include "mail/postfix/BatchDatabaseHelper.h"

#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using namespace zarnet::mail::postfix;
using testsupport::PostfixDirs;
using Table = std::map<std::string, std::string>;

namespace {

// Every compiler run goes through a wrapper that logs its arguments.
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
    std::vector<std::string> runs() const { return compilerLog.runs(); }
};

} // namespace

TEST_F(BatchCompiler, ImmediateIncrementalWritesEachCall)
{
    BatchDatabaseHelper batch(true, true);
    batch.addChange(a, "k1", "v1");
    batch.addChange(a, "k2", "v2");
    const RecordList none;
    batch.addChanges(a, none.begin(), none.end());
    batch.removeChanges(a, {"k1"});
    EXPECT_EQ(runs(), (std::vector<std::string>{"-r -i " + a, "-r -i " + a, "-d - " + a}));
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"k2", "v2"}}));
}

TEST_F(BatchCompiler, ImmediateReplacingKeepsOnlyTheLastChange)
{
    BatchDatabaseHelper batch(false, true);
    batch.addChange(a, "k1", "v1");
    batch.addChange(a, "k2", "v2");
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"k2", "v2"}}));
}

TEST_F(BatchCompiler, DeferredOneRunPerTableInNameOrderAdditionsFirst)
{
    BatchDatabaseHelper batch(true, false);
    batch.removeChanges(a, {"gone"});
    batch.addChange(b, "b1", "v1");
    batch.addChange(a, "a1", "v1");
    batch.addChange(a, "gone", "v");
    const RecordList more{{"a2", "v2"}, {"a3", "v3"}};
    batch.addChanges(a, more.begin(), more.end());
    EXPECT_TRUE(runs().empty()) << "deferred changes written before commit";

    batch.commit();
    EXPECT_EQ(runs(), (std::vector<std::string>{"-r -i " + a, "-r -i " + b, "-d - " + a}));
    // Added and removed in one batch: removed.
    EXPECT_EQ(PostfixDirs::dump(a), (Table{{"a1", "v1"}, {"a2", "v2"}, {"a3", "v3"}}));
    EXPECT_EQ(PostfixDirs::dump(b), (Table{{"b1", "v1"}}));

    batch.commit(); // emptied: nothing more to write
    EXPECT_EQ(runs().size(), 3u);
}

TEST_F(BatchCompiler, DeferredDestroyedWithoutCommitWritesNothing)
{
    {
        BatchDatabaseHelper batch(true, false);
        batch.addChange(a, "k", "v");
        batch.removeChanges(b, {"x"});
    }
    EXPECT_TRUE(runs().empty());
    EXPECT_TRUE(PostfixDirs::dump(a).empty());
}

TEST_F(BatchCompiler, DeferredRecordOrderWithinATable)
{
    BatchDatabaseHelper batch(false, false);
    batch.addChange(a, "k", "first");
    batch.addChange(a, "k", "second");
    batch.commit();
    // The whole list goes to one replacement, in call order: the later value wins.
    EXPECT_EQ(runs(), (std::vector<std::string>{"-r " + dirs.table(".a_table.rebuild")}));
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
    EXPECT_EQ(runs().back(), "-d - " + b);
}
