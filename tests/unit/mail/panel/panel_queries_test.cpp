#include "mail/panel/panel_queries.h"
#include "mail/panel/restore_params.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

using zarnet::mysql::Connection;
using zarnet::mysql::Query;

namespace {

const char shadow[] = "/etc/zrn/.zrn.shadow";
const std::string refusal =
    "Unable to connect to Zarnet Database: Access denied for user 'admin'@'localhost' (using password: YES)\n";

// What body logs (on both streams) and returns, in a child; refused: with a wrong password.
std::string inChild(bool refused, const std::function<std::string()> &body)
{
    const std::string pw = testsupport::slurp(shadow);
    if (refused)
        testsupport::spit(shadow, "wrong" + pw);
    const auto r = testsupport::runInChild([&] { return std::printf("%s", body().c_str()) < 0; });
    testsupport::spit(shadow, pw);
    EXPECT_EQ(r.out.substr(0, r.err.size()), r.err) << r;
    return r.out;
}

} // namespace

// Rows of ids of their own: pq-a.example with its limits, and panel switches.
class PanelQueriesSandboxed : public testing::Test {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        TearDown();
        for (const char *sql : {
                 "INSERT INTO Limits VALUES (970311, 'mbox_quota', 1048576), (970311, 'max_box', 12345678901)",
                 "INSERT INTO domains (id, name, limits_id) VALUES (970311, 'pq-a.example', 970311)",
                 "INSERT INTO misc VALUES ('pq_true', 'true'), ('pq_upper', 'True'), ('pq_one', '1'), ('pq_null', NULL)"})
            db_ << sql << Query::exec;
    }
    void TearDown() override
    {
        if (std::getenv("MAILTEND_IN_SANDBOX") != nullptr)
            for (const char *sql : {"DELETE FROM domains WHERE id = 970311",
                                    "DELETE FROM Limits WHERE id = 970311", "DELETE FROM misc WHERE param LIKE 'pq\\_%'"})
                db_ << sql << Query::exec;
    }

    Connection db_{false};
    const std::string domA_ = "970311";
};

TEST_F(PanelQueriesSandboxed, LimitsAndSwitches)
{
    const auto limit = [](std::string dom_id, const char *name, size_t size) {
        std::string out(size, 'X');
        const int rc = get_dom_Limit(dom_id.c_str(), name, &out[0], size);
        return std::to_string(rc) + " " + out.c_str();
    };
    const auto flag = [](const char *param) {
        Connection conn(false);
        return std::string(zarnet::mail::restore::getBoolMiscParamSafe(param, conn) ? "on=" : "off=") +
               zarnet::mail::restore::getStringMiscParam(param, conn);
    };
    const struct {
        const char *fault;
        bool refused;
        std::function<std::string()> call;
        std::string want;
    } cases[] = {
        {"limit_wrong_or_mixed_up_or_missing_one_not_empty_or_exact_fit_refused_or_overlong_truncated", false, [&] {
             std::string got = limit(domA_, "mbox_quota", 64) + "," + limit(domA_, "max_box", 64) + "," +
                               limit(domA_, "no_such_limit", 64) + "," + limit(domA_, "mbox_quota", 8) + ",";
             got += limit(domA_, "mbox_quota", 7) + ",";
             return got + limit(std::string(2000, '9'), "mbox_quota", 64); },
         "Unable to query domain limit mbox_quota: the value does not fit the buffer\nUnable to create database query\n"
         "0 1048576,0 12345678901,0 ,0 1048576,-1 ,-1 "},
        {"missing_row_true_case_number_or_null_read_wrongly", false, [&] {
             std::string got;
             for (const char *param : {"pq_true", "pq_absent", "pq_upper", "pq_one", "pq_null"})
                 got += flag(param) + " ";
             return got; }, "on=true off= off=True off=1 off= "},
        {"refusals_unreported_or_not_a_single_warning", true, [&] {
             char **o = nullptr;
             std::string got = std::to_string(get_mailnames_by_domain(nullptr, &o, "x"));
             got += limit(domA_, "mbox_quota", 16);
             Connection conn(false);
             return got + (zarnet::mail::restore::getBoolMiscParamSafe("pq_true", conn) ? "on" : "off"); },
         refusal + "Unable to connect to mysql database\nUnable to get mailnames from domain: x\n" + refusal +
         "Unable to connect to the mysql database\nWarning: MySQL Error on Mail Authentication Type query:"
         " connection failed, ignored\n-1-1 off"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(inChild(c.refused, c.call), c.want) << c.fault;
}
