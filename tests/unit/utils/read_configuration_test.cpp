#include "utils/read_configuration.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string orNull(const char *s)
{
    return s != nullptr ? std::string("\"") + s + "\"" : std::string("(null)");
}

class ConfDir : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "zrnconf.XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        ASSERT_NE(mkdtemp(buf.data()), nullptr);
        dir_ = buf.data();
        path_ = dir_ + "/zrn.conf";
        zrn_conf_set_path_for_testing(path_.c_str());
    }

    void TearDown() override
    {
        zrn_conf_set_path_for_testing(nullptr);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    void write(const std::string &content)
    {
        std::ofstream f(path_, std::ios::binary | std::ios::trunc);
        f << content;
    }

    std::string dir_;
    std::string path_;
};

} // namespace

using ConfReader = ConfDir;

TEST_F(ConfReader, Grammar)
{
    const std::string long_value(100000, 'v');
    const struct {
        const char *fault;
        std::string content;
        const char *name;
        const char *want; // null: not defined
    } cases[] = {
        {"plain_definition_lost", "FOO /srv/mail\n", "FOO", "/srv/mail"},
        {"comment_line_read", "# FOO x\n  #FOO y\n", "FOO", nullptr},
        {"hash_after_value_kept", "FOO /srv/mail # moved\n", "FOO", "/srv/mail"},
        {"hash_glued_to_value_kept", "FOO a#b\n", "FOO", "a"},
        {"trailing_blanks_kept", "FOO value \t \n", "FOO", "value"},
        {"carriage_return_kept", "FOO value\r\n", "FOO", "value"},
        {"inner_blanks_lost", "FOO a b  c\n", "FOO", "a b  c"},
        {"tab_separator_refused", "FOO\tx\n", "FOO", "x"},
        {"leading_whitespace_refused", "  \t FOO x\n", "FOO", "x"},
        {"blank_lines_stop_reading", "\n \n\t\nFOO x\n", "FOO", "x"},
        {"equals_after_name_accepted", "FOO=x\n", "FOO", nullptr},
        {"equals_with_blank_accepted", "FOO= x\n", "FOO", nullptr},
        {"equals_value_after_blank_refused", "FOO =x\n", "FOO", "=x"},
        {"name_without_value_accepted", "FOO\n", "FOO", nullptr},
        {"name_with_blanks_only_accepted", "FOO   \n", "FOO", nullptr},
        {"name_with_comment_only_accepted", "FOO # nothing\n", "FOO", nullptr},
        {"bad_name_character_accepted", "FO-O x\n", "FO", nullptr},
        {"malformed_line_stops_reading", "FOO=1\nBAR 2\n", "BAR", "2"},
        {"first_duplicate_wins", "FOO a\nFOO b\n", "FOO", "b"},
        {"lookup_case_insensitive", "foo lower\n", "FOO", nullptr},
        {"case_variants_merged", "foo lower\nFOO upper\n", "foo", "lower"},
        {"long_line_truncated", "FOO " + long_value + "\nBAR after\n", "FOO", long_value.c_str()},
        {"line_after_long_line_lost", "FOO " + long_value + "\nBAR after\n", "BAR", "after"},
        {"last_line_without_line_feed_lost", "FOO a\nBAR last", "BAR", "last"},
        {"empty_file_fails", "", "FOO", nullptr},
    };
    for (const auto &c : cases) {
        write(c.content);
        conf_store store = {};
        EXPECT_EQ(conf_read_file_r(path_.c_str(), &store), 0) << c.fault;
        EXPECT_EQ(orNull(conf_get_r(c.name, &store)), orNull(c.want)) << c.fault;
        conf_free_r(&store);
    }
}

TEST_F(ConfReader, MissingFileFailsWithErrno)
{
    conf_store store = {};
    errno = 0;
    EXPECT_EQ(conf_read_file_r((dir_ + "/absent").c_str(), &store), -1);
    EXPECT_EQ(errno, ENOENT);
    conf_free_r(&store);
}

TEST(ConfStore, GrowsAndFindsEveryNameSortedOrNot)
{
    // Enough names to grow past the first capacity several times, inserted
    // out of order, with every name redefined once.
    conf_store store = {};
    ASSERT_EQ(conf_init_r(&store), 0);
    const int n = 200;
    for (int pass = 0; pass < 2; ++pass)
        for (int i = n - 1; i >= 0; --i) {
            const std::string name = "N" + std::to_string(i * 7919 % n);
            const std::string value = name + (pass == 0 ? "-old" : "-new");
            ASSERT_EQ(conf_set_r(name.c_str(), value.c_str(), &store), 0);
        }
    EXPECT_EQ(store.count, static_cast<unsigned>(n)) << "redefinition appended";
    EXPECT_EQ(store.sorted, 0) << "appending kept the sorted flag";

    for (int sorted = 0; sorted < 2; ++sorted) {
        if (sorted)
            conf_finalize_r(&store);
        for (int i = 0; i < n; ++i) {
            const std::string name = "N" + std::to_string(i);
            EXPECT_EQ(orNull(conf_get_r(name.c_str(), &store)), orNull((name + "-new").c_str()))
                << (sorted ? "bisecting" : "linear") << " lookup";
        }
        EXPECT_EQ(conf_get_r("N", &store), nullptr);
        EXPECT_EQ(conf_get_r("N9999", &store), nullptr);
    }
    conf_free_r(&store);
    EXPECT_EQ(store.count, 0u);
    EXPECT_EQ(store.entries, nullptr);
}

TEST(ConfStore, SetOnZeroedStoreGrowsFromNothing)
{
    conf_store store = {};
    ASSERT_EQ(conf_set_r("A", "1", &store), 0) << "zero capacity not grown";
    EXPECT_EQ(orNull(conf_get_r("A", &store)), orNull("1"));
    conf_free_r(&store);
}

using ZrnConf = ConfDir;

TEST_F(ZrnConf, DefaultsTableWhenFileIsMissing)
{
    const struct {
        int index;
        const char *name;
        const char *value;
    } table[] = {
        {ZRN_CONF_INDEX_MIN, "_MIN_POSSIBLE_ZRN_CONF_VAR_NAME", "_MIN_POSSIBLE_ZRN_CONF_VAR_VALUE"},
        {ZARNET_MAILNAMES_D, "ZARNET_MAILNAMES_D", "/var/qmail/mailnames"},
        {COURIER_IMAP_ROOT_D, "COURIER_IMAP_ROOT_D", "/"},
        {RBLSMTPD, "RBLSMTPD", "/usr/sbin/rblsmtpd"},
        {CLIENT_PHP_BIN, "CLIENT_PHP_BIN", "/usr/local/zrn/bin/php-cli"},
        {LIB_CRYPTO_PATH, "LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
        {LIB_SSL_PATH, "LIB_SSL_PATH", "/lib/libssl.so"},
        {AWSTATS_DOC_D, "AWSTATS_DOC_D", "/var/www/html/awstats"},
        {AWSTATS_TOOLS_D, "AWSTATS_TOOLS_D", "/usr/share/awstats"},
        {AWSTATS_BIN_D, "AWSTATS_BIN_D", "/var/www/cgi-bin/awstats"},
        {AWSTATS_ETC_D, "AWSTATS_ETC_D", "/etc/awstats"},
        {CATALINA_HOME, "CATALINA_HOME", "/usr/share/tomcat5"},
        {MAILMAN_VAR_D, "MAILMAN_VAR_D", "/var/lib/mailman"},
        {MAILMAN_ROOT_D, "MAILMAN_ROOT_D", "/usr/lib/mailman"},
        {PGSQL_DATA_D, "PGSQL_DATA_D", "/var/lib/pgsql/data"},
        {PGSQL_BIN_D, "PGSQL_BIN_D", "/usr/bin"},
        {MYSQL_BIN_D, "MYSQL_BIN_D", "/usr/bin"},
        {MYSQL_VAR_D, "MYSQL_VAR_D", "/var/lib/mysql"},
        {WEB_STAT, "WEB_STAT", "/usr/bin/webalizer"},
        {DUMP_D, "DUMP_D", "/var/lib/zrn/dumps"},
        {DUMP_TMP_D, "DUMP_TMP_D", "/tmp"},
        {NAMED_RUN_ROOT_D, "NAMED_RUN_ROOT_D", "/var/named/run-root"},
        {FTPD_CONF_INC, "FTPD_CONF_INC", "/etc/proftpd.include"},
        {HTTPD_SERVICE, "HTTPD_SERVICE", "httpd"},
        {HTTPD_LOG_D, "HTTPD_LOG_D", "/var/log/httpd"},
        {HTTPD_INCLUDE_D, "HTTPD_INCLUDE_D", "/etc/httpd/conf.d"},
        {HTTPD_CONF_D, "HTTPD_CONF_D", "/etc/httpd/conf"},
        {HTTPD_VHOSTS_D, "HTTPD_VHOSTS_D", "/var/www/vhosts"},
        {PRODUCT_ROOT_D, "PRODUCT_ROOT_D", "/usr/local/zrn"},
    };
    for (const auto &v : table) {
        EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(v.index)), orNull(v.value)) << v.name;
        EXPECT_EQ(orNull(zrnConfGetDefault(v.name)), orNull(v.value)) << v.name;
        EXPECT_EQ(zrnConfGetByIndex(v.index), nullptr) << v.name;
    }
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(ZRN_CONF_INDEX_MAX)),
              orNull("_MAX_POSSIBLE_ZRN_CONF_VAR_VALUE"));
    EXPECT_EQ(zrnConfGetDefaultByIndex(-1), nullptr) << "index below the table";
    EXPECT_EQ(zrnConfGetDefaultByIndex(30), nullptr) << "index past the table";
}

TEST_F(ZrnConf, FileValueOverridesOnlyItsVariable)
{
    write("ZARNET_MAILNAMES_D /srv/mail\n");
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D)), orNull("/srv/mail"));
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/usr/local/zrn"));
    EXPECT_EQ(orNull(zrnConfGetDefault("ZARNET_MAILNAMES_D")), orNull("/srv/mail"));
    EXPECT_EQ(zrnConfGet("PRODUCT_ROOT_D"), nullptr) << "default leaked into zrnConfGet";
    EXPECT_EQ(zrnConfGetByIndex(PRODUCT_ROOT_D), nullptr);
}

TEST_F(ZrnConf, MissingFileIsRetriedOnTheNextRequest)
{
    EXPECT_EQ(zrnConfGet("PRODUCT_ROOT_D"), nullptr);
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/usr/local/zrn"));

    write("PRODUCT_ROOT_D /opt/zrn\n");
    EXPECT_EQ(orNull(zrnConfGet("PRODUCT_ROOT_D")), orNull("/opt/zrn"))
        << "failed load remembered";
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/opt/zrn"));
}

TEST_F(ZrnConf, LoadedOnceForTheWholeRun)
{
    write("HTTPD_SERVICE apache2\n");
    const char *first = zrnConfGetByIndex(HTTPD_SERVICE);
    EXPECT_EQ(orNull(first), orNull("apache2"));

    write("HTTPD_SERVICE nginx\nPRODUCT_ROOT_D /opt/zrn\n");
    EXPECT_EQ(zrnConfGetByIndex(HTTPD_SERVICE), first) << "not served from the cache";
    EXPECT_EQ(orNull(zrnConfGet("HTTPD_SERVICE")), orNull("apache2")) << "file read twice";
    EXPECT_EQ(zrnConfGet("PRODUCT_ROOT_D"), nullptr) << "file read twice";

    zrn_conf_reset_for_testing();
    EXPECT_EQ(orNull(zrnConfGetByIndex(HTTPD_SERVICE)), orNull("nginx")) << "reset kept state";
}

TEST_F(ZrnConf, LookupsKeepCallersErrno)
{
    // Missing file: loading fails with ENOENT inside, yet the caller's errno
    // survives for the error report the lookup may be an argument of.
    errno = EACCES;
    zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D);
    EXPECT_EQ(errno, EACCES);
    write("ZARNET_MAILNAMES_D /srv/mail\n");
    errno = EACCES;
    zrnConfGet("ZARNET_MAILNAMES_D");
    EXPECT_EQ(errno, EACCES);
}

TEST_F(ZrnConf, UnknownNameReportedOnBothStreams)
{
    zrn_conf_set_path_for_testing(nullptr);
    for (const char *name : {"NO_SUCH_VAR", "_MAX_POSSIBLE_ZRN_CONF_VAR_NAME", "zarnet_mailnames_d"}) {
        const std::string expected = std::string("variable '") + name +
            "' isn't found neither in /etc/zrn/zrn.conf nor in compile-time defaults\n";
        errno = 0;
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        const char *got = zrnConfGetDefault(name);
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(got, nullptr) << name;
        EXPECT_EQ(err, expected) << name;
        EXPECT_EQ(out, expected) << name;
    }
}
