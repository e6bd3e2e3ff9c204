#include "utils/sh_quoting.h"

#include "test_common.h"

TEST(ShQuote, QuotesPerCharacterClassAndEveryByteAgreesWithTheArgumentCheck)
{
    EXPECT_EQ(zarnet::sh_quote("a\nb"), "a'\n'b");
    EXPECT_EQ(zarnet::sh_quote("Ab0-_.,/:=+%@!{}]^\r\xc3\xb6"), "Ab0-_.,/:=+%@!{}]^\r\xc3\xb6");
    EXPECT_EQ(zarnet::sh_quote("\t \"#$&'()*;<>?[\\`|~"), "\\\t\\ \\\"\\#\\$\\&\\'\\(\\)\\*\\;\\<\\>\\?\\[\\\\\\`\\|\\~");
    // An argument needs no quoting exactly when quoting leaves it alone; a
    // signed char index would read before the table for high bytes (the
    // sanitizer reports it), and those are copied unchanged.
    for (int b = 1; b < 256; ++b) {
        const std::string text = std::string("x") + static_cast<char>(b) + "y";
        const int want = zarnet::sh_quote(text) == text ? 1 : 0;
        EXPECT_EQ(check_shell_arg_nothrow(text.c_str()), want) << "byte " << b;
        EXPECT_TRUE(b < 128 || want) << "byte " << b << " altered";
    }
    EXPECT_TRUE(check_shell_arg_nothrow(nullptr) && check_shell_arg_nothrow(""));
    EXPECT_EQ(testsupport::thrown([] { zarnet::check_shell_arg("plain-word"); }) + "|" +
                  testsupport::thrown([] { zarnet::check_shell_arg("two words"); }),
              "nothing|runtime_error: Internal error: bad escape_chars value");
}
