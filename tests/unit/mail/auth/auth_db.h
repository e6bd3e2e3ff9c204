// Shared by the authentication database tests: a database path of the test's
// own, its rows as text, and case tables run in children.
#ifndef MAILTEND_TESTS_MAIL_AUTH_AUTH_DB_H
#define MAILTEND_TESTS_MAIL_AUTH_AUTH_DB_H

#include "mail/auth/mail_database.h"
#include "support/child_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

namespace authtest {

// One line per row, columns joined by "|", then "error: <text>" when a
// statement fails; "error: open" for a missing file (which is not created).
inline std::string rows(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    std::string out = "error: open\n";
    char *err = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        out.clear();
        const auto row = [](void *sink, int n, char **values, char **) {
            for (int i = 0; i < n; ++i)
                *static_cast<std::string *>(sink) += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
            *static_cast<std::string *>(sink) += "\n";
            return 0;
        };
        if (sqlite3_exec(db, sql.c_str(), row, &out, &err) != SQLITE_OK)
            out += std::string("error: ") + (err ? err : "?");
    }
    sqlite3_free(err);
    sqlite3_close(db);
    return out;
}

// "name status" of the domains, then "id name@domain plain/encrypted status"
// of the users, a line for each table.
inline std::string dump(const std::string &db)
{
    return rows(db, "SELECT IFNULL(group_concat(n, ', '), '') FROM (SELECT name || ' ' || status AS n"
                    " FROM domains ORDER BY name)") +
           rows(db, "SELECT IFNULL(group_concat(n, ', '), '') FROM (SELECT u.id || ' ' || u.name || '@' || d.name"
                    " || ' ' || IFNULL(u.userPassword, '') || '/' || IFNULL(u.cmusaslsecretPLAIN, '') || ' ' ||"
                    " u.status AS n FROM users u JOIN domains d ON u.dom_id = d.id ORDER BY d.name, u.name)");
}

// The results of calls made in order, or'ed.
inline int ored(std::initializer_list<int> results)
{
    return std::accumulate(results.begin(), results.end(), 0, std::bit_or<int>());
}

struct Case {
    const char *fault;
    std::function<int()> call; // runs in a child, whose standard error is the log
    int rc;
    std::string log;
    const char *rows; // the dump's first lines afterwards; null: not compared
};

class AuthDb : public testing::Test {
protected:
    void SetUp() override { mailAuthDBSetPathForTesting(db_.c_str()); }
    void TearDown() override { mailAuthDBSetPathForTesting(nullptr); }
    // fresh: every case starts from an empty database.
    void check(const std::vector<Case> &cases, bool fresh)
    {
        ASSERT_EQ(mailAuthDBInit(), 0);
        for (const auto &c : cases) {
            ASSERT_EQ(fresh ? mailAuthDBInit() : 0, 0);
            const auto r = testsupport::runInChild([&] { return c.call() & 0xff; });
            EXPECT_EQ(std::to_string(r.status) + " " + r.err, std::to_string(c.rc & 0xff) + " " + c.log) << c.fault;
            EXPECT_EQ(c.rows ? dump(db_).substr(0, std::strlen(c.rows)) : "", c.rows ? c.rows : "") << c.fault;
        }
    }

    const testsupport::TempDir temp_{"authdb"};
    const std::string dir_ = temp_.path() + "/new/auth", db_ = dir_ + "/passwd.db";
};

} // namespace authtest

#endif
