#include "utils/product_log.h"

#include "test_common.h"

TEST(Messlog2, WritesBothStreamsWithOneLineFeedAndEndsOnStatus)
{
    const std::string big(10000, 'x'); // beyond the first buffer
    const struct { const char *fault; int status, saved_errno; std::string format, want; } cases[] = {
        {"line feed not added", 0, 0, "plain %d", "plain 5\n"},
        {"existing line feed doubled", 0, 0, "ends %d\n", "ends 5\n"},
        {"errno line missing", 0, ENOENT, "open(%d)", "open(5)\nSystem error 2: No such file or directory\n"},
        {"long message cut", 0, EACCES, big + "%d", big + "5\nSystem error 13: " + std::strerror(EACCES) + "\n"},
        {"status not ending the process after writing", 1, 0, "fatal %d", "fatal 5\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            errno = c.saved_errno;
            messlog2(c.status, 0, c.format.c_str(), 5);
            return 7;
        });
        EXPECT_EQ(r.status, c.status ? c.status : 7) << c.fault;
        EXPECT_EQ(r.out + "|" + r.err, c.want + "|" + c.want) << c.fault;
    }
}
