#include "mail/postfix/MainCfManager.h"

#include <gtest/gtest.h>

using zarnet::mail::postfix::MainCfManager;
using List = std::vector<std::string>;

TEST(MainCfLists, SimpleAndCompoundSplitting)
{
    const struct {
        const char *text;
        List simple, compound;
    } cases[] = {
        {"", {}, {}},
        {"a, b,,c ,\t d", {"a", "b", "c", "d"}, {"a", "b", "c", "d"}},
        {"permit_mynetworks, check_client_access pcre:/x.re, reject",
         {"permit_mynetworks", "check_client_access", "pcre:/x.re", "reject"},
         {"permit_mynetworks", "check_client_access pcre:/x.re", "reject"}},
        {"[2001:db8::]/32 10.0.0.0/8", {"[2001:db8::]/32", "10.0.0.0/8"},
         {"[2001:db8::]/32 10.0.0.0/8"}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(MainCfManager::splitSimpleList(c.text), c.simple) << c.text;
        EXPECT_EQ(MainCfManager::splitCompoundList(c.text), c.compound) << c.text;
    }
    EXPECT_EQ(MainCfManager::joinList({"a", "b c", "d"}) + MainCfManager::joinList({}), "a, b c, d");
}

// ---- against the real configuration tool, on a private main.cf ----

#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"

#include <cstdlib>
#include <memory>

// Plain reads, writes and network-list edits the white-list and size
// system tests prove; here quoting, compound lists and the failure text.
TEST(MainCfTool, ReadsWritesAndListEdits)
{
    const auto dirs = std::make_unique<testsupport::PostfixDirs>();
    const MainCfManager &cf = MainCfManager::getInstance();
    // A value set directly, with main.cf settled after it.
    const auto set = [&](const std::string &name, const std::string &value) {
        testsupport::runProgram({"/usr/sbin/postconf", "-e", name + "=" + value});
        dirs->settle();
    };
    const auto get = [](const std::string &name) {
        const std::string v = testsupport::runProgram({"/usr/sbin/postconf", "-h", name});
        return v.substr(0, v.find_last_not_of('\n') + 1);
    };
    set("smtpd_banner", "  $myhostname ESMTP two words ");
    set("message_size_limit", "5000");
    EXPECT_EQ(cf.getStringValue("smtpd_banner", false) + "|" + cf.getStringValue("message_size_limit", true) +
                  "|" + cf.getStringValue("no_such_parameter_here", false), // only warned about
              "$myhostname ESMTP two words|10240000|");
    cf.replaceStringValue("smtpd_banner", "$myhostname; rm -rf / `x` \"q\"");
    dirs->settle();
    EXPECT_EQ(get("smtpd_banner"), "$myhostname; rm -rf / `x` \"q\"") << "not one argument verbatim";

    set("smtpd_recipient_restrictions", "permit_mynetworks,  check_client_access pcre:/x.re ,reject_unauth_destination");
    cf.appendCompoundStringValue("smtpd_recipient_restrictions", "check_client_access pcre:/x.re");
    dirs->settle();
    EXPECT_EQ(get("smtpd_recipient_restrictions"),
              "permit_mynetworks, check_client_access pcre:/x.re, reject_unauth_destination");

    setenv("MAIL_CONFIG", (dirs->root + "/missing").c_str(), 1);
    try {
        cf.replaceStringValue("mynetworks", "10.0.0.0/8");
        ADD_FAILURE() << "write succeeded";
    } catch (const zarnet::mail::postfix::PostfixConfigurationError &e) {
        EXPECT_NE(std::string(e.what()).find("postconf: fatal: "), std::string::npos) << e.what();
    }
    setenv("MAIL_CONFIG", dirs->config.c_str(), 1);
}
