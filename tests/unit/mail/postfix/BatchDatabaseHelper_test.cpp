#include "mail/postfix/BatchDatabaseHelper.h"

#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace zarnet::mail::postfix;
using testsupport::PostfixDirs;
using Table = std::map<std::string, std::string>;
using Runs = std::vector<std::string>;

// The immediate batch the system tests prove; a failed deferred commit keeps what it did not write.
TEST(BatchCompiler, DeferredCommitAndItsFailure)
{
    PostfixDirs dirs;
    testsupport::CompilerLog compilerLog{dirs.root + "/compiler.log"};
    const std::string a = dirs.table("a_table"), b = dirs.table("b_table");
    PostfixDirs::create(a);
    PostfixDirs::create(b);
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

    batch.addChange(a, "a4", "v4");
    batch.removeChanges(b, {"b1"});
    setenv("MAILTEND_COMPILER_FAIL", "-r:exit", 1);
    EXPECT_THROW(batch.commit(), PostfixConfigurationError);
    unsetenv("MAILTEND_COMPILER_FAIL");
    EXPECT_EQ(PostfixDirs::dump(a).count("a4"), 0u);
    batch.commit(); // the same changes, written now
    EXPECT_EQ(PostfixDirs::dump(a).count("a4") + PostfixDirs::dump(b).count("b1"), 1u);
    EXPECT_EQ(compilerLog.runs().back(), "-d - " + b);
}
