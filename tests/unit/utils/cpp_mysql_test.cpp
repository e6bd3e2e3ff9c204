#include "utils/cpp_mysql.h"

#include "test_common.h"
#include "utils/dbconnect.h"

#include "support/child_capture.h"
#include "support/sandboxed.h"

#include <cstdio>

using zarnet::mysql::Connection;
using zarnet::mysql::Field;
using zarnet::mysql::mError;
using zarnet::mysql::Query;
using zarnet::mysql::Result;

namespace {

const std::string kMError = std::string(typeid(mError).name()) + ": ";

// The first row's column, or what fetching it threw.
std::string fetched(Connection &conn, const std::string &query, const std::string &column)
{
    std::string got;
    const std::string error = thrown([&] {
        Result r = conn << query.c_str() << Query::fetch;
        Result::row_t row;
        got = r.fetch(&row) ? row[column].str() : "no row";
    });
    return error == "nothing" ? got : error;
}

} // namespace

TEST(CppMysql, QueryBuildingAndConversionsWithoutServer)
{
    using zarnet::mysql::name;
    const auto built = [](const std::function<void(Connection &)> &build) {
        Connection conn(false);
        return build(conn), conn.queryText();
    };
    const auto asShort = [](Field f) {
        try {
            return std::to_string(static_cast<short>(f));
        } catch (const boost::bad_lexical_cast &) {
            return std::string("bad_lexical_cast");
        }
    };
    const struct { const char *fault; std::string got, want; } cases[] = {
        {"explicit length ignored", Connection::escape_name("a`bc`", 3), "a``b"},
        {"name mode not applied or sticky", built([](Connection &c) { c << "SELECT `" << name << "a`b" << "` `x`"; }),
         "SELECT `a``b` `x`"},
        {"numbers misformatted", built([](Connection &c) { c << -12 << " " << 1.5 << " " << 18446744073709551615ULL; }),
         "-12 1.500000 18446744073709551615"},
        {"std::string cut at NUL", built([](Connection &c) { c << std::string("a\0b", 3); }), std::string("a\0b", 3)},
        {"raw manipulator ignored", built([](Connection &c) { c << name << zarnet::mysql::raw << "``"; }), "``"},
        {"short overflow wrapped", asShort(Field("70000", 5)), "bad_lexical_cast"},
        {"NULL read as zero", asShort(Field(nullptr, 0)), "bad_lexical_cast"},
        {"empty string read as NULL", std::to_string(Field("", 0).isNull()), "0"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.want) << c.fault;
}

TEST(CppMysqlSandboxed, ExecAndFetch)
{
    MAILTEND_REQUIRE_SANDBOX();
    Connection conn(false);
    for (const char *v : {"both ' and \\ and \"", "\\'", ""}) {
        conn << "INSERT INTO misc (param, val) VALUES ('cpp-mysql-rt', '" << zarnet::mysql::value << v << "')" << Query::exec;
        conn << "SELECT val FROM misc WHERE param='cpp-mysql-rt' AND val='" << zarnet::mysql::value << std::string(v) << "'";
        EXPECT_EQ(fetched(conn, "", "val"), v) << "value not escaped once, or the mode sticky";
        conn << "DELETE FROM misc WHERE param='cpp-mysql-rt'" << Query::exec;
    }
    const auto rows = [&] {
        Result r = conn << "SELECT NULL AS z, -32768 AS s, 2147483647 AS i, -9223372036854775807 AS ll UNION ALL "
                           "SELECT 1, 2, 3, 4" << Query::fetch;
        Result::row_t row;
        std::string got = std::to_string(r.rowCount()) + ":";
        while (r.fetch(&row))
            got += std::to_string(row["z"].isNull()) + " " + std::to_string(static_cast<short>(row["s"])) + " " +
                   std::to_string(static_cast<int>(row["i"])) + " " + std::to_string(static_cast<long>(row["i"])) + " " +
                   std::to_string(static_cast<long long>(row["ll"])) + ",";
        return got;
    };
    const auto failed = thrown([&] { conn << "SELEC 1" << Query::exec; });
    const auto stale = fetched(conn, "SELECT 'ok' AS k", "k");
    conn << "SELECT 1" << Query::exec;
    const struct { const char *fault; std::string got, want; } cases[] = {
        {"exec of a select leaves the handle out of sync", fetched(conn, "SELECT 'next' AS k", "k"), "next"},
        {"rows, null or numbers misread", rows(), "2:1 -32768 2147483647 2147483647 -9223372036854775807,0 2 3 3 4,"},
        {"missing field not reported", fetched(conn, "SELECT 1 AS val", "nope"), kMError + "No field named nope in result set"},
        {"duplicate column accepted", fetched(conn, "SELECT 1 AS a, 2 AS a", "a"), kMError + "duplicated field a in query"},
        {"fetch of a statement without rows crashes", fetched(conn, "DO 1", "x"), kMError + "Unknown error\n"},
        {"failure misreported", failed.substr(0, kMError.size() + 17) + "|" + failed.substr(failed.size() - 25),
         kMError + "MySQL error 1064:| executing query: SELEC 1"},
        {"buffer kept after a failure", stale, "ok"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.want) << c.fault;
}

TEST(CppMysqlSandboxed, PasswordFile)
{
    MAILTEND_REQUIRE_SANDBOX();
    const char *const shadow = "/etc/zrn/.zrn.shadow", *const aside = "/etc/zrn/.zrn.shadow.cpp-mysql-test";
    const std::string file = testsupport::slurp(shadow), pw = file.substr(0, file.find('\n'));
    ASSERT_FALSE(pw.empty());
    // want "": connects
    const struct { const char *fault; bool missing; std::string content; std::string want; } cases[] = {
        {"last character dropped without a line feed", false, pw, ""},
        {"second line read", false, pw + "\nsomething else\n", ""},
        {"missing file not reported", true, "", "Unable to open admin password file: No such file or directory"},
        {"empty file accepted", false, "", "Unable to read admin password file: the file is empty"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(std::rename(shadow, aside), 0);
        if (!c.missing)
            testsupport::spit(shadow, c.content);
        std::string error;
        MYSQL *h = db_connect_nothrow(&error);
        EXPECT_EQ(error + (h != nullptr ? "" : "|null"), c.want + (c.want.empty() ? "" : "|null")) << c.fault;
        if (h != nullptr)
            mysql_close(h);
        // In a child: this process may hold the shared connection already.
        const auto opened = testsupport::runInChild([] { return std::printf("%s", thrown([] { Connection conn(true); }).c_str()) < 0; });
        EXPECT_EQ(opened.out, c.want.empty() ? "nothing" : kMError + "connection failed") << c.fault;
        std::rename(aside, shadow);
    }
}
