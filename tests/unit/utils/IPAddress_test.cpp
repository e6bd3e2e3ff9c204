#include "utils/IPAddress.h"

#include <gtest/gtest.h>

TEST(IsLoopbackIP, RecognisesLoopbackSpellings)
{
    const struct {
        const char *fault;
        const char *address;
        int want;
    } cases[] = {
        {"ipv4_loopback_net_missed", "127.0.0.2", 1},
        {"ipv6_loopback_missed", "::1", 1},
        {"mapped_loopback_missed", "::ffff:127.1.2.3", 1},
        {"private_ipv4_taken", "10.0.0.1", 0},
        {"mapped_private_taken", "::ffff:10.0.0.1", 0},
        {"ipv6_unspecified_taken", "::", 0},
        {"compat_127_taken", "::127.0.0.1", 0},
        {"prefix_128_without_dot_taken", "1270::1", 0},
        {"garbage_taken", "localhost", 0},
        {"empty_taken", "", 0},
        {"null_crashes", nullptr, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(isLoopbackIP(c.address), c.want) << c.fault;
}

TEST(InSubnet, ComparesPrefixBitsPerFamily)
{
    const struct {
        const char *fault;
        const char *address;
        const char *network;
        unsigned prefix;
        int want;
    } cases[] = {
        {"v4_inside_missed", "192.0.2.77", "192.0.2.0", 24, 1},
        {"v4_partial_byte_mask_wrong", "192.0.2.130", "192.0.2.128", 25, 1},
        {"v4_partial_byte_mask_too_wide", "192.0.2.127", "192.0.2.128", 25, 0},
        {"v4_zero_prefix_not_everything", "198.51.100.1", "10.0.0.0", 0, 1},
        {"v4_prefix_not_clamped", "192.0.2.1", "192.0.2.1", 200, 1},
        {"v4_clamped_prefix_ignores_difference", "192.0.2.1", "192.0.2.2", 33, 0},
        {"v6_inside_missed", "2001:db8:1::5", "2001:db8::", 32, 1},
        {"v6_partial_byte_mask_wrong", "2001:db8::ff", "2001:db8::80", 121, 1},
        {"v6_prefix_not_clamped", "2001:db8::1", "2001:db8::1", 1000, 1},
        {"v6_clamped_prefix_ignores_difference", "2001:db8::1", "2001:db8::2", 129, 0},
        {"mixed_families_compared", "10.0.0.1", "::ffff:10.0.0.1", 128, 0},
        {"garbage_matches", "not-an-ip", "10.0.0.0", 8, 0},
        {"null_network_crashes", "10.0.0.1", nullptr, 8, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(inSubnet(c.address, c.network, c.prefix), c.want) << c.fault;
}

TEST(AreAddressesSame, ComparesWholeAddresses)
{
    const struct {
        const char *fault;
        const char *first;
        const char *second;
        int want;
    } cases[] = {
        {"same_v4_differs", "192.0.2.1", "192.0.2.1", 1},
        {"last_v4_bit_ignored", "192.0.2.1", "192.0.2.0", 0},
        {"v6_spelling_matters", "2001:db8::1", "2001:0db8:0:0::0:1", 1},
        {"last_v6_bit_ignored", "2001:db8::1", "2001:db8::", 0},
        {"mapped_equals_v4", "::ffff:192.0.2.1", "192.0.2.1", 0},
        {"empty_equals_empty", "", "", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(areAddressesSame(c.first, c.second), c.want) << c.fault;
}
