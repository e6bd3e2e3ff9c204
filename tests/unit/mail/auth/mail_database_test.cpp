#include "mail/auth/mail_database.h"

#include "mail/auth/auth_db.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

using authtest::rows;
using AuthDbFile = authtest::AuthDb;
using testsupport::runInChild;

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

// Each case on a database made anew; the tables the login service reads
// the rig proves.
TEST_F(AuthDbFile, SchemaFromScratch)
{
    const struct {
        const char *fault, *sql, *want;
    } cases[] = {
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
        {"foreign_file_kept", nullptr, "0\n"},
    };
    for (const auto &c : cases) {
        if (c.sql == nullptr)
            testsupport::spit(db_, "not a database");
        const auto r = runInChild([] { return mailAuthDBInit() == 0 ? 0 : 1; });
        ASSERT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.out + rows(db_, c.sql ? c.sql : "SELECT count(*) FROM domains"), c.want) << c.fault;
    }
}

TEST_F(AuthDbFile, InitAndAccessFailuresAreReported)
{
    const std::string file = temp_.path() + "/plain", uid = std::to_string(getuid()), gid = std::to_string(getgid());
    testsupport::spit(file, "x");
    const auto on = [](std::string path, std::function<int()> call) {
        return [=] { return mailAuthDBSetPathForTesting(path.c_str()), call(); };
    };
    const auto access = [] { return mailAuthDBSetAccess(getuid(), getgid(), 0711, 0640); };
    check({
        {"file_in_directory_chain_accepted", on(file + "/passwd.db", mailAuthDBInit), -1,
         "recursive mkdir(" + file + ") failed: Not a directory\n", nullptr},
        {"open_failure_unreported", on(dir_, mailAuthDBInit), -1,
         "Unable to open database " + dir_ + ": unable to open database file\n", nullptr},
        {"modes_not_applied", access, 0, "", nullptr},
        {"root_directory_accepted", on("/passwd.db", access), -1, "Invalid mail authentication DB path /passwd.db\n",
         nullptr},
        {"missing_file_unreported", on(dir_ + "/x.db", access), -1,
         "chown(\"" + dir_ + "/x.db\", " + uid + ", " + gid + ") failed: No such file or directory\n", nullptr},
    }, false);
    EXPECT_EQ(modeOf(dir_) + " " + modeOf(db_), "0711 " + uid + ":" + gid + " 0640 " + uid + ":" + gid);
}

TEST(MailAuthSandboxed, InitStyleOwnership)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string postfix = " " + std::to_string(getpwnam("postfix")->pw_uid) + ":0";
    for (const auto &c : {std::make_pair(1, "/var/spool/postfix/zarnet 0770" + postfix + " 0460" + postfix),
                          std::make_pair(0, std::string("/var/lib/zarnet/mail/auth 0750 0:0 0600 0:0"))}) {
        const std::string dir = c.second.substr(0, c.second.find(' '));
        const auto r = runInChild([&] { return mailAuthDBInitStyle(c.first) == 0 ? 0 : 1; });
        EXPECT_EQ(dir + " " + modeOf(dir) + " " + modeOf(dir + "/passwd.db"), c.second) << r;
    }
}
