#include "mail/auth/mail_authenticate.h"

#include "mail/auth/mail_database.h"
#include "support/background.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"
#include "utils/dbconnect.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

using testsupport::runInChild;

namespace {

std::string query(const std::string &path, const char *sql)
{
    sqlite3 *db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    std::string out;
    char *err = nullptr;
    sqlite3_exec(
        db, sql,
        [](void *sink, int, char **values, char **) {
            *static_cast<std::string *>(sink) += std::string(values[0] ? values[0] : "NULL") + "\n";
            return 0;
        },
        &out, &err);
    if (err != nullptr)
        out += std::string("error: ") + err;
    sqlite3_free(err);
    sqlite3_close(db);
    return out;
}

// Domains as "d name status", users as "u id name@domain plain encrypted status".
std::string dump(const std::string &path)
{
    return query(path, "SELECT 'd ' || name || ' ' || status FROM domains ORDER BY name") +
           query(path, "SELECT 'u ' || u.id || ' ' || u.name || '@' || d.name || ' ' ||"
                       " IFNULL(u.userPassword, '-') || ' ' || IFNULL(u.cmusaslsecretPLAIN, '-') ||"
                       " ' ' || u.status FROM users u JOIN domains d ON u.dom_id = d.id"
                       " ORDER BY d.name, u.name");
}

class AuthRecords : public testing::Test {
protected:
    void SetUp() override
    {
        mailAuthDBSetPathForTesting(db_.c_str());
        ASSERT_EQ(mailAuthDBInit(), 0);
    }
    void TearDown() override { mailAuthDBSetPathForTesting(nullptr); }

    const testsupport::TempDir temp_{"authrec"};
    const std::string db_ = temp_.path() + "/passwd.db";
};

struct Step {
    const char *fault;
    std::function<int()> call; // the last call's result is checked
    int rc;
    std::string want_log;
    std::string want_dump;
};

// Runs each step from an empty database in a child, so its log is captured.
void runSteps(const std::string &db, const std::vector<Step> &steps)
{
    for (const auto &s : steps) {
        ASSERT_EQ(mailAuthDBInit(), 0);
        const auto r = runInChild([&] { return s.call() & 0xff; });
        EXPECT_EQ(r.status, s.rc & 0xff) << s.fault << " " << r;
        EXPECT_EQ(r.err, s.want_log) << s.fault;
        EXPECT_EQ(dump(db), s.want_dump) << s.fault;
    }
}

} // namespace

TEST_F(AuthRecords, ChangesRows)
{
    runSteps(db_, {
        {"replace_keeps_other_password_column_or_id", [] {
             mailAuthSet("box", "ex.com", "$1$h", 1);
             return mailAuthSet("box", "ex.com", "plain", 0);
         }, 0, "", "d ex.com 0\nu 2 box@ex.com plain - 0\n"},
        {"flags_not_mapped_to_columns", [] { return mailAuthSet("box", "ex.com", "$1$h", 3); },
         0, "", "d ex.com 0\nu 1 box@ex.com - $1$h 1\n"},
        {"flag_4_ignored_for_new_domain_or_applied_to_existing", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             mailAuthSet("b", "ex.com", "p", 4);
             return mailAuthSet("a", "new.com", "p", 4);
         }, 0, "", "d ex.com 0\nd new.com 1\nu 1 a@ex.com p - 0\nu 2 b@ex.com p - 0\nu 3 a@new.com p - 0\n"},
        {"missing_domain_fails_removal_or_status_change_or_is_created", [] {
             return mailAuthRemove("a", "none.com") | mailAuthDisableDomain("none.com");
         }, 0, "", ""},
        {"remove_takes_other_users", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             mailAuthSet("b", "ex.com", "p", 0);
             mailAuthSet("a", "other.com", "p", 0);
             return mailAuthRemove("a", "ex.com");
         }, 0, "", "d ex.com 0\nd other.com 0\nu 2 b@ex.com p - 0\nu 3 a@other.com p - 0\n"},
        {"rename_in_missing_domain_succeeds", [] { return mailAuthRename("a", "b", "none.com"); },
         -1, "No such domain 'none.com' in the mail authentication DB\n", ""},
        {"rename_arguments_swapped", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             return mailAuthRename("a", "c", "ex.com");
         }, 0, "", "d ex.com 0\nu 1 c@ex.com p - 0\n"},
        {"rename_onto_existing_user_unreported", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             mailAuthSet("b", "ex.com", "q", 0);
             return mailAuthRename("a", "b", "ex.com");
         }, -1, "Unable to execute the mail authorization renaming query: UNIQUE constraint failed: users.name, users.dom_id\n",
         "d ex.com 0\nu 1 a@ex.com p - 0\nu 2 b@ex.com q - 0\n"},
        {"clone_drops_disabled_flags", [] {
             mailAuthSet("a", "ex.com", "$1$h", 7);
             return mailAuthClone("a", "ex.com", "b", "other.com");
         }, 0, "", "d ex.com 1\nd other.com 1\nu 1 a@ex.com - $1$h 1\nu 2 b@other.com - $1$h 1\n"},
        {"clone_of_missing_user_writes_or_plain_password_marked_encrypted", [] {
             mailAuthSet("a", "ex.com", "pw", 0);
             mailAuthClone("zz", "ex.com", "zz", "third.com");
             return mailAuthClone("a", "ex.com", "a", "other.com");
         }, 0, "", "d ex.com 0\nd other.com 0\nu 1 a@ex.com pw - 0\nu 2 a@other.com pw - 0\n"},
        {"clone_from_missing_domain_unreported",
         [] { return mailAuthClone("a", "none.com", "a", "other.com"); }, -1,
         "Unable to get mail domain id for: none.com\nUnable to get users list from MTA password database\n",
         ""},
        {"domain_status_not_applied", [] {
             mailAuthSet("a", "ex.com", "p", 4);
             mailAuthSet("b", "other.com", "p", 0);
             return mailAuthEnableDomain("ex.com") | mailAuthDisableDomain("other.com");
         }, 0, "", "d ex.com 0\nd other.com 1\nu 1 a@ex.com p - 0\nu 2 b@other.com p - 0\n"},
        {"domain_rename_loses_users_or_removal_leaves_them", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             mailAuthSet("b", "other.com", "p", 0);
             return mailAuthRenameDomain("ex.com", "new.com") | mailAuthRemoveDomain("other.com");
         }, 0, "", "d new.com 0\nu 1 a@new.com p - 0\n"},
        {"empty_password_stored", [] {
             mailAuthSet("a", "ex.com", "p", 0);
             return set_postbox_passwd("a", "ex.com", "", 0);
         }, 0, "", "d ex.com 0\n"},
    });
}

TEST_F(AuthRecords, BrokenDatabaseIsReportedOnce)
{
    const std::string no_table = "Unable to prepare SQL statement for query 'SELECT id FROM domains"
                                 " WHERE name=?': no such table: domains\n";
    const struct {
        const char *fault;
        bool missing; // else a file without tables
        std::function<int()> call;
        std::string want_log;
    } cases[] = {
        {"missing_database_created_or_unreported", true, [] { return mailAuthSet("a", "ex.com", "p", 0); },
         "Unable to open database " + db_ + ": unable to open database file\n"},
        {"failed_lookup_taken_for_missing_domain", false,
         [] { return mailAuthRename("a", "b", "ex.com"); }, no_table},
        {"failed_lookup_taken_for_success", false, [] { return mailAuthRemove("a", "ex.com"); },
         no_table},
        {"store_failure_unreported", false, [] { return mailAuthSet("a", "ex.com", "p", 0); },
         no_table + "No such domain 'ex.com' in the mail authentication DB\n"},
        {"clone_failure_unreported", false, [] { return mailAuthClone("a", "ex.com", "a", "b.com"); },
         "Unable to prepare SQL statement for query 'SELECT id, status FROM domains WHERE name=?':"
         " no such table: domains\nUnable to get users list from MTA password database\n"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(unlink(db_.c_str()), 0);
        if (!c.missing)
            testsupport::spit(db_, "");
        const auto r = runInChild([&] { return c.call() == -1 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want_log) << c.fault;
        EXPECT_EQ(access(db_.c_str(), F_OK) == 0, !c.missing) << c.fault;
        if (c.missing)
            testsupport::spit(db_, "");
    }
}

TEST_F(AuthRecords, ReadOnlyWalks)
{
    ASSERT_EQ(mailAuthSet("a", "ex.com", "p", 0), 0);
    ASSERT_EQ(mailAuthSet("b", "ex.com", "$1$h", 3), 0);
    ASSERT_EQ(mailAuthSet("a", "dis.com", "q", 4), 0);
    ASSERT_EQ(query(db_, "INSERT INTO users (dom_id, name) VALUES (1, 'nopw')"), "");
    const auto collect = [](const char *address, const char *password, int flags, void *data) {
        *static_cast<std::string *>(data) +=
            std::string(address) + " " + password + " " + std::to_string(flags) + "\n";
    };
    const std::string nopw = "empty password properties (both plain and encrypted) for user nopw@ex.com, skipped\n";
    const struct {
        const char *fault;
        std::function<int(mailAuthCallback, void *)> call;
        int rc;
        const char *want_rows;
        std::string want_log;
    } cases[] = {
        {"order_or_flags_wrong", mailAuthIterateAll, 0,
         "a@dis.com q 4\na@ex.com p 0\nb@ex.com $1$h 3\n", nopw},
        {"short_check_not_filtered_by_name",
         [](mailAuthCallback cb, void *d) { return mailAuthCheckShort("b", cb, d); }, 0,
         "b@ex.com $1$h 3\n", ""},
        {"check_takes_plain_over_encrypted",
         [](mailAuthCallback cb, void *d) { return mailAuthCheck("b@ex.com", cb, d); }, 0,
         "b@ex.com $1$h 3\n", ""},
        {"check_of_unknown_user_succeeds",
         [](mailAuthCallback cb, void *d) { return mailAuthCheck("b@dis.com", cb, d); }, -1, "",
         "No such user 'b@dis.com' in mail authorization database\n"},
        {"address_without_domain_accepted",
         [](mailAuthCallback cb, void *d) { return mailAuthCheck("b@", cb, d); }, -1, "",
         "Invalid mail address 'b@'\n"},
        {"user_without_password_handed_over",
         [](mailAuthCallback cb, void *d) { return mailAuthCheck("nopw@ex.com", cb, d); }, -1, "",
         "NULL password fields (noth plain and encrypted) for user nopw@ex.com, skipped\n"},
    };
    for (const auto &c : cases) {
        // The rows follow the log lines on standard output.
        const auto r = runInChild([&] {
            std::string rows;
            const int rc = c.call(collect, &rows);
            std::fputs(rows.c_str(), stdout);
            return rc & 0xff;
        });
        EXPECT_EQ(r.status, c.rc & 0xff) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want_log) << c.fault;
        EXPECT_EQ(r.out, c.want_log + c.want_rows) << c.fault;
    }
}

TEST_F(AuthRecords, BusyDatabaseIsWaitedFor)
{
    ASSERT_EQ(mailAuthSet("a", "ex.com", "p", 0), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const std::string path = db_;
    testsupport::BackgroundChild holder([&] {
        sqlite3 *db = nullptr;
        sqlite3_open(path.c_str(), &db);
        sqlite3_busy_timeout(db, 10000);
        if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
            return 1;
        if (write(ready[1], "x", 1) != 1)
            return 2;
        usleep(200000);
        const int rc = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return rc == SQLITE_OK ? 0 : 3;
    });
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);

    const auto start = std::chrono::steady_clock::now();
    const int set = mailAuthSet("b", "ex.com", "q", 0);
    const int disabled = mailAuthDisableDomain("ex.com");
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - start)
                            .count();
    EXPECT_EQ(set, 0) << "a busy database failed the store";
    EXPECT_EQ(disabled, 0);
    EXPECT_GE(waited, 150) << "ms: the lock was not held";
    EXPECT_EQ(holder.wait(), "exit 0");
    EXPECT_EQ(dump(db_), "d ex.com 1\nu 1 a@ex.com p - 0\nu 2 b@ex.com q - 0\n");
}

TEST(AuthEnvironment, PasswordFromEnvironment)
{
    const struct {
        const char *fault;
        const char *plain, *crypted; // null: unset
        int rc;
        const char *want;
        int kind;
        const char *plain_left, *crypted_left;
    } cases[] = {
        {"crypted_preferred_or_both_removed", "pw", "$1$c", 0, "pw", 0, nullptr, "$1$c"},
        {"empty_plain_taken", "", "$1$c", 0, "$1$c", 1, "", nullptr},
        {"missing_password_found", nullptr, "", -1, "", -1, nullptr, ""},
    };
    for (const auto &c : cases) {
        const auto set = [](const char *name, const char *value) {
            value ? setenv(name, value, 1) : unsetenv(name);
        };
        set("ZRN_PASSWORD", c.plain);
        set("ZRN_CRYPTED_PASSWORD", c.crypted);
        const char *password = "";
        int kind = -1;
        EXPECT_EQ(get_env_password(&password, &kind), c.rc) << c.fault;
        EXPECT_STREQ(password, c.want) << c.fault;
        EXPECT_EQ(kind, c.kind) << c.fault;
        const auto left = [](const char *name) {
            const char *v = std::getenv(name);
            return std::string(v ? v : "(unset)");
        };
        EXPECT_EQ(left("ZRN_PASSWORD"), c.plain_left ? c.plain_left : "(unset)") << c.fault;
        EXPECT_EQ(left("ZRN_CRYPTED_PASSWORD"), c.crypted_left ? c.crypted_left : "(unset)")
            << c.fault;
    }
    unsetenv("ZRN_PASSWORD");
    unsetenv("ZRN_CRYPTED_PASSWORD");
}

TEST(AuthEnvironment, BufferedPasswords)
{
    const struct {
        const char *fault;
        const char *plain, *crypted;
        bool encrypted;
        const char *want_source; // the plain text hashed, or the text returned as it is
    } cases[] = {
        {"plain_not_hashed", "secret", nullptr, false, "secret"},
        {"crypted_preferred_over_plain", "secret", "$1$given", false, "secret"},
        {"crypted_hashed_again", nullptr, "$1$given", true, "$1$given"},
        {"nothing_not_hashed_as_empty", nullptr, nullptr, false, ""},
    };
    for (const auto &c : cases) {
        // The buffer is filled once per process, so each case runs in its own child; the
        // second call must repeat the first answer even with a new variable.
        const auto r = runInChild([&] {
            c.plain ? setenv("ZRN_PASSWORD", c.plain, 1) : unsetenv("ZRN_PASSWORD");
            c.crypted ? setenv("ZRN_CRYPTED_PASSWORD", c.crypted, 1) : unsetenv("ZRN_CRYPTED_PASSWORD");
            const std::string first = get_env_crypted_password();
            const bool left = std::getenv("ZRN_PASSWORD") || std::getenv("ZRN_CRYPTED_PASSWORD");
            setenv("ZRN_PASSWORD", "other", 1);
            const std::string again = get_env_crypted_password();
            std::printf("%s\n%s\n%s", left ? "left" : "removed", again == first ? "same" : "changed",
                        first.c_str());
            return 0;
        });
        const std::string head = "removed\nsame\n";
        ASSERT_EQ(r.out.substr(0, head.size()), head) << c.fault << " " << r;
        const std::string got = r.out.substr(head.size());
        if (c.encrypted) {
            EXPECT_EQ(got, c.want_source) << c.fault;
            continue;
        }
        EXPECT_TRUE(got.size() == 34 && got.compare(0, 3, "$1$") == 0 && got[11] == '$')
            << c.fault << ": not an MD5-crypt form with an 8-character salt: " << got;
        const char *check = crypt(c.want_source, got.c_str());
        EXPECT_EQ(std::string(check ? check : "(null)"), got) << c.fault;
    }

    const auto r = runInChild([] {
        setenv("ZRN_PASSWORD", "plain", 1);
        const std::string first = get_env_noncrypted_password();
        setenv("ZRN_PASSWORD", "other", 1);
        std::printf("%s %s", first.c_str(), get_env_noncrypted_password());
        return 0;
    });
    EXPECT_EQ(r.out, "plain plain") << "noncrypted buffer not kept";
}

namespace {

// Panel rows of one domain with two domain aliases and a mailname with a
// mail alias; removed again at the end.
class PanelSeed {
public:
    PanelSeed()
    {
        clear();
        run("INSERT INTO domains (name) VALUES ('authdb-spread.test'), ('authdb-lone.test')");
        run("INSERT INTO domainaliases (dom_id, name) SELECT id, n FROM domains,"
            " (SELECT 'authdb-a1.test' AS n UNION SELECT 'authdb-a2.test') x"
            " WHERE name = 'authdb-spread.test'");
        run("INSERT INTO mail (dom_id, mail_name) SELECT id, 'box' FROM domains"
            " WHERE name = 'authdb-spread.test'");
        run("INSERT INTO mail_aliases (mn_id, alias) SELECT m.id, 'nick' FROM mail m JOIN domains d"
            " ON m.dom_id = d.id WHERE d.name = 'authdb-spread.test'");
    }
    ~PanelSeed() { clear(); }

private:
    void clear()
    {
        run("DELETE ma FROM mail_aliases ma JOIN mail m ON ma.mn_id = m.id JOIN domains d"
            " ON m.dom_id = d.id WHERE d.name LIKE 'authdb-%'");
        run("DELETE m FROM mail m JOIN domains d ON m.dom_id = d.id WHERE d.name LIKE 'authdb-%'");
        run("DELETE FROM domainaliases WHERE name LIKE 'authdb-%'");
        run("DELETE FROM domains WHERE name LIKE 'authdb-%'");
    }
    static void run(const char *sql)
    {
        MYSQL *conn = db_connect();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(mysql_query(conn, sql), 0) << sql << ": " << mysql_error(conn);
        mysql_close(conn);
    }
};

} // namespace

TEST(MailAuthSandboxed, SpreadingFollowsPanelLists)
{
    MAILTEND_REQUIRE_SANDBOX();
    const PanelSeed seed;
    const testsupport::TempDir temp("authspread");
    const std::string db = temp.path() + "/passwd.db";
    mailAuthDBSetPathForTesting(db.c_str());
    ASSERT_EQ(mailAuthDBInit(), 0);

    // Domains as "name status", users as "id mailname@domain" and "p" or "e" for
    // the password column used, with the user status; names without the
    // "authdb-" and ".test" that keep them apart in the shared panel database.
    const auto brief = [&db] {
        const char *name = "replace(replace(d.name, 'authdb-', ''), '.test', '')";
        return query(db, ("SELECT group_concat(n, ', ') FROM (SELECT " + std::string(name) +
                          " || ' ' || d.status AS n FROM domains d ORDER BY d.name)").c_str()) +
               query(db, ("SELECT group_concat(n, ', ') FROM (SELECT u.id || ' ' || u.name || '@' || " +
                          std::string(name) + " || ' ' || IIF(u.cmusaslsecretPLAIN IS NULL, 'p', 'e')"
                          " || u.status AS n FROM users u JOIN domains d ON u.dom_id = d.id"
                          " ORDER BY d.name, u.name)").c_str());
    };
    const char *const D = "authdb-spread.test";
    const struct {
        const char *fault;
        std::function<int()> call;
        int rc;
        std::string want_log;
        const char *want_dump;
    } steps[] = {
        {"aliases_missed_by_mass_password", [&] { return set_mass_postbox_passwd("box", D, "$1$h", 3); },
         1, "",
         "a1 0, a2 0, spread 0\n"
         "2 box@a1 e1, 5 nick@a1 e1, 3 box@a2 e1, 6 nick@a2 e1, 1 box@spread e1, 4 nick@spread e1\n"},
        {"clone_into_new_alias_incomplete", [&] { return add_domain_auth_alias(D, "authdb-a3.test"); },
         1, "",
         "a1 0, a2 0, a3 0, spread 0\n2 box@a1 e1, 5 nick@a1 e1, 3 box@a2 e1, 6 nick@a2 e1, "
         "8 box@a3 e1, 7 nick@a3 e1, 1 box@spread e1, 4 nick@spread e1\n"},
        {"domain_action_skips_aliases",
         [&] { return domain_auth_action(D, mailAuthDisableDomain, "disable auth records"); }, 1, "",
         "a1 1, a2 1, a3 0, spread 1\n2 box@a1 e1, 5 nick@a1 e1, 3 box@a2 e1, 6 nick@a2 e1, "
         "8 box@a3 e1, 7 nick@a3 e1, 1 box@spread e1, 4 nick@spread e1\n"},
        {"alias_removal_incomplete", [] { return rm_domain_auth_alias("authdb-a1.test"); }, 1, "",
         "a2 1, a3 0, spread 1\n3 box@a2 e1, 6 nick@a2 e1, 8 box@a3 e1, 7 nick@a3 e1, "
         "1 box@spread e1, 4 nick@spread e1\n"},
        {"mail_aliases_left_by_removal", [&] { return rm_mails_from_domains("box", D); }, 1, "",
         "a2 1, a3 0, spread 1\n8 box@a3 e1, 7 nick@a3 e1\n"},
        {"empty_alias_list_not_reported_as_0",
         [] { return set_passwd_for_domains("x", "authdb-lone.test", "p", 0); }, 0, "",
         "a2 1, a3 0, lone 0, spread 1\n8 box@a3 e1, 7 nick@a3 e1, 9 x@lone p0\n"},
        {"failed_alias_action_unreported",
         [&] {
             return domain_auth_action(
                 D, [](const char *d) { return std::strcmp(d, "authdb-a2.test") == 0 ? -1 : 0; },
                 "frob");
         },
         -1, "Unable to frob for domain alias authdb-a2.test\n", nullptr},
        {"failed_domain_action_unreported",
         [&] { return domain_auth_action(D, [](const char *) { return -1; }, "frob"); }, -1,
         "Unable to frob for domain authdb-spread.test\n", nullptr},
    };
    for (const auto &s : steps) {
        const auto r = runInChild([&] { return s.call() & 0xff; });
        EXPECT_EQ(r.status, s.rc & 0xff) << s.fault << " " << r;
        EXPECT_EQ(r.err, s.want_log) << s.fault;
        if (s.want_dump != nullptr) {
            EXPECT_EQ(brief(), s.want_dump) << s.fault;
        }
    }
    mailAuthDBSetPathForTesting(nullptr);
}
