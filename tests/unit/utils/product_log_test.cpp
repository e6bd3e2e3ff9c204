#include "utils/product_log.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

using testsupport::runInChild;

TEST(Messlog2, WritesBothStreamsAndOneLineFeed)
{
    const struct {
        const char *name;
        int saved_errno;
        const char *format;
        const char *want;
    } cases[] = {
        {"adds_line_feed", 0, "plain", "plain\n"},
        {"keeps_existing_line_feed", 0, "ends\n", "ends\n"},
        {"formats_arguments", 0, "%s=%d", "x=5\n"},
        {"appends_errno_line", ENOENT, "open(f)",
         "open(f)\nSystem error 2: No such file or directory\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            errno = c.saved_errno;
            if (std::strcmp(c.format, "%s=%d") == 0)
                messlog2(0, 0, "%s=%d", "x", 5);
            else
                messlog2(0, 0, "%s", c.format);
            return 0;
        });
        EXPECT_EQ(r.status, 0) << c.name;
        EXPECT_EQ(r.err, c.want) << c.name;
        EXPECT_EQ(r.out, c.want) << c.name;
    }
}

TEST(Messlog2, StatusEndsTheProcessAfterWriting)
{
    const auto r = runInChild([] {
        errno = 0;
        messlog2(1, 0, "fatal %s", "thing");
        return 0; // not reached
    });
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "fatal thing\n");
}

TEST(Messlog2, MessageLongerThanFirstBufferIsWhole)
{
    const std::string big(10000, 'x');
    const auto r = runInChild([&] {
        errno = EACCES;
        messlog2(0, 0, "%s", big.c_str());
        return 0;
    });
    EXPECT_EQ(r.out, big + "\nSystem error 13: " + std::strerror(EACCES) + "\n");
}
