#include "utils/md5.h"

#include <gtest/gtest.h>

#include <string>

TEST(Md5, Rfc1321VectorsAndLockFileName)
{
    const struct {
        std::string input;
        const char *want;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // The lock file of main.cf: every panel tool must derive the same one.
        {"/etc/postfix/main.cf", "7963c3b4b0754641744c1ae241e19575"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(zarnet::md5Hex(c.input), c.want) << '"' << c.input << '"';
}
