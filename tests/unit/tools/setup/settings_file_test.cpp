#include "tools/setup/settings_file.h"

#include <gtest/gtest.h>

using namespace zarnet::setup;

TEST(SettingsFile, KeysSetOtherLinesKept)
{
    const std::vector<Setting> wanted = {{"A", "1"}, {"B", "two words"}};
    const struct {
        const char *name;
        const SettingsSyntax &syntax;
        const char *text, *result;
        std::vector<std::string> written;
    } cases[] = {
        {"missing keys appended to a new file", colonSyntax, "", "A: 1\nB: two words\n",
         {"A: 1", "B: two words"}},
        {"right values kept as written, blanks around them ignored", blankSyntax,
         "#A 2\nA\t\t1 \r\nB  two words\n", "#A 2\nA\t\t1 \r\nB  two words\n", {}},
        {"a wrong value replaced in place, a repeat dropped", shellSyntax,
         "x=y\nA=2\nAB=3\nA=1\nB=two words", "x=y\nA=1\nAB=3\nB=two words",
         {"A=1", "A (repeated setting removed)"}},
        {"added before the trailer that must stay last", blankSyntax,
         "A 1\n##NAME: MARKER:0\n# end\n", "A 1\nB\ttwo words\n##NAME: MARKER:0\n# end\n",
         {"B\ttwo words"}},
        {"a last line without a line feed gets one before an addition", colonSyntax,
         "A:1", "A:1\nB: two words\n", {"B: two words"}},
        {"a key alone on its line is that key's line, not a stranger", blankSyntax, "A\nB two words\n",
         "A\t1\nB two words\n", {"A\t1"}},
        {"a separator the syntax does not use sets nothing", shellSyntax, "A: 1\n",
         "A: 1\nA=1\nB=two words\n", {"A=1", "B=two words"}},
    };
    for (const auto &c : cases) {
        std::vector<std::string> written;
        EXPECT_EQ(applySettings(c.text, c.syntax, wanted, &written), c.result) << c.name;
        EXPECT_EQ(written, c.written) << c.name;
    }
}
