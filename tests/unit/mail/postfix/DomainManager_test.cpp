#include "mail/postfix/DomainManager.h"

#include "mail/postfix/lookup_tables.h"
#include "mail/storage/MaildirManager.h"

#include "support/child_capture.h"
#include "support/postfix_dirs.h"
#include "support/sandboxed.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

using namespace zarnet::mail::postfix;
namespace fs = std::filesystem;
using Table = std::map<std::string, std::string>;
using Tables = std::map<std::string, Table>;

namespace {

const char *const renamed[] = {tables::virtual_domains, tables::virtual_addresses, tables::vmailbox,
                               tables::aliases};

// old.examples begins with the old name: its paths must not follow the rename.
const Tables before = {
    {tables::virtual_domains, {{"old.example", "old.example/"}, {"keep.example", "keep.example/"}}},
    {tables::virtual_addresses,
     {{"info@old.example", "info@old.example"}, {"@old.example", "_zarnet_bounce_old.example@localhost.localdomain"},
      {"x@sub.old.example", "info@old.example"}, {"fwd@keep.example", "info@old.example, a@keep.example"}}},
    {tables::vmailbox, {{"info@old.example", "old.example/info/Maildir/"},
                        {"info@old.examples", "old.examples/info/Maildir/"}}},
    {tables::aliases, {{"_zarnet_bounce_old.example", "\"|bounce\""}, {"_zarnet_bounce_keep.example", "k"}}},
};
const Tables after = {
    {tables::virtual_domains, {{"new.example", "new.example/"}, {"keep.example", "keep.example/"}}},
    {tables::virtual_addresses,
     {{"info@new.example", "info@new.example"}, {"@new.example", "_zarnet_bounce_new.example@localhost.localdomain"},
      {"x@sub.old.example", "info@new.example"}, {"fwd@keep.example", "info@new.example, a@keep.example"}}},
    {tables::vmailbox, {{"info@new.example", "new.example/info/Maildir/"},
                        {"info@old.examples", "old.examples/info/Maildir/"}}},
    {tables::aliases, {{"_zarnet_bounce_new.example", "\"|bounce\""}, {"_zarnet_bounce_keep.example", "k"}}},
};

Tables current()
{
    Tables t;
    for (const char *table : renamed)
        t[table] = testsupport::PostfixDirs::dump(table);
    return t;
}

std::string restoreFailure(const char *table)
{
    return std::string(DomainManager::doubleErrorHead) + table + DomainManager::doubleErrorTail + "\n";
}

} // namespace

// A rename that fails at any step leaves the tables as they were, unless
// putting one back fails too, which is reported by the table's name.
TEST(DomainManagerSandboxed, RenameMovesEverythingOrRestoresTheTables)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string root = zarnet::mail::MaildirManager::getMailnamesRoot().string();
    Tables halfway = before; // the addresses table could not be moved back
    halfway[tables::virtual_addresses] = after.at(tables::virtual_addresses);
    const struct {
        const char *failingRuns; // of the table compiler; two per table
        bool storageFails;
        int status;
        const Tables &tables;
        std::string err;
    } cases[] = {
        {"", false, 0, after, ""},
        {"1", false, 1, before, ""}, {"2", false, 1, before, ""}, {"3", false, 1, before, ""},
        {"4", false, 1, before, ""}, {"5", false, 1, before, ""}, {"6", false, 1, before, ""},
        {"7", false, 1, before, ""}, {"8", false, 1, before, ""},
        {"", true, 1, before, ""},
        {"5,6", false, 1, halfway, restoreFailure("Postfix Virtual Aliases Database")},
    };
    for (const auto &c : cases) {
        fs::remove_all(root + "/new.example");
        fs::remove_all(root + "/old.example");
        fs::create_directories(root + "/old.example/info");
        if (c.storageFails)
            fs::create_directories(root + "/new.example/occupied");
        for (const char *table : renamed)
            DatabaseHelper::replaceRecords(table, before.at(table).begin(), before.at(table).end());

        testsupport::CompilerLog log(root + "/compiler.log");
        fs::remove(root + "/compiler.log");
        setenv("MAILTEND_COMPILER_FAIL_RUNS", c.failingRuns, 1);
        const testsupport::ChildResult r = testsupport::runInChild([] {
            try {
                DomainManager::renameDomain("old.example", "new.example");
            } catch (const std::exception &) {
                return 1;
            }
            return 0;
        });
        EXPECT_EQ(r.status, c.status) << c.failingRuns << r;
        EXPECT_EQ(r.err, c.err) << c.failingRuns;
        EXPECT_EQ(current(), c.tables) << "failing runs " << c.failingRuns << " " << c.storageFails;
        EXPECT_EQ(fs::exists(root + "/old.example/info"), c.status != 0) << c.failingRuns;
    }
    for (const char *left : {"/new.example", "/old.example", "/compiler.log"})
        fs::remove_all(root + left);
}
