#include "mail/postfix/MasterCfEntries.h"
#include "mail/postfix/ModuleManager.h"

#include <gtest/gtest.h>

#include <functional>

using namespace zarnet::mail::postfix;

namespace {

const std::string smtpd = "smtp      inet  n       -       y       -       -       smtpd\n";
// A comment and a blank line inside the entry, then its last option.
const std::string smtpdWithOptions = smtpd + "#  -o old=1\n\n  -o smtpd_proxy_filter=\n";
const std::string smtpClient = "smtp      unix  -       -       y       -       -       smtp\n";
const std::string bare = "smtp inet n - n - - smtpd"; // last line, no line feed

} // namespace

TEST(MasterCfEntries, MovesKeepEveryOtherByteAndTheEntrysOwnText)
{
    const auto disable = [](MasterCfEntries &m) { m.disable("smtp", "smtpd"); };
    const auto enable = [](MasterCfEntries &m) { EXPECT_TRUE(m.enable("smtp", "smtpd")); };
    const struct {
        const char *fault;
        std::string master, disabled;
        std::function<void(MasterCfEntries &)> edit;
        std::string master2, interim, disabled2;
    } cases[] = {
        {"inner comment lost, trailing comment taken along, or the client entry matched",
         "  -o stray\n# head\n" + smtpdWithOptions + "# after\n" + smtpClient, "", disable,
         "  -o stray\n# head\n# after\n" + smtpClient, smtpdWithOptions, smtpdWithOptions},
        {"a line feed added to a file nothing was appended to",
         "x unix - - n - - pipe\n  flags=R", "", disable, "x unix - - n - - pipe\n  flags=R", "", ""},
        {"the last entry moved without its line feed", "# h\n" + bare, "# d", disable, "# h\n",
         "# d\n" + bare + "\n", "# d\n" + bare + "\n"},
        {"enabled entry not appended, or left in the disabled file before master.cf is written",
         "# h\nx unix - - n - - pipe", "# kept\n" + smtpdWithOptions + smtpd, enable,
         "# h\nx unix - - n - - pipe\n" + smtpdWithOptions, "# kept\n" + smtpdWithOptions + smtpd, "# kept\n"},
        {"a copy in both files not taken as active and dropped", smtpd, smtpd + "# c\n",
         [](MasterCfEntries &m) {
             EXPECT_TRUE(m.has("smtp", "smtpd", true) && !m.has("smtp", "smtpd", false));
             EXPECT_FALSE(m.has("smtps", "smtpd", boost::logic::indeterminate));
             EXPECT_TRUE(m.serves("smtp", "inet") && !m.serves("smtp", "unix"));
         },
         smtpd, smtpd + "# c\n", "# c\n"},
        {"an added entry not appended after a missing line feed", smtpClient + "# end", "",
         [](MasterCfEntries &m) { m.add(ModuleManager::formatModule(SmtpsdModule), true); },
         smtpClient + "# end\n" +
             "smtps     inet  n       -       n       -       -       smtpd\n"
             "  -o smtpd_tls_wrappermode=yes\n  -o smtpd_proxy_filter=\n",
         "", ""},
    };
    for (const auto &c : cases) {
        MasterCfEntries m(c.master, c.disabled);
        c.edit(m);
        EXPECT_EQ(m.masterText(), c.master2) << c.fault;
        EXPECT_EQ(m.disabledText(true), c.interim) << c.fault;
        EXPECT_EQ(m.disabledText(false), c.disabled2) << c.fault;
    }
    const std::string wide = "submission inet  n       -       n       -       -       smtpd\n";
    EXPECT_EQ(ModuleManager::formatModule(SubmissionModule).substr(0, wide.size()), wide)
        << "a name as wide as its column needs one blank";
}
