#include "mail/auth/mail_database.h"

#include "mail/auth/auth_db.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

using authtest::rows;
using testsupport::runInChild;
using AuthDbFile = authtest::AuthDb;

namespace {

std::string modeOf(const std::string &path)
{
    struct stat st;
    char buf[32] = "missing";
    if (stat(path.c_str(), &st) == 0)
        std::snprintf(buf, sizeof buf, "%04o %d:%d", static_cast<unsigned>(st.st_mode & 07777),
                      static_cast<int>(st.st_uid), static_cast<int>(st.st_gid));
    return buf;
}

} // namespace

TEST_F(AuthDbFile, SchemaFromScratch)
{
    const struct {
        const char *fault, *sql, *want;
    } cases[] = {
        {"schema_object_or_user_column_missing_or_misnamed",
         "SELECT type, name FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' ORDER BY type, name;"
         "SELECT name, type, \"notnull\", dflt_value FROM pragma_table_info('users')",
         "index|domains_name\nindex|users_dom_id\nindex|users_name\ntable|domains\ntable|users\n"
         "trigger|fkd_users_domains_id\ntrigger|fki_users_domains_id\ntrigger|fku_users_domains_id\n"
         "id|INTEGER|0|NULL\ndom_id|INTEGER|1|NULL\nname|VARCHAR(255)|1|NULL\nuserPassword|VARCHAR(255)|0|NULL\n"
         "cmusaslsecretPLAIN|VARCHAR(255)|0|NULL\ncmusaslsecretCRAM-MD5|VARCHAR(255)|0|NULL\nstatus|INT|1|0\n"},
        {"insert_trigger_lets_orphan_in", "INSERT INTO users (dom_id, name) VALUES (7, 'a')",
         "error: insert on table \"users\" violates foreign key constraint \"fk_domains_id\""},
        {"update_trigger_lets_orphan_in",
         "INSERT INTO domains (name) VALUES ('d');INSERT INTO users (dom_id, name) VALUES (1, 'a');"
         "UPDATE users SET dom_id = 2",
         "error: update on table \"users\" violates foreign key constraint \"fk_domains_id\""},
        // The case before left a row of d, which must not survive re-creation.
        {"rows_survive_or_domain_delete_leaves_users_or_name_not_unique",
         "INSERT INTO domains (name) VALUES ('d'), ('e');INSERT INTO users (dom_id, name) VALUES (1, 'a'),"
         " (2, 'b');DELETE FROM domains WHERE name = 'd';SELECT name, status FROM users;"
         "INSERT INTO domains (name) VALUES ('e')",
         "b|0\nerror: UNIQUE constraint failed: domains.name"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([] { return mailAuthDBInit() == 0 ? 0 : 1; });
        ASSERT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.out, "") << c.fault;
        EXPECT_EQ(rows(db_, c.sql), c.want) << c.fault;
    }
    testsupport::spit(db_, "not a database");
    ASSERT_EQ(mailAuthDBInit(), 0);
    EXPECT_EQ(rows(db_, "SELECT count(*) FROM domains"), "0\n") << "a foreign file kept";
}

TEST_F(AuthDbFile, InitAndAccessFailuresAreReported)
{
    ASSERT_EQ(mailAuthDBInit(), 0);
    const std::string file = temp_.path() + "/plain", uid = std::to_string(getuid()), gid = std::to_string(getgid());
    testsupport::spit(file, "x");
    const auto init = [] { return mailAuthDBInit(); };
    const auto access = [] { return mailAuthDBSetAccess(getuid(), getgid(), 0711, 0640); };
    const struct {
        const char *fault;
        std::string path;
        std::function<int()> call;
        std::string want;
    } cases[] = {
        {"file_in_directory_chain_accepted", file + "/passwd.db", init,
         "recursive mkdir(" + file + ") failed: Not a directory\n"},
        {"open_failure_unreported", dir_, init, "Unable to open database " + dir_ + ": unable to open database file\n"},
        {"modes_not_applied", db_, access, ""},
        {"root_directory_accepted", "/passwd.db", access, "Invalid mail authentication DB path /passwd.db\n"},
        {"relative_path_accepted", "passwd.db", access, "Invalid mail authentication DB path passwd.db\n"},
        {"missing_file_unreported", dir_ + "/x.db", access,
         "chown(\"" + dir_ + "/x.db\", " + uid + ", " + gid + ") failed: No such file or directory\n"},
    };
    for (const auto &c : cases) {
        mailAuthDBSetPathForTesting(c.path.c_str());
        const auto r = runInChild([&] { return c.call() == (c.want.empty() ? 0 : -1) ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want) << c.fault;
        EXPECT_EQ(r.out, c.want) << c.fault;
    }
    EXPECT_EQ(modeOf(dir_) + " " + modeOf(db_), "0711 " + uid + ":" + gid + " 0640 " + uid + ":" + gid);
}

TEST_F(AuthDbFile, StyleFromFeatureReport)
{
    const std::string conf = temp_.path() + "/zrn.conf", program = temp_.path() + "/admin/sbin/mailtend";
    std::filesystem::create_directories(temp_.path() + "/admin/sbin");
    testsupport::spit(program, "#!/bin/sh\n[ \"$1\" = --features ] && cat '" + temp_.path() + "/report'\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    zrn_conf_set_path_for_testing(conf.c_str());
    const std::string none = "Unable to determine mail server type from ``mailtend --features''\n";
    const std::string key = "$features['SMTP_Server'] = ", root = temp_.path(), overlong = "/" + std::string(4100, 'r');
    const struct {
        const char *fault;
        std::string report;
        int want;
        std::string log, root;
    } cases[] = {
        // Lines not naming a style are skipped, with a report when they
        // carry the key; the first leading part of a style's name counts.
        {"line_skipped_wrongly_or_first_match_not_taken",
         "$features['Mail_Forward'] = true;\n$features['SMTP_Server_package'] = \"qmail\";\n" + key + "Postfix;\n" +
             key + "\"Postfix;\n" + key + "'postfixes';\n" + key + "'';\n" + key + "'post';\n" + key + "'qmail';\n",
         1,
         "Unparseable line \"" + key + "Postfix;\", skipped\nUnparseable line \"" + key + "\"Postfix;\", skipped\n"
         "Unknown server style \"postfixes\", skipped\nUnknown server style \"\", skipped\n", root},
        {"value_compared_case_sensitively_or_quotes_paired", key + "'QMAIL\";\n", 0, "", root},
        {"empty_report_gives_style", "", -1, none, root},
        {"overlong_root_accepted", key + "\"Postfix\";\n", -1,
         "path to mailtend is too long, check PRODUCT_ROOT_D (" + overlong + ")\n", overlong},
    };
    for (const auto &c : cases) {
        testsupport::spit(conf, "PRODUCT_ROOT_D " + c.root + "\n");
        testsupport::spit(temp_.path() + "/report", c.report);
        const auto r = runInChild([] { return mailAuthDBDetectStyle() + 1; });
        EXPECT_EQ(r.status - 1, c.want) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.log) << c.fault;
        EXPECT_EQ(r.out, c.log) << c.fault;
    }
    zrn_conf_set_path_for_testing(nullptr);
}

TEST(MailAuthSandboxed, InitStyleOwnership)
{
    MAILTEND_REQUIRE_SANDBOX();
    const struct passwd *pw = getpwnam("postfix");
    ASSERT_NE(pw, nullptr);
    const std::string postfix = " " + std::to_string(pw->pw_uid) + ":0";
    const struct {
        const char *fault;
        int style;
        std::string dir, want;
    } cases[] = {
        {"postfix_style_access_wrong", 1, "/var/spool/postfix/zarnet", "0770" + postfix + " 0460" + postfix},
        {"qmail_style_access_wrong", 0, "/var/lib/zarnet/mail/auth", "0750 0:0 0600 0:0"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return mailAuthDBInitStyle(c.style) == 0 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(modeOf(c.dir) + " " + modeOf(c.dir + "/passwd.db"), c.want) << c.fault;
        EXPECT_EQ(rows(c.dir + "/passwd.db", "SELECT count(*) FROM users"), "0\n") << c.fault;
    }
}
