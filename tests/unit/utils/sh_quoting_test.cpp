#include "utils/sh_quoting.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

TEST(ShQuote, QuotesPerCharacterClass)
{
    const struct {
        const char *fault;
        std::string text;
        std::string want;
    } cases[] = {
        {"blank_and_semicolon_unquoted", "a b;c", "a\\ b\\;c"},
        {"line_feed_not_in_single_quotes", "\n", "'\n'"},
        {"line_feed_inside_text", "a\nb", "a'\n'b"},
        {"empty_text_not_empty", "", ""},
        {"plain_word_altered", "Ab0-_.,/:=+%@!{}]^", "Ab0-_.,/:=+%@!{}]^"},
        {"utf8_bytes_altered", "j\xc3\xb6rg", "j\xc3\xb6rg"},
        {"carriage_return_altered", "\r", "\r"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(zarnet::sh_quote(c.text), c.want) << c.fault;
}

TEST(ShQuote, BackslashesEveryStarCharacter)
{
    const std::string starred = "\t \"#$&'()*;<>?[\\`|~";
    for (char c : starred)
        EXPECT_EQ(zarnet::sh_quote(std::string(1, c)), std::string("\\") + c)
            << "character code " << static_cast<int>(c) << " not backslashed";
    EXPECT_EQ(zarnet::sh_quote(starred).size(), 2 * starred.size());
}

TEST(ShQuote, HighBytesCopiedWithoutTableLookup)
{
    // A signed char index would read before the table: the sanitizer reports it.
    for (int b = 128; b < 256; ++b) {
        const std::string text(1, static_cast<char>(b));
        EXPECT_EQ(zarnet::sh_quote(text), text) << "byte " << b;
    }
}

TEST(CheckShellArg, AgreesWithQuotingForEveryByte)
{
    // An argument needs no quoting exactly when quoting would leave it alone.
    for (int b = 1; b < 256; ++b) {
        const std::string text = std::string("x") + static_cast<char>(b) + "y";
        const int want = zarnet::sh_quote(text) == text ? 1 : 0;
        EXPECT_EQ(check_shell_arg_nothrow(text.c_str()), want) << "byte " << b;
    }
    EXPECT_EQ(check_shell_arg_nothrow(nullptr), 1);
    EXPECT_EQ(check_shell_arg_nothrow(""), 1);
}

TEST(CheckShellArg, ThrowingVariant)
{
    EXPECT_NO_THROW(zarnet::check_shell_arg("plain-word"));
    try {
        zarnet::check_shell_arg("two words");
        ADD_FAILURE() << "blank accepted";
    } catch (const std::runtime_error &e) {
        EXPECT_STREQ(e.what(), "Internal error: bad escape_chars value");
    }
}
