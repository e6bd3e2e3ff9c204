#include "mail/postfix/MainCfManager.h"

#include <gtest/gtest.h>

using zarnet::mail::postfix::MainCfManager;
using zarnet::mail::postfix::SingleCompoundStringValueAppender;
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

TEST(SingleCompoundStringValueAppender, AppendsOnlyWhenAbsent)
{
    const struct {
        List pieces;
        const char *value;
        List want;
    } cases[] = {
        {{"permit", "reject"}, "reject", {"permit", "reject"}},
        {{"permit", "reject"}, "  reject\t", {"permit", "reject"}},
        {{"check_client_access pcre:/a"}, "check_client_access pcre:/b",
         {"check_client_access pcre:/a", "check_client_access pcre:/b"}},
    };
    for (const auto &c : cases) {
        List pieces = c.pieces;
        SingleCompoundStringValueAppender(c.value)(pieces);
        EXPECT_EQ(pieces, c.want) << c.value;
    }
}

// ---- against the real configuration tool, on a private main.cf ----

#include "mail/postfix/PostfixError.h"
#include "support/postfix_dirs.h"

#include <cstdlib>
#include <memory>

namespace {

class MainCfTool : public testing::Test {
protected:
    static std::unique_ptr<testsupport::PostfixDirs> dirs;
    static void SetUpTestSuite() { dirs.reset(new testsupport::PostfixDirs); }
    static void TearDownTestSuite() { dirs.reset(); }

    const MainCfManager &cf() { return MainCfManager::getInstance(); }

    // Sets a value directly and lets main.cf settle.
    void set(const std::string &name, const std::string &value)
    {
        testsupport::runProgram({"/usr/sbin/postconf", "-e", name + "=" + value});
        dirs->settle();
    }
    std::string get(const std::string &name)
    {
        std::string v = testsupport::runProgram({"/usr/sbin/postconf", "-h", name});
        if (!v.empty() && v.back() == '\n')
            v.pop_back();
        return v;
    }
};

std::unique_ptr<testsupport::PostfixDirs> MainCfTool::dirs;

} // namespace

// Plain reads, writes and network-list edits the white-list and size
// system tests prove; here quoting, compound lists and the failure text.
TEST_F(MainCfTool, ReadsWritesAndListEdits)
{
    set("smtpd_banner", "  $myhostname ESMTP two words ");
    set("message_size_limit", "5000");
    EXPECT_EQ(cf().getStringValue("smtpd_banner", false) + "|" + cf().getStringValue("message_size_limit", true) +
                  "|" + cf().getStringValue("no_such_parameter_here", false), // only warned about
              "$myhostname ESMTP two words|10240000|");
    cf().replaceStringValue("smtpd_banner", "$myhostname; rm -rf / `x` \"q\"");
    dirs->settle();
    EXPECT_EQ(get("smtpd_banner"), "$myhostname; rm -rf / `x` \"q\"") << "not one argument verbatim";

    set("smtpd_recipient_restrictions", "permit_mynetworks,  check_client_access pcre:/x.re ,reject_unauth_destination");
    cf().appendCompoundStringValue("smtpd_recipient_restrictions", "check_client_access pcre:/x.re");
    dirs->settle();
    EXPECT_EQ(get("smtpd_recipient_restrictions"),
              "permit_mynetworks, check_client_access pcre:/x.re, reject_unauth_destination");
    cf().filterStringValues("smtpd_recipient_restrictions", [](std::vector<std::string> &pieces) {
        pieces.erase(pieces.begin());
        pieces.insert(pieces.begin(), "permit_sasl_authenticated");
        pieces.push_back("reject");
    });
    dirs->settle();
    EXPECT_EQ(get("smtpd_recipient_restrictions"),
              "permit_sasl_authenticated, check_client_access pcre:/x.re, reject_unauth_destination, reject");

    setenv("MAIL_CONFIG", (dirs->root + "/missing").c_str(), 1);
    try {
        cf().replaceStringValue("mynetworks", "10.0.0.0/8");
        ADD_FAILURE() << "write succeeded";
    } catch (const zarnet::mail::postfix::PostfixConfigurationError &e) {
        EXPECT_NE(std::string(e.what()).find("postconf: fatal: "), std::string::npos) << e.what();
    }
    setenv("MAIL_CONFIG", dirs->config.c_str(), 1);
}
