#include "utils/cpp_mysql.h"
#include "utils/dbconnect.h"

#include "support/files.h"
#include "support/sandboxed.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

using zarnet::mysql::Connection;
using zarnet::mysql::Field;
using zarnet::mysql::mError;
using zarnet::mysql::Query;
using zarnet::mysql::Result;

namespace {

const char *const shadow = "/etc/zrn/.zrn.shadow";

// "mError: WHAT", "bad_lexical_cast", "nothing" or "other: WHAT".
std::string caught(const std::function<void()> &fn)
{
    try {
        fn();
    } catch (const mError &e) {
        return std::string("mError: ") + e.what();
    } catch (const boost::bad_lexical_cast &) {
        return "bad_lexical_cast";
    } catch (const std::exception &e) {
        return std::string("other: ") + e.what();
    }
    return "nothing";
}

// Replaces the administrator's password file for one test (null content:
// no file at all) and puts the original back.
class ShadowSwap {
public:
    explicit ShadowSwap(const char *content)
    {
        if (std::rename(shadow, backup_.c_str()) != 0)
            throw std::runtime_error("cannot move the password file aside");
        if (content != nullptr)
            testsupport::spit(shadow, content);
    }
    ~ShadowSwap()
    {
        std::remove(shadow);
        std::rename(backup_.c_str(), shadow);
    }
    ShadowSwap(const ShadowSwap &) = delete;
    ShadowSwap &operator=(const ShadowSwap &) = delete;

    static std::string password()
    {
        std::string s = testsupport::slurp(shadow);
        return s.substr(0, s.find('\n'));
    }

private:
    const std::string backup_ = std::string(shadow) + ".cpp-mysql-test";
};

} // namespace

TEST(CppMysql, EscapeNameDoublesEveryBackquote)
{
    const struct {
        const char *fault;
        std::string text;
        unsigned long length; // 0: the C-string length
        std::string want;
    } cases[] = {
        {"plain_text_changed", "mail_aliases", 0, "mail_aliases"},
        {"single_backquote_not_doubled", "a`b", 0, "a``b"},
        {"adjacent_backquotes_collapsed", "``x`", 0, "````x``"},
        {"explicit_length_ignored", "a`bc`", 3, "a``b"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Connection::escape_name(c.text.data(), c.length), c.want) << c.fault;
}

TEST(CppMysql, InsertionsWithoutServer)
{
    const struct {
        const char *fault;
        std::function<void(Connection &)> build;
        std::string want;
    } cases[] = {
        {"name_mode_not_applied_or_sticky",
         [](Connection &c) { c << "SELECT `" << zarnet::mysql::name << "a`b" << "` `x`"; },
         "SELECT `a``b` `x`"},
        {"number_does_not_reset_mode",
         [](Connection &c) { c << zarnet::mysql::name << 5 << "`"; }, "5`"},
        {"numbers_misformatted",
         [](Connection &c) { c << -12 << " " << 1.5 << " " << 18446744073709551615ULL; },
         "-12 1.500000 18446744073709551615"},
        {"std_string_cut_at_nul",
         [](Connection &c) { c << std::string("a\0b", 3); }, std::string("a\0b", 3)},
        {"raw_manipulator_ignored",
         [](Connection &c) { c << zarnet::mysql::name << zarnet::mysql::raw << "``"; }, "``"},
    };
    for (const auto &c : cases) {
        Connection conn(false);
        c.build(conn);
        EXPECT_EQ(conn.queryText(), c.want) << c.fault;
    }
}

TEST(CppMysql, ErrorFromHandle)
{
    MYSQL *fresh = mysql_init(nullptr);
    ASSERT_NE(fresh, nullptr);
    EXPECT_STREQ(mError(fresh, " executing query: X").what(), "Unknown error\n")
        << "no error number must not be reported as an error";

    // A socket that cannot exist gives a client error without any server.
    MYSQL *got = mysql_real_connect(fresh, "localhost", "u", "p", "zrn", 0,
                                    "/nonexistent-dir/mysqld.sock", 0);
    ASSERT_EQ(got, nullptr);
    const std::string want = "MySQL error " + std::to_string(mysql_errno(fresh)) + ": " +
                             mysql_error(fresh) + " executing query: SELECT 1";
    EXPECT_EQ(mError(fresh, " executing query: SELECT 1").what(), want);
    mysql_close(fresh);
}

TEST(CppMysql, FieldConversionFailures)
{
    const struct {
        const char *fault;
        Field field;
    } cases[] = {
        {"short_overflow_wrapped", Field("70000", 5)},
        {"trailing_garbage_accepted", Field("12x", 3)},
        {"null_read_as_zero", Field(nullptr, 0)},
    };
    for (const auto &c : cases)
        EXPECT_EQ(caught([&] { (void)static_cast<short>(c.field); }), "bad_lexical_cast")
            << c.fault;
    EXPECT_FALSE(Field("", 0).isNull()) << "empty string read as NULL";
}

TEST(CppMysqlSandboxed, ValueModeRoundTrip)
{
    MAILTEND_REQUIRE_SANDBOX();
    {
        Connection conn(true);
        conn << zarnet::mysql::value << "it's" << "'";
        EXPECT_EQ(conn.queryText(), "it\\'s'") << "value mode must escape once, then be raw";
    }

    const char *values[] = {"it's", "back\\slash", "both ' and \\ and \"", "\\'", ""};
    for (const char *v : values) {
        Connection c(true);
        c << "DELETE FROM misc WHERE param='cpp-mysql-rt'" << Query::exec;
        c << "INSERT INTO misc (param, val) VALUES ('cpp-mysql-rt', '" << zarnet::mysql::value
          << v << "')" << Query::exec;
        Result r = c << "SELECT val FROM misc WHERE val='" << zarnet::mysql::value
                     << std::string(v) << "' AND param='cpp-mysql-rt'" << Query::fetch;
        Result::row_t row;
        ASSERT_TRUE(r.fetch(&row)) << "value not found again: " << v;
        EXPECT_EQ(row["val"].str(), v);
        c << "DELETE FROM misc WHERE param='cpp-mysql-rt'" << Query::exec;
    }
}

TEST(CppMysqlSandboxed, ExecAndFetch)
{
    MAILTEND_REQUIRE_SANDBOX();
    Connection conn(false);
    const struct {
        const char *fault;
        std::function<std::string()> run;
        std::string want;
    } cases[] = {
        {"rows_lost_or_misread",
         [&] {
             Result r = conn << "SELECT 1 AS n UNION ALL SELECT 2" << Query::fetch;
             Result::row_t row;
             std::string got = std::to_string(r.rowCount()) + ":";
             while (r.fetch(&row))
                 got += row["n"].str() + ",";
             return got;
         },
         "2:1,2,"},
        {"null_and_numbers_misread",
         [&] {
             Result r = conn << "SELECT NULL AS z, -32768 AS s, 2147483647 AS i, "
                                "-9223372036854775807 AS ll, 'x' AS t"
                             << Query::fetch;
             Result::row_t row;
             if (!r.fetch(&row))
                 return std::string("no row");
             return std::to_string(row["z"].isNull()) + " " +
                    std::to_string(static_cast<short>(row["s"])) + " " +
                    std::to_string(static_cast<int>(row["i"])) + " " +
                    std::to_string(static_cast<long>(row["i"])) + " " +
                    std::to_string(static_cast<long long>(row["ll"])) + " " +
                    std::string(row["t"]);
         },
         "1 -32768 2147483647 2147483647 -9223372036854775807 x"},
        {"missing_field_not_reported",
         [&] {
             Result r = conn << "SELECT 1 AS val" << Query::fetch;
             Result::row_t row;
             r.fetch(&row);
             return caught([&] { (void)row["nope"]; });
         },
         "mError: No field named nope in result set"},
        {"duplicate_column_accepted",
         [&] {
             Result r = conn << "SELECT 1 AS a, 2 AS a" << Query::fetch;
             Result::row_t row;
             return caught([&] { r.fetch(&row); });
         },
         "mError: duplicated field a in query"},
        {"fetch_of_statement_without_rows_crashes",
         [&] { return caught([&] { Result r = conn << "DO 1" << Query::fetch; }); },
         "mError: Unknown error\n"},
        {"buffer_kept_after_failure",
         [&] {
             const std::string first = caught([&] { conn << "SELEC 1" << Query::exec; });
             Result r = conn << "SELECT 'ok' AS k" << Query::fetch;
             Result::row_t row;
             r.fetch(&row);
             return first.substr(0, 25) + "|" +
                    first.substr(first.size() - std::string(" executing query: SELEC 1").size()) +
                    "|" + row["k"].str();
         },
         "mError: MySQL error 1064:| executing query: SELEC 1|ok"},
        {"exec_of_select_leaves_handle_out_of_sync",
         [&] {
             conn << "SELECT 1" << Query::exec;
             Result r = conn << "SELECT 'next' AS k" << Query::fetch;
             Result::row_t row;
             r.fetch(&row);
             return row["k"].str();
         },
         "next"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.run(), c.want) << c.fault;
}

TEST(CppMysqlSandboxed, PasswordFile)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string pw = ShadowSwap::password();
    ASSERT_FALSE(pw.empty());
    const struct {
        const char *fault;
        bool missing;
        std::string content;
        std::string want; // "" : connects
    } cases[] = {
        {"line_feed_kept_in_password", false, pw + "\n", ""},
        {"last_character_dropped_without_line_feed", false, pw, ""},
        {"second_line_read", false, pw + "\nsomething else\n", ""},
        {"missing_file_not_reported", true, "",
         "Unable to open admin password file: No such file or directory"},
        {"empty_file_accepted", false, "", "Unable to read admin password file: the file is empty"},
        {"wrong_password_accepted", false, "x" + pw + "\n",
         "Unable to connect to Zarnet Database: Access denied for user 'admin'@'localhost' "
         "(using password: YES)"},
    };
    for (const auto &c : cases) {
        ShadowSwap swap(c.missing ? nullptr : c.content.c_str());
        std::string error;
        MYSQL *h = db_connect_nothrow(&error);
        EXPECT_EQ(h != nullptr, c.want.empty()) << c.fault;
        EXPECT_EQ(error, c.want) << c.fault;
        if (h != nullptr)
            mysql_close(h);
        const std::string want_open = c.want.empty() ? "nothing" : "mError: connection failed";
        EXPECT_EQ(caught([] { Connection conn(true); }), want_open) << c.fault;
    }
}
