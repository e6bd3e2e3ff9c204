// Shared by the authentication database tests: a database path of the test's
// own, and rows of a database file as text.
#ifndef MAILTEND_TESTS_MAIL_AUTH_AUTH_DB_H
#define MAILTEND_TESTS_MAIL_AUTH_AUTH_DB_H

#include "mail/auth/mail_database.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

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

class AuthDb : public testing::Test {
protected:
    void SetUp() override { mailAuthDBSetPathForTesting(db_.c_str()); }
    void TearDown() override { mailAuthDBSetPathForTesting(nullptr); }

    const testsupport::TempDir temp_{"authdb"};
    const std::string dir_ = temp_.path() + "/new/auth", db_ = dir_ + "/passwd.db";
};

} // namespace authtest

#endif
