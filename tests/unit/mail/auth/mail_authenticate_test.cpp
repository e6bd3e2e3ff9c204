#include "mail/auth/mail_authenticate.h"

#include "mail/auth/auth_db.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "utils/cpp_mysql.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

using authtest::dump;
using authtest::ored;
using testsupport::runInChild;

namespace {

using AuthRecords = authtest::AuthDb;
using AuthSpreadSandboxed = authtest::AuthDb;

} // namespace

// Renames, clones and status changes: the main path and failure each.
TEST_F(AuthRecords, ChangesAndFailures)
{
    // The call on a database file without tables, or on none.
    const auto broken = [this](bool missing, std::function<int()> call) {
        return [=] { return ored({unlink(db_.c_str()), missing ? 0 : (testsupport::spit(db_, ""), 0), call()}); };
    };
    const std::string no_table = "Unable to prepare SQL statement for query 'SELECT id FROM domains WHERE name=?':"
                                 " no such table: domains\n";
    check({
        {"flags_not_mapped_to_columns_or_flag_4_applied_to_existing_domain",
         [] { return ored({mailAuthSet("a", "ex.com", "p", 0), mailAuthSet("b", "ex.com", "$1$h", 7),
                           mailAuthSet("a", "new.com", "p", 4)}); },
         0, "", "ex.com 0, new.com 1\n1 a@ex.com p/ 0, 2 b@ex.com /$1$h 1, 3 a@new.com p/ 0\n"},
        {"missing_domain_fails_removal_or_status_change_or_is_created",
         [] { return ored({mailAuthRemove("a", "none.com"), mailAuthDisableDomain("none.com")}); }, 0, "", "\n\n"},
        {"remove_takes_other_users", [] { return ored({mailAuthSet("a", "ex.com", "p", 0), mailAuthSet("b", "ex.com", "p", 0),
                                                       mailAuthSet("a", "o.com", "p", 0), mailAuthRemove("a", "ex.com")}); },
         0, "", "ex.com 0, o.com 0\n2 b@ex.com p/ 0, 3 a@o.com p/ 0\n"},
        {"rename_arguments_swapped_or_onto_existing_user_unreported",
         [] { return ored({mailAuthSet("a", "ex.com", "p", 0), mailAuthSet("b", "ex.com", "q", 0),
                           mailAuthRename("a", "c", "ex.com"), mailAuthRename("c", "b", "ex.com")}); },
         -1, "Unable to execute the mail authorization renaming query: UNIQUE constraint failed: users.name,"
             " users.dom_id\n", "ex.com 0\n2 b@ex.com q/ 0, 1 c@ex.com p/ 0\n"},
        {"clone_drops_flags_or_fails_or_writes_for_missing_user_or_domain_or_marks_plain_encrypted",
         [] { return ored({mailAuthSet("a", "ex.com", "$1$h", 7), mailAuthSet("b", "ex.com", "pw", 0),
                           mailAuthClone("a", "ex.com", "a", "o.com"), mailAuthClone("b", "ex.com", "c", "o.com"),
                           mailAuthClone("zz", "ex.com", "zz", "none.com"), mailAuthClone("a", "gone.com", "a", "none.com")}); },
         0, "", "ex.com 1, o.com 1\n1 a@ex.com /$1$h 1, 2 b@ex.com pw/ 0, 3 a@o.com /$1$h 1, 4 c@o.com pw/ 0\n"},
        {"domain_status_rename_or_removal_wrong",
         [] { return ored({mailAuthSet("a", "ex.com", "p", 4), mailAuthSet("b", "o.com", "p", 0),
                           mailAuthSet("c", "t.com", "p", 0), mailAuthEnableDomain("ex.com"),
                           mailAuthDisableDomain("o.com"), mailAuthRenameDomain("ex.com", "new.com"),
                           mailAuthRemoveDomain("t.com")}); },
         0, "", "new.com 0, o.com 1\n1 a@new.com p/ 0, 2 b@o.com p/ 0\n"},
        {"missing_database_created_or_unreported", broken(true, [] { return mailAuthSet("a", "ex.com", "p", 0); }),
         -1, "Unable to open database " + db_ + ": unable to open database file\n", "error: open\n"},
        {"failed_lookup_taken_for_missing_domain_or_success_or_store_failure_unreported",
         broken(false, [] { return ored({mailAuthRename("a", "b", "ex.com"), mailAuthRemove("a", "ex.com"),
                                         mailAuthSet("a", "ex.com", "p", 0)}); }), -1,
         no_table + no_table + no_table + "No such domain 'ex.com' in the mail authentication DB\n", nullptr},
        {"clone_failure_unreported", broken(false, [] { return mailAuthClone("a", "ex.com", "a", "b.com"); }), -1,
         "Unable to prepare SQL statement for query 'SELECT id, status FROM domains WHERE name=?': no such"
         " table: domains\nUnable to get users list from MTA password database\n", nullptr},
    }, true);
}

// Each in a child, as the buffers are filled once per process: the answer,
// what is left of the two variables, and the answer of a second call.
TEST(AuthEnvironment, PasswordsFromEnvironment)
{
    const auto password = [] {
        const char *p = "";
        int kind = -1;
        const int rc = get_env_password(&p, &kind);
        return std::to_string(rc) + " " + std::to_string(kind) + " " + p;
    };
    const struct {
        const char *fault;
        const char *plain, *crypted; // null: unset
        const char *want;
    } cases[] = {
        {"crypted_preferred_or_both_removed", "pw", "$1$c", "0 0 pw, - $1$c, 0 0 other"},
        {"empty_plain_taken", "", "$1$c", "0 1 $1$c,  -, 0 0 other"},
        {"missing_password_found", nullptr, "", "-1 -1 , - , 0 0 other"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            c.plain ? setenv("ZRN_PASSWORD", c.plain, 1) : unsetenv("ZRN_PASSWORD");
            c.crypted ? setenv("ZRN_CRYPTED_PASSWORD", c.crypted, 1) : unsetenv("ZRN_CRYPTED_PASSWORD");
            const std::string first = password();
            const char *p = std::getenv("ZRN_PASSWORD"), *e = std::getenv("ZRN_CRYPTED_PASSWORD");
            std::printf("%s, %s %s, ", first.c_str(), p ? p : "-", e ? e : "-");
            setenv("ZRN_PASSWORD", "other", 1);
            return std::printf("%s", password().c_str()) < 0;
        });
        EXPECT_EQ(r.out, c.want) << c.fault << " " << r;
    }
}

// Cloning and status changes over the panel's aliases are proven through the
// domain commands; here a failure on an alias undoes the domain's own change.
TEST_F(AuthSpreadSandboxed, FailedAliasActionUndoesTheDomainsChange)
{
    MAILTEND_REQUIRE_SANDBOX();
    const auto panel = [](std::vector<const char *> statements) {
        zarnet::mysql::Connection db(false);
        for (const char *sql : statements)
            db << sql << zarnet::mysql::Query::exec;
    };
    const std::vector<const char *> clear = {
        "DELETE m FROM mail m JOIN domains d ON m.dom_id = d.id WHERE d.name LIKE '%.sp'",
        "DELETE FROM domainaliases WHERE name LIKE '%.sp'", "DELETE FROM domains WHERE name LIKE '%.sp'"};
    // d.sp with the domain alias a1.sp and the mailname box.
    panel(clear);
    panel({"INSERT INTO domains (name) VALUES ('d.sp')",
           "INSERT INTO domainaliases (dom_id, name) SELECT id, 'a1.sp' FROM domains WHERE name = 'd.sp'",
           "INSERT INTO mail (dom_id, mail_name) SELECT id, 'box' FROM domains WHERE name = 'd.sp'"});
    check({
        {"failed_action_unreported_or_domain_change_kept", [] {
             return ored({set_mass_postbox_passwd("box", "d.sp", "h", 3) * 0,
                          domain_auth_action("d.sp", [](const char *d) {
                              return strcmp(d, "a1.sp") ? mailAuthRemoveDomain(d) : -1; }, "frob"),
                          domain_auth_action("d.sp", [](const char *) { return -1; }, "frob")}); },
         -1, "Unable to frob for domain alias a1.sp\nUnable to frob for domain d.sp\n", "a1.sp 0, d.sp 0\n"},
    }, false);
    panel(clear);
}
