#include "utils/liblog.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

using testsupport::runInChild;

TEST(ZarnetLog, ThresholdFiltersLevels)
{
    const auto r = runInChild([] {
        zarnet_log(7, "debug %d", 7);
        zarnet_log(6, "info %d", 6);
        zarnet_log(2, "crit");
        return 0;
    });
    EXPECT_EQ(r.err, "info 6\ncrit\n") << r;
    EXPECT_EQ(r.out, "info 6\ncrit\n") << r;
}

TEST(ZarnetLog, InitChangesThresholdAndTarget)
{
    const struct {
        const char *name;
        const char *target;
        int level;
        const char *want;
    } cases[] = {
        {"console_raises_threshold", "console", 12, "twelve\nsix\n"},
        {"console_prefix_is_case_insensitive", "CONSOLE:x", 6, "six\n"},
        {"other_target_disables", "file", 12, ""},
        {"level_zero_disables", "console", 0, ""},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            zarnet_log_init(c.target, c.level, 0, 0, "test");
            zarnet_log(12, "twelve");
            zarnet_log(6, "six");
            return 0;
        });
        EXPECT_EQ(r.out, c.want) << c.name;
        EXPECT_EQ(r.err, c.want) << c.name;
    }
}
