#include "utils/mysql_client.h"

#include <gtest/gtest.h>

#include <string>

TEST(MysqlClient, ProbeNamesTheLibraryAndWhatIsMissing)
{
    const std::string prefix = "Unable to load MySQL client library: ";
    const struct {
        const char *soname;
        const char *reason; // null: every function resolved
    } cases[] = {
        {mysql_client_soname, nullptr},
        {"libmailtend-absent.so.0", "cannot open shared object file"},
        // Loads, but is not the client: the first function is missing.
        {"libc.so.6", "undefined symbol: mysql_init"},
    };
    for (const auto &c : cases) {
        const std::string got = mysql_client_probe(c.soname);
        if (c.reason == nullptr) {
            EXPECT_EQ(got, "") << c.soname;
            continue;
        }
        EXPECT_EQ(got.rfind(prefix, 0), 0u) << got;
        EXPECT_NE(got.find(c.soname), std::string::npos) << got;
        EXPECT_NE(got.find(c.reason), std::string::npos) << got;
    }
    std::string error = "untouched";
    EXPECT_TRUE(mysql_client_load(&error));
    EXPECT_EQ(error, "untouched");
}
