#include "utils/sh_quoting.h"

#include "support/thrown.h"

#include <gtest/gtest.h>

using zarnet::sh_quote;

TEST(ShQuote, QuotesPerCharacterClass)
{
    const struct {
        const char *fault;
        std::string text, want;
    } cases[] = {
        {"line feed not in single quotes", "a\nb", "a'\n'b"},
        {"plain word altered", "Ab0-_.,/:=+%@!{}]^", "Ab0-_.,/:=+%@!{}]^"},
        {"UTF-8 bytes or carriage return altered", "j\xc3\xb6rg\r", "j\xc3\xb6rg\r"},
        {"a starred character not backslashed", "\t \"#$&'()*;<>?[\\`|~", "\\\t\\ \\\"\\#\\$\\&\\'\\(\\)\\*\\;\\<\\>\\?\\[\\\\\\`\\|\\~"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(sh_quote(c.text), c.want) << c.fault;
}

TEST(ShQuote, EveryByteAgreesWithTheArgumentCheck)
{
    // An argument needs no quoting exactly when quoting leaves it alone; a
    // signed char index would read before the table for high bytes (the
    // sanitizer reports it), and those are copied unchanged.
    for (int b = 1; b < 256; ++b) {
        const std::string text = std::string("x") + static_cast<char>(b) + "y";
        const int want = sh_quote(text) == text ? 1 : 0;
        EXPECT_EQ(check_shell_arg_nothrow(text.c_str()), want) << "byte " << b;
        EXPECT_TRUE(b < 128 || want) << "byte " << b << " altered";
    }
    EXPECT_TRUE(check_shell_arg_nothrow(nullptr) && check_shell_arg_nothrow(""));
    EXPECT_EQ(testsupport::thrown([] { zarnet::check_shell_arg("plain-word"); }) + "|" +
                  testsupport::thrown([] { zarnet::check_shell_arg("two words"); }),
              "nothing|runtime_error: Internal error: bad escape_chars value");
}
