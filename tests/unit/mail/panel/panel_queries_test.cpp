#include "mail/panel/panel_queries.h"
#include "mail/panel/restore_params.h"
#include "utils/cpp_mysql.h"
#include "utils/dbconnect.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using testsupport::runInChild;
using zarnet::mysql::Connection;
using zarnet::mysql::Query;
using zarnet::mysql::Result;

namespace {

const char *const shadow = "/etc/zrn/.zrn.shadow";
const char *const limits_id = "970311";
const std::string refusal = "Unable to connect to Zarnet Database: Access denied for user "
                            "'admin'@'localhost' (using password: YES)\n";

// Puts a wrong password in the administrator's password file, so that every
// connection is refused, until destroyed.
class WrongPassword {
public:
    WrongPassword()
    {
        const std::string pw = testsupport::slurp(shadow);
        if (std::rename(shadow, backup_.c_str()) != 0)
            throw std::runtime_error("cannot move the password file aside");
        testsupport::spit(shadow, "wrong" + pw);
    }
    ~WrongPassword()
    {
        std::remove(shadow);
        std::rename(backup_.c_str(), shadow);
    }
    WrongPassword(const WrongPassword &) = delete;
    WrongPassword &operator=(const WrongPassword &) = delete;

private:
    const std::string backup_ = std::string(shadow) + ".panel-queries-test";
};

std::string joined(char **array)
{
    if (array == nullptr)
        return "(null)";
    std::vector<std::string> items;
    for (char **p = array; *p != nullptr; ++p)
        items.emplace_back(*p);
    std::sort(items.begin(), items.end());
    std::string out;
    for (const auto &s : items)
        out += s + ";";
    return out;
}

} // namespace

class PanelQueriesSandboxed : public testing::Test {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        cleanUp();
        db_ << "INSERT INTO Limits (id, limit_name, value) VALUES (" << limits_id
            << ", 'mbox_quota', 1048576), (" << limits_id << ", 'max_box', 12345678901)"
            << Query::exec;
        db_ << "INSERT INTO domains (name, limits_id) VALUES ('pq-a.example', " << limits_id
            << "), ('pq-b.example', NULL)" << Query::exec;
        domA_ = idOf("SELECT id FROM domains WHERE name='pq-a.example'");
        const std::string b = idOf("SELECT id FROM domains WHERE name='pq-b.example'");
        db_ << "INSERT INTO domainaliases (dom_id, name) VALUES (" << domA_
            << ", 'pq-a-one.example'), (" << domA_ << ", 'pq-a-two.example')" << Query::exec;
        db_ << "INSERT INTO mail (dom_id, mail_name) VALUES (" << domA_ << ", 'info'), ("
            << domA_ << ", 'sales'), (" << b << ", 'info')" << Query::exec;
        const std::string infoA =
            idOf("SELECT id FROM mail WHERE mail_name='info' AND dom_id=" + domA_);
        const std::string infoB = idOf("SELECT id FROM mail WHERE mail_name='info' AND dom_id=" + b);
        db_ << "INSERT INTO mail_aliases (mn_id, alias) VALUES (" << infoA << ", 'hello'), ("
            << infoA << ", 'hi'), (" << infoB << ", 'other')" << Query::exec;
        db_ << "INSERT INTO misc (param, val) VALUES ('pq_true', 'true'), ('pq_upper', 'True'), "
               "('pq_one', '1'), ('pq_null', NULL)"
            << Query::exec;
    }

    void TearDown() override
    {
        if (std::getenv("MAILTEND_IN_SANDBOX") != nullptr)
            cleanUp();
    }

    std::string idOf(const std::string &query)
    {
        Result r = db_ << query << Query::fetch;
        Result::row_t row;
        if (!r.fetch(&row))
            throw std::runtime_error("no row for " + query);
        return row["id"];
    }

    void cleanUp()
    {
        db_ << "DELETE ma FROM mail_aliases ma JOIN mail m ON ma.mn_id=m.id JOIN domains d ON "
               "m.dom_id=d.id WHERE d.name LIKE 'pq-_.example'"
            << Query::exec;
        db_ << "DELETE m FROM mail m JOIN domains d ON m.dom_id=d.id WHERE d.name LIKE "
               "'pq-_.example'"
            << Query::exec;
        db_ << "DELETE FROM domainaliases WHERE name LIKE 'pq-a-%.example'" << Query::exec;
        db_ << "DELETE FROM domains WHERE name LIKE 'pq-_.example'" << Query::exec;
        db_ << "DELETE FROM Limits WHERE id=" << limits_id << Query::exec;
        db_ << "DELETE FROM misc WHERE param LIKE 'pq\\_%'" << Query::exec;
    }

    Connection db_{false};
    std::string domA_;
};

TEST_F(PanelQueriesSandboxed, ListQueries)
{
    using Call = std::function<int(MYSQL *, char ***)>;
    const struct {
        const char *fault;
        Call call;
        std::string want;
    } cases[] = {
        {"domain_aliases_lost",
         [](MYSQL *c, char ***o) { return get_domaliases_by_domain(c, o, "pq-a.example"); },
         "pq-a-one.example;pq-a-two.example;"},
        {"no_alias_not_null",
         [](MYSQL *c, char ***o) { return get_domaliases_by_domain(c, o, "pq-b.example"); },
         "(null)"},
        {"mailnames_lost",
         [](MYSQL *c, char ***o) { return get_mailnames_by_domain(c, o, "pq-a.example"); },
         "info;sales;"},
        {"aliases_of_other_domain_mixed_in",
         [](MYSQL *c, char ***o) { return get_aliases_by_mailname(c, o, "info", "pq-a.example"); },
         "hello;hi;"},
        {"owner_of_alias_wrong",
         [](MYSQL *c, char ***o) { return get_domain_by_domainalias(c, o, "pq-a-two.example"); },
         "pq-a.example;"},
    };
    MYSQL *conn = db_connect();
    ASSERT_NE(conn, nullptr);
    for (MYSQL *c : {conn, static_cast<MYSQL *>(nullptr)}) {
        const char *path = c != nullptr ? "given connection" : "own connection";
        for (const auto &k : cases) {
            char *untouched[] = {nullptr};
            char **out = untouched;
            EXPECT_EQ(k.call(c, &out), 0) << k.fault << " on " << path;
            EXPECT_EQ(out == untouched ? "(untouched)" : joined(out), k.want)
                << k.fault << " on " << path;
            if (out != untouched)
                free_array(out);
        }
    }
    EXPECT_EQ(mysql_ping(conn), 0) << "the caller's connection was closed";
    mysql_close(conn);
}

TEST_F(PanelQueriesSandboxed, ListQueryFailures)
{
    const struct {
        const char *fault;
        bool refused;
        std::function<int(char ***)> call;
        std::string want;
    } cases[] = {
        {"connection_failure_not_reported", true,
         [](char ***o) { return get_mailnames_by_domain(nullptr, o, "pq-a.example"); },
         refusal + "Unable to connect to mysql database\n"
                   "Unable to get mailnames from domain: pq-a.example\n"},
        {"query_failure_not_reported", false,
         [](char ***o) { return get_domaliases_by_domain(nullptr, o, "it's"); },
         "Unable to get data from mysql database\n"
         "Unable to get domain aliases from database for: it's\n"},
    };
    for (const auto &c : cases) {
        std::unique_ptr<WrongPassword> refuse(c.refused ? new WrongPassword : nullptr);
        const auto r = runInChild([&] {
            char **out = nullptr;
            const int rc = c.call(&out);
            return rc == -1 && out == nullptr ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.fault << ": " << r;
        EXPECT_EQ(r.out, c.want) << c.fault;
    }
}

TEST_F(PanelQueriesSandboxed, DomainLimit)
{
    const struct {
        const char *fault;
        std::string dom_id;
        const char *name;
        size_t size;
        int want_rc;
        std::string want_value;
        std::string want_out;
    } cases[] = {
        {"limit_value_wrong", domA_, "mbox_quota", 64, 0, "1048576", ""},
        {"other_limit_mixed_up", domA_, "max_box", 64, 0, "12345678901", ""},
        {"missing_limit_not_empty", domA_, "no_such_limit", 64, 0, "", ""},
        {"exact_fit_refused", domA_, "mbox_quota", 8, 0, "1048576", ""},
        {"overlong_value_truncated_silently", domA_, "mbox_quota", 7, -1, "",
         "Unable to query domain limit mbox_quota: the value does not fit the buffer\n"},
        {"overlong_query_not_refused", std::string(2000, '9'), "mbox_quota", 64, -1, "",
         "Unable to create database query\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            std::string out(c.size, 'X');
            const int rc = get_dom_Limit(c.dom_id.c_str(), c.name, &out[0], c.size);
            std::printf("rc=%d value=%s\n", rc, out.c_str());
            return 0;
        });
        EXPECT_EQ(r.out, c.want_out + "rc=" + std::to_string(c.want_rc) + " value=" +
                             c.want_value + "\n")
            << c.fault;
    }

    WrongPassword refuse;
    const auto r = runInChild([&] {
        char out[16];
        return get_dom_Limit(domA_.c_str(), "mbox_quota", out, sizeof out) == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, refusal + "Unable to connect to the mysql database\n");
}

TEST_F(PanelQueriesSandboxed, BoolMiscParam)
{
    const struct {
        const char *fault;
        const char *param;
        bool want;
        std::string want_string;
    } cases[] = {
        {"missing_row_read_as_true", "pq_absent", false, ""},
        {"case_ignored", "pq_upper", false, "True"},
        {"true_not_recognised", "pq_true", true, "true"},
        {"number_one_read_as_true", "pq_one", false, "1"},
        {"null_value_crashes", "pq_null", false, ""},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            Connection conn(false);
            const bool got = zarnet::mail::restore::getBoolMiscParamSafe(c.param, conn);
            const std::string s = zarnet::mail::restore::getStringMiscParam(c.param, conn);
            return (got ? 1 : 0) + (s == c.want_string ? 0 : 2);
        });
        EXPECT_EQ(r.status, c.want ? 1 : 0) << c.fault << ": " << r;
        EXPECT_EQ(r.out, "") << c.fault << ": a database answer is no warning";
    }

    WrongPassword refuse;
    const auto r = runInChild([] {
        Connection conn(false);
        return zarnet::mail::restore::getBoolMiscParamSafe("pq_true", conn) ? 1 : 0;
    });
    const std::string warning =
        "Warning: MySQL Error on Mail Authentication Type query: connection failed, ignored\n";
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, warning) << "unreachable database: exactly one warning line";
    EXPECT_EQ(r.err, warning);
}
