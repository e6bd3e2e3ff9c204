#include "utils/liblog.h"

#include "test_common.h"

TEST(ZarnetLog, ThresholdAndTargetDecideWhatReachesBothStreams)
{
    // target null: no zarnet_log_init, the defaults
    const struct { const char *fault; const char *target; int level; const char *want; } cases[] = {
        {"default threshold not 6", nullptr, 0, "six\ncrit\n"},
        {"console threshold not raised", "console", 12, "twelve\ndebug 7\nsix\ncrit\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            if (c.target)
                zarnet_log_init(c.target, c.level, 0, 0, "test");
            zarnet_log(12, "twelve");
            zarnet_log(7, "debug %d", 7);
            zarnet_log(6, "six");
            zarnet_log(2, "%s", "crit");
            return 0;
        });
        EXPECT_EQ(r.out + "|" + r.err, std::string(c.want) + "|" + c.want) << c.fault;
    }
}
