#include "mail/postfix/RestrictionFilters.h"

#include "mail/postfix/MainCfManager.h"

#include <gtest/gtest.h>

using namespace zarnet::mail::postfix;
typedef SmtpdRecipientRestrictionsFilter F;

TEST(RestrictionFilters, RelayBlockAndZones)
{
    const std::string mine = "permit_mynetworks, ", sasl = "permit_sasl_authenticated, ",
                      table = "check_client_access pcre:/var/spool/postfix/zarnet/no_relay.re, ",
                      closed = "reject_unauth_destination",
                      open = "check_client_access static:OK, reject_unauth_destination";
    const struct {
        const char *fault, *before;
        F::Relay relay;
        boost::logic::tribool smtpAuth;
        std::string after;
    } relay[] = {
        {"empty list not given the block", "", F::closedRelay, false, mine + table + closed},
        {"open form the server refuses to start with", "permit", F::openRelay, false, mine + table + open},
        {"operator piece moved or an old word kept",
         "check_policy_service unix:private/policy, permit_mynetworks, permit_sasl_authenticated, "
         "check_client_access  static:OK, reject_unauth_destination, defer_unauth_destination, reject, x",
         F::closedRelay, boost::logic::indeterminate,
         "check_policy_service unix:private/policy, " + mine + sasl + table + closed + ", x"},
        {"SASL not added", "x, permit", F::closedRelay, true, "x, " + mine + sasl + table + closed},
        {"SASL kept when switched off", "permit_sasl_authenticated, reject", F::closedRelay, false, mine + table + closed},
        {"block not at the first owned place", "a, reject, b, permit_mynetworks", F::openRelay,
         boost::logic::indeterminate, "a, " + mine + table + open + ", b"},
    };
    for (const auto &c : relay)
        EXPECT_EQ(MainCfManager::filteredList(c.before, F(c.relay, c.smtpAuth)), c.after) << c.fault;

    const struct {
        const char *fault, *before;
        std::vector<std::string> zones;
        std::string after;
    } rbl[] = {
        {"zones not appended or repeated", "permit_mynetworks", {"a.example", "b.example", "a.example"},
         "permit_mynetworks, reject_rbl_client a.example, reject_rbl_client b.example"},
        {"old zone kept or new ones placed elsewhere", "x, reject_rbl_client o.example, y, reject_rbl_client  p.example",
         {"n.example"}, "x, reject_rbl_client n.example, y"},
        {"empty list keeps zones", "reject_rbl_client o.example, permit", {}, "permit"},
    };
    for (const auto &c : rbl)
        EXPECT_EQ(MainCfManager::filteredList(c.before, SetRBLFilter(c.zones)), c.after) << c.fault;
}
