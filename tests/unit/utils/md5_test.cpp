#include "utils/md5.h"

#include <gtest/gtest.h>

#include <string>

using zarnet::Md5;
using zarnet::md5Hex;

TEST(Md5, KnownDigests)
{
    const struct {
        const char *name;
        std::string input;
        const char *want;
    } cases[] = {
        {"empty_input_still_padded", "", "d41d8cd98f00b204e9800998ecf8427e"},
        {"one_byte", "a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message_digest", "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"two_blocks_of_digits",
         "1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // Around the padding boundary: 55 bytes leave room for the length in
        // the same block, 56 do not, 64 fill a block exactly.
        {"length_55_pads_in_one_block", std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {"length_56_needs_extra_block", std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {"length_57", std::string(57, 'a'), "652b906d60af96844ebd21b674f35e93"},
        {"length_63", std::string(63, 'a'), "b06521f39153d618550606be297466d5"},
        {"length_64_exact_block", std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {"length_65", std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
        {"length_119", std::string(119, 'a'), "8a7bd0732ed6a28ce75f6dabc90e1613"},
        {"length_120", std::string(120, 'a'), "5f61c0ccad4cac44c75ff505e1f1e537"},
        {"million_a", std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(md5Hex(c.input), c.want) << c.name;
}

TEST(Md5, HighBytesAndMegabyteInput)
{
    // Bytes above 0x7f catch sign extension when words are assembled.
    std::string input(1 << 20, '\0');
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = static_cast<char>(i % 251);
    EXPECT_EQ(md5Hex(input), "8f293a2f6c19b345152f7a49bb4c643c");
}

TEST(Md5, SplitFeedingEqualsOneShot)
{
    std::string input(200, '\0');
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = static_cast<char>(i * 7 + 3);
    const std::string want = md5Hex(input);
    for (size_t split = 0; split <= input.size(); ++split) {
        Md5 md5;
        md5.update(input.data(), split);
        md5.update(input.data() + split, input.size() - split);
        const Md5::Digest digest = md5.finish();
        std::string got;
        static const char hex[] = "0123456789abcdef";
        for (unsigned char b : digest) {
            got += hex[b >> 4];
            got += hex[b & 0xf];
        }
        ASSERT_EQ(got, want) << "split at " << split;
    }
}
