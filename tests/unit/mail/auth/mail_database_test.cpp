#include "mail/auth/mail_database.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

using testsupport::runInChild;

namespace {

// Rows of sql on the database at path, one line each with columns joined by
// "|"; an SQL failure gives "error: <text>".
std::string query(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return "error: open";
    }
    std::string out;
    char *err = nullptr;
    const int rc = sqlite3_exec(
        db, sql.c_str(),
        [](void *sink, int n, char **values, char **) {
            std::string &s = *static_cast<std::string *>(sink);
            for (int i = 0; i < n; ++i)
                s += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
            s += "\n";
            return 0;
        },
        &out, &err);
    if (rc != SQLITE_OK)
        out = std::string("error: ") + (err ? err : "?");
    sqlite3_free(err);
    sqlite3_close(db);
    return out;
}

std::string modeOf(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return "missing";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04o %d:%d", static_cast<unsigned>(st.st_mode & 07777),
                  static_cast<int>(st.st_uid), static_cast<int>(st.st_gid));
    return buf;
}

class AuthDbFile : public testing::Test {
protected:
    void SetUp() override { mailAuthDBSetPathForTesting(db_.c_str()); }
    void TearDown() override { mailAuthDBSetPathForTesting(nullptr); }

    const testsupport::TempDir temp_{"authdb"};
    const std::string dir_ = temp_.path() + "/new/auth";
    const std::string db_ = dir_ + "/passwd.db";
};

} // namespace

TEST_F(AuthDbFile, SchemaObjectsAndConstraints)
{
    const struct {
        const char *fault;
        const char *sql;
        const char *want;
    } cases[] = {
        {"schema_object_missing_or_misnamed",
         "SELECT type, name FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' ORDER BY type, name",
         "index|domains_name\nindex|users_dom_id\nindex|users_name\ntable|domains\ntable|users\n"
         "trigger|fkd_users_domains_id\ntrigger|fki_users_domains_id\ntrigger|fku_users_domains_id\n"},
        {"user_columns_wrong",
         "SELECT name, type, \"notnull\", dflt_value FROM pragma_table_info('users')",
         "id|INTEGER|0|NULL\ndom_id|INTEGER|1|NULL\nname|VARCHAR(255)|1|NULL\n"
         "userPassword|VARCHAR(255)|0|NULL\ncmusaslsecretPLAIN|VARCHAR(255)|0|NULL\n"
         "cmusaslsecretCRAM-MD5|VARCHAR(255)|0|NULL\nstatus|INT|1|0\n"},
        {"insert_trigger_lets_orphan_in",
         "INSERT INTO users (dom_id, name) VALUES (7, 'a')",
         "error: insert on table \"users\" violates foreign key constraint \"fk_domains_id\""},
        {"update_trigger_lets_orphan_in",
         "INSERT INTO domains (name) VALUES ('d');INSERT INTO users (dom_id, name) VALUES (1, 'a');"
         "UPDATE users SET dom_id = 2",
         "error: update on table \"users\" violates foreign key constraint \"fk_domains_id\""},
        {"domain_delete_leaves_users",
         "INSERT INTO domains (name) VALUES ('d'), ('e');"
         "INSERT INTO users (dom_id, name) VALUES (1, 'a'), (2, 'b');"
         "DELETE FROM domains WHERE name = 'd';SELECT name, status FROM users",
         "b|0\n"},
        {"domain_name_not_unique", "INSERT INTO domains (name) VALUES ('d'), ('d')",
         "error: UNIQUE constraint failed: domains.name"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([] { return mailAuthDBInit() == 0 ? 0 : 1; });
        ASSERT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.out, "") << c.fault;
        EXPECT_EQ(query(db_, c.sql), c.want) << c.fault;
    }
}

TEST_F(AuthDbFile, InitReplacesWhateverWasThere)
{
    ASSERT_EQ(mkdir(dir_.substr(0, dir_.rfind('/')).c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir_.c_str(), 0755), 0);
    testsupport::spit(db_, "not a database");
    ASSERT_EQ(mailAuthDBInit(), 0);
    ASSERT_EQ(query(db_, "INSERT INTO domains (name) VALUES ('d');SELECT count(*) FROM domains"), "1\n");
    ASSERT_EQ(mailAuthDBInit(), 0);
    EXPECT_EQ(query(db_, "SELECT count(*) FROM domains"), "0\n") << "rows survived re-creation";
}

TEST_F(AuthDbFile, InitFailuresAreReported)
{
    const std::string file = temp_.path() + "/plain";
    const std::string subdir = temp_.path() + "/sub";
    testsupport::spit(file, "x");
    ASSERT_EQ(mkdir(subdir.c_str(), 0755), 0);
    const struct {
        const char *fault;
        std::string path;
        std::string want;
    } cases[] = {
        {"file_in_directory_chain_accepted", file + "/passwd.db",
         "recursive mkdir(" + file + ") failed: Not a directory\n"},
        {"open_failure_unreported", subdir,
         "Unable to open database " + subdir + ": unable to open database file\n"},
    };
    for (const auto &c : cases) {
        mailAuthDBSetPathForTesting(c.path.c_str());
        const auto r = runInChild([] { return mailAuthDBInit() == -1 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want) << c.fault;
        EXPECT_EQ(r.out, c.want) << c.fault;
    }
}

TEST_F(AuthDbFile, SetAccess)
{
    ASSERT_EQ(mailAuthDBInit(), 0);
    const int uid = static_cast<int>(getuid()), gid = static_cast<int>(getgid());
    const std::string ids = " " + std::to_string(uid) + ":" + std::to_string(gid);
    const struct {
        const char *fault;
        std::string path;
        int rc;
        std::string want_log;
    } cases[] = {
        {"modes_not_applied", db_, 0, ""},
        {"root_directory_accepted", "/passwd.db", -1,
         "Invalid mail authentication DB path /passwd.db\n"},
        {"relative_path_accepted", "passwd.db", -1, "Invalid mail authentication DB path passwd.db\n"},
        {"missing_file_unreported", dir_ + "/other.db", -1,
         "chown(\"" + dir_ + "/other.db\", " + std::to_string(uid) + ", " + std::to_string(gid) +
             ") failed: No such file or directory\n"},
    };
    for (const auto &c : cases) {
        mailAuthDBSetPathForTesting(c.path.c_str());
        const auto r = runInChild([] {
            return mailAuthDBSetAccess(getuid(), getgid(), 0711, 0640) == 0 ? 0 : 1;
        });
        EXPECT_EQ(r.status, c.rc == 0 ? 0 : 1) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want_log) << c.fault;
    }
    EXPECT_EQ(modeOf(dir_), "0711" + ids);
    EXPECT_EQ(modeOf(db_), "0640" + ids);
}

class AuthDbDetect : public testing::Test {
protected:
    void SetUp() override
    {
        testsupport::spit(conf_, "PRODUCT_ROOT_D " + temp_.path() + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
        ASSERT_EQ(mkdir((temp_.path() + "/admin").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((temp_.path() + "/admin/sbin").c_str(), 0755), 0);
        testsupport::spit(program_, "#!/bin/sh\n[ \"$1\" = --features ] || exit 1\ncat '" +
                                        temp_.path() + "/report'\n");
        ASSERT_EQ(chmod(program_.c_str(), 0755), 0);
    }
    void TearDown() override { zrn_conf_set_path_for_testing(nullptr); }

    const testsupport::TempDir temp_{"authdb-detect"};
    const std::string conf_ = temp_.path() + "/zrn.conf";
    const std::string program_ = temp_.path() + "/admin/sbin/mailtend";
};

TEST_F(AuthDbDetect, StyleFromFeatureReport)
{
    const std::string none = "Unable to determine mail server type from ``mailtend --features''\n";
    const struct {
        const char *fault;
        const char *report;
        int want;
        std::string want_log;
    } cases[] = {
        {"own_report_not_postfix",
         "$features['Mail_Forward'] = true;\n$features['SMTP_Server'] = \"Postfix\";\n"
         "$features['Mail_Send'] = true;\n",
         1, ""},
        {"value_compared_case_sensitively", "$features['SMTP_Server'] = \"QMAIL\";\n", 0, ""},
        {"leading_part_not_matched", "$features['SMTP_Server'] = 'post';\n", 1, ""},
        {"longer_word_matched", "$features['SMTP_Server'] = 'postfixes';\n", -1,
         "Unknown server style \"postfixes\", skipped\n" + none},
        {"empty_value_matched", "$features['SMTP_Server'] = '';\n", -1,
         "Unknown server style \"\", skipped\n" + none},
        {"closing_quote_must_match_opening", "$features['SMTP_Server'] = 'qmail\";\n", 0, ""},
        {"unquoted_value_accepted", "$features['SMTP_Server'] = Postfix;\n", -1,
         "Unparseable line \"$features['SMTP_Server'] = Postfix;\", skipped\n" + none},
        {"unclosed_quote_accepted", "$features['SMTP_Server'] = \"Postfix;\n", -1,
         "Unparseable line \"$features['SMTP_Server'] = \"Postfix;\", skipped\n" + none},
        {"unknown_style_stops_reading",
         "$features['SMTP_Server'] = 'Exim';\n$features['SMTP_Server'] = 'qmail';\n", 0,
         "Unknown server style \"Exim\", skipped\n"},
        {"reading_goes_on_after_match",
         "$features['SMTP_Server'] = \"Postfix\";\n$features['SMTP_Server'] = 'Exim';\n", 1, ""},
        {"longer_key_taken_for_prefix", "$features['SMTP_Server_package'] = \"qmail\";\n", -1, none},
        {"empty_report_gives_style", "", -1, none},
    };
    for (const auto &c : cases) {
        testsupport::spit(temp_.path() + "/report", c.report);
        const auto r = runInChild([] { return mailAuthDBDetectStyle() + 1; });
        EXPECT_EQ(r.status - 1, c.want) << c.fault << " " << r;
        EXPECT_EQ(r.err, c.want_log) << c.fault;
        EXPECT_EQ(r.out, c.want_log) << c.fault;
    }
}

TEST_F(AuthDbDetect, OverlongRootIsRefused)
{
    const std::string root(4100, 'r');
    testsupport::spit(conf_, "PRODUCT_ROOT_D /" + root + "\n");
    zrn_conf_set_path_for_testing(conf_.c_str());
    const auto r = runInChild([] { return mailAuthDBDetectStyle() + 1; });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.err, "path to mailtend is too long, check PRODUCT_ROOT_D (/" + root + ")\n");
}

TEST(MailAuthSandboxed, InitStyleOwnership)
{
    MAILTEND_REQUIRE_SANDBOX();
    const struct passwd *pw = getpwnam("postfix");
    ASSERT_NE(pw, nullptr);
    const std::string postfix = std::to_string(pw->pw_uid) + ":0";
    const struct {
        const char *fault;
        int style;
        const char *dir;
        std::string want_dir, want_file;
    } cases[] = {
        {"postfix_style_access_wrong", 1, "/var/spool/postfix/zarnet", "0770 " + postfix,
         "0460 " + postfix},
        {"qmail_style_access_wrong", 0, "/var/lib/zarnet/mail/auth", "0750 0:0", "0600 0:0"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return mailAuthDBInitStyle(c.style) == 0 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(modeOf(c.dir), c.want_dir) << c.fault;
        EXPECT_EQ(modeOf(std::string(c.dir) + "/passwd.db"), c.want_file) << c.fault;
        EXPECT_EQ(query(std::string(c.dir) + "/passwd.db", "SELECT count(*) FROM users"), "0\n")
            << c.fault;
    }
}
