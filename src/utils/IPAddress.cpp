#include "utils/IPAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace {

// Compares the first prefix bits (at most 128) of two 16-byte buffers.
bool samePrefix(const unsigned char (&a)[16], const unsigned char (&b)[16], unsigned prefix)
{
    const unsigned whole = prefix / 8;
    if (std::memcmp(a, b, whole) != 0)
        return false;
    const unsigned rest = prefix % 8;
    if (rest == 0)
        return true;
    const unsigned char mask = static_cast<unsigned char>(0xff << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

} // namespace

int isLoopbackIP(const char *address)
{
    if (address == nullptr)
        return 0;
    if (std::strncmp(address, "127.", 4) == 0)
        return 1;

    struct in6_addr a6;
    if (inet_pton(AF_INET6, address, &a6) != 1)
        return 0;
    if (std::memcmp(&a6, &in6addr_loopback, sizeof a6) == 0)
        return 1;
    // ::ffff:127.0.0.0/8: ten zero bytes, two 0xff bytes, then 127.
    static const unsigned char mapped_loopback[13] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                      0xff, 0xff, 127};
    return std::memcmp(a6.s6_addr, mapped_loopback, sizeof mapped_loopback) == 0;
}

int inSubnet(const char *address, const char *network, unsigned prefix)
{
    if (address == nullptr || network == nullptr)
        return 0;

    // Both families land in 16-byte buffers, so no prefix can make the
    // comparison read past an address.
    unsigned char a[16] = {}, n[16] = {};
    unsigned width = 32;
    if (inet_pton(AF_INET, address, a) != 1 || inet_pton(AF_INET, network, n) != 1) {
        width = 128;
        if (inet_pton(AF_INET6, address, a) != 1 || inet_pton(AF_INET6, network, n) != 1)
            return 0;
    }
    if (prefix > width)
        prefix = width;
    return samePrefix(a, n, prefix);
}

int areAddressesSame(const char *first, const char *second)
{
    return inSubnet(first, second, 128);
}
