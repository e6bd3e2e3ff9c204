#include "mailtend/OptionTypes.h"

#include <gtest/gtest.h>

using zarnet::mail::postfix::mailtend_commands::parseIPMask;

TEST(IPMask, TextRules)
{
    const struct {
        const char *fault;
        const char *text;
        int want; // -1: rejected
    } cases[] = {
        {"plain", "24", 24}, {"upper_bound", "128", 128}, {"zero", "0", 0},
        {"leading_blank_and_plus", " +24", 24}, {"leading_tab", "\t8", 8},
        {"plus_then_blanks_then_digits", "+ 16", 16}, {"plus_then_blanks_only_is_zero", "+  ", 0},
        {"lone_plus", "+", -1}, {"above_128", "129", -1}, {"above_16_bits", "65536", -1},
        {"huge_does_not_wrap", "18446744073709551640", -1}, {"negative", "-1", -1},
        {"blank_then_negative", " -1", -1}, {"trailing_blank", "24 ", -1}, {"hex", "0x18", -1},
        {"empty", "", -1}, {"blanks_only", "  ", -1}, {"double_plus", "++1", -1},
        {"embedded_letter", "2a", -1},
    };
    for (const auto &c : cases) {
        uint16_t got = 999;
        const bool ok = parseIPMask(c.text, got);
        EXPECT_EQ(ok ? got : -1, c.want) << c.fault << ": text '" << c.text << "'";
    }
}
