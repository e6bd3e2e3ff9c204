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
        {"127.0.0.0/8", {"127.0.0.0/8"}, {"127.0.0.0/8"}},
        {"a,c", {"a", "c"}, {"a", "c"}},
        {"a, b,,c ,\t d", {"a", "b", "c", "d"}, {"a", "b", "c", "d"}},
        {"permit_mynetworks, check_client_access pcre:/x.re, reject",
         {"permit_mynetworks", "check_client_access", "pcre:/x.re", "reject"},
         {"permit_mynetworks", "check_client_access pcre:/x.re", "reject"}},
        {" , ,", {}, {}},
        {"[2001:db8::]/32 10.0.0.0/8", {"[2001:db8::]/32", "10.0.0.0/8"},
         {"[2001:db8::]/32 10.0.0.0/8"}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(MainCfManager::splitSimpleList(c.text), c.simple) << c.text;
        EXPECT_EQ(MainCfManager::splitCompoundList(c.text), c.compound) << c.text;
    }
    EXPECT_EQ(MainCfManager::joinList({"a", "b c", "d"}), "a, b c, d");
    EXPECT_EQ(MainCfManager::joinList({}), "");
}

TEST(SingleCompoundStringValueAppender, AppendsOnlyWhenAbsent)
{
    const struct {
        List pieces;
        const char *value;
        List want;
    } cases[] = {
        {{}, "reject", {"reject"}},
        {{"permit", "reject"}, "reject", {"permit", "reject"}},
        {{"permit"}, " reject ", {"permit", " reject "}},
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

#include <sys/stat.h>

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
    // True when main.cf was written since the last settle().
    bool written()
    {
        struct stat st;
        stat((dirs->config + "/main.cf").c_str(), &st);
        const bool w = st.st_mtime > time(nullptr) - 3;
        dirs->settle();
        return w;
    }
};

std::unique_ptr<testsupport::PostfixDirs> MainCfTool::dirs;

} // namespace

TEST_F(MainCfTool, ReadsTrimmedValuesAndDefaults)
{
    set("smtpd_banner", "  $myhostname ESMTP two words ");
    EXPECT_EQ(cf().getStringValue("smtpd_banner", false), "$myhostname ESMTP two words");
    set("message_size_limit", "5000");
    EXPECT_EQ(cf().getStringValue("message_size_limit", false), "5000");
    EXPECT_EQ(cf().getStringValue("message_size_limit", true), "10240000");
    // This tool only warns about a parameter it does not know: an empty value.
    EXPECT_EQ(cf().getStringValue("no_such_parameter_here", false), "");
}

TEST_F(MainCfTool, ReplaceWritesOneArgumentVerbatim)
{
    cf().replaceStringValue("smtpd_banner", "$myhostname; rm -rf / `x` \"q\"");
    dirs->settle();
    EXPECT_EQ(get("smtpd_banner"), "$myhostname; rm -rf / `x` \"q\"");
}

TEST_F(MainCfTool, AppendToSimpleLists)
{
    set("mynetworks", "");
    cf().appendStringValue("mynetworks", "10.0.0.0/8");
    EXPECT_TRUE(written());
    EXPECT_EQ(get("mynetworks"), "10.0.0.0/8");

    cf().appendStringValue("mynetworks", "10.0.0.0/8");
    EXPECT_TRUE(written()) << "networks are written back even when present";
    EXPECT_EQ(get("mynetworks"), "10.0.0.0/8");

    set("relay_domains", "a,c");
    cf().appendStringValue("relay_domains", "c");
    EXPECT_FALSE(written()) << "present element rewrote another list";
    cf().appendStringValue("relay_domains", "b");
    dirs->settle();
    EXPECT_EQ(get("relay_domains"), "a,c, b");
}

TEST_F(MainCfTool, RemoveFromSimpleLists)
{
    const struct {
        const char *before, *remove, *after;
    } cases[] = {
        {"a, b,,c", "b", "a, c"},
        {"a b\tc", "x", "a, b, c"},
        {"b, b", "b", ""},
        {"127.0.0.0/8 [::1]/128", "[::1]/128", "127.0.0.0/8"},
    };
    for (const auto &c : cases) {
        set("mynetworks", c.before);
        cf().removeListElement("mynetworks", c.remove);
        dirs->settle();
        EXPECT_EQ(get("mynetworks"), c.after) << c.before << " - " << c.remove;
    }
}

TEST_F(MainCfTool, FilterCompoundLists)
{
    set("smtpd_recipient_restrictions",
        "permit_mynetworks,  check_client_access pcre:/x.re ,reject_unauth_destination");
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
              "permit_sasl_authenticated, check_client_access pcre:/x.re, "
              "reject_unauth_destination, reject");
}

TEST_F(MainCfTool, ToolFailureCarriesItsText)
{
    cf(); // constructed while the configuration exists
    setenv("MAIL_CONFIG", (dirs->root + "/missing").c_str(), 1);
    try {
        cf().replaceStringValue("mynetworks", "10.0.0.0/8");
        ADD_FAILURE() << "write succeeded";
    } catch (const zarnet::mail::postfix::PostfixConfigurationError &e) {
        EXPECT_NE(std::string(e.what()).find("postconf: fatal: "), std::string::npos) << e.what();
    }
    setenv("MAIL_CONFIG", dirs->config.c_str(), 1);
}
