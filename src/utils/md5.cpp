#include "utils/md5.h"

#include <cstring>

namespace zarnet {

namespace {

const std::uint32_t K[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

const unsigned S[64] = {
    7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
    5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
    4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
    6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21,
};

inline std::uint32_t rotl(std::uint32_t x, unsigned n)
{
    return (x << n) | (x >> (32 - n));
}

} // namespace

Md5::Md5()
{
    reset();
}

void Md5::reset()
{
    state_[0] = 0x67452301;
    state_[1] = 0xefcdab89;
    state_[2] = 0x98badcfe;
    state_[3] = 0x10325476;
    length_ = 0;
}

void Md5::block(const std::uint8_t *p)
{
    // Little-endian words whatever the host order.
    std::uint32_t m[16];
    for (int i = 0; i < 16; ++i)
        m[i] = std::uint32_t(p[4 * i]) | std::uint32_t(p[4 * i + 1]) << 8 |
               std::uint32_t(p[4 * i + 2]) << 16 | std::uint32_t(p[4 * i + 3]) << 24;

    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    for (unsigned i = 0; i < 64; ++i) {
        std::uint32_t f;
        unsigned g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        const std::uint32_t t = d;
        d = c;
        c = b;
        b = b + rotl(a + f + K[i] + m[g], S[i]);
        a = t;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
}

void Md5::update(const void *data, std::size_t size)
{
    const std::uint8_t *p = static_cast<const std::uint8_t *>(data);
    std::size_t used = length_ % 64;
    length_ += size;
    if (used != 0) {
        const std::size_t take = size < 64 - used ? size : 64 - used;
        std::memcpy(buffer_ + used, p, take);
        p += take;
        size -= take;
        if (used + take < 64)
            return;
        block(buffer_);
    }
    for (; size >= 64; p += 64, size -= 64)
        block(p);
    if (size != 0)
        std::memcpy(buffer_, p, size);
}

Md5::Digest Md5::finish()
{
    const std::uint64_t bits = length_ * 8;
    // One 0x80 byte, zeros up to 56 mod 64, then the bit length.
    std::uint8_t pad[72] = {0x80};
    const std::size_t used = length_ % 64;
    const std::size_t padding = used < 56 ? 56 - used : 120 - used;
    for (int i = 0; i < 8; ++i)
        pad[padding + i] = std::uint8_t(bits >> (8 * i));
    update(pad, padding + 8);

    Digest out;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            out[4 * i + j] = std::uint8_t(state_[i] >> (8 * j));
    return out;
}

std::string md5Hex(const void *data, std::size_t size)
{
    static const char hex[] = "0123456789abcdef";
    Md5 md5;
    md5.update(data, size);
    const Md5::Digest digest = md5.finish();
    std::string out(32, '0');
    for (std::size_t i = 0; i < digest.size(); ++i) {
        out[2 * i] = hex[digest[i] >> 4];
        out[2 * i + 1] = hex[digest[i] & 0xf];
    }
    return out;
}

std::string md5Hex(const std::string &data)
{
    return md5Hex(data.data(), data.size());
}

} // namespace zarnet
