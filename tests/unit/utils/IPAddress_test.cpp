#include "utils/IPAddress.h"

#include "test_common.h"

TEST(IPAddress, LoopbackSubnetAndSameness)
{
    const struct { const char *fault; int got, want; } cases[] = {
        {"IPv4 loopback net missed", isLoopbackIP("127.0.0.2"), 1},
        {"IPv6 loopback missed", isLoopbackIP("::1"), 1},
        {"mapped loopback missed", isLoopbackIP("::ffff:127.1.2.3"), 1},
        {"private IPv4 taken", isLoopbackIP("10.0.0.1"), 0},
        {"mapped private taken", isLoopbackIP("::ffff:10.0.0.1"), 0},
        {"compatible 127 taken", isLoopbackIP("::127.0.0.1"), 0},
        {"prefix 127 without dot taken", isLoopbackIP("1270::1"), 0},
        {"garbage or empty taken", isLoopbackIP("localhost") + isLoopbackIP("") + isLoopbackIP(nullptr), 0},
        {"v4 inside missed", inSubnet("192.0.2.77", "192.0.2.0", 24), 1},
        {"v4 partial byte mask wrong", inSubnet("192.0.2.130", "192.0.2.128", 25), 1},
        {"v4 partial byte mask too wide", inSubnet("192.0.2.127", "192.0.2.128", 25), 0},
        {"v4 prefix not clamped", inSubnet("192.0.2.1", "192.0.2.1", 200), 1},
        {"v4 clamped prefix ignores a difference", inSubnet("192.0.2.1", "192.0.2.2", 33), 0},
        {"v6 clamped prefix ignores a difference", inSubnet("2001:db8::1", "2001:db8::2", 129), 0},
        {"garbage or null network matches", inSubnet("not-an-ip", "10.0.0.0", 8) + inSubnet("10.0.0.1", nullptr, 8), 0},
        {"same v4 differs", areAddressesSame("192.0.2.1", "192.0.2.1"), 1},
        {"v6 spelling matters", areAddressesSame("2001:db8::1", "2001:0db8:0:0::0:1"), 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.want) << c.fault;
}
