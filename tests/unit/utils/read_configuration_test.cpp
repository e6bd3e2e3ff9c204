#include "utils/read_configuration.h"

#include "test_common.h"

namespace {

std::string orNull(const char *s) { return s != nullptr ? std::string("\"") + s + "\"" : std::string("(null)"); }

class ZrnConf : public testing::Test {
protected:
    void SetUp() override { zrn_conf_set_path_for_testing(path_.c_str()); }
    void TearDown() override { zrn_conf_set_path_for_testing(nullptr); }
    void write(const std::string &content) { testsupport::spit(path_, content); }

    const testsupport::TempDir temp_{"zrnconf"};
    const std::string path_ = temp_.path() + "/zrn.conf";
};

} // namespace

TEST_F(ZrnConf, Grammar)
{
    const std::string long_value(100000, 'v');
    // want: a null value for not defined
    const struct { const char *fault; std::string content;
                     std::vector<std::pair<const char *, const char *>> want; } cases[] = {
        {"plain_definition_lost", "FOO /srv/mail\n", {{"FOO", "/srv/mail"}}},
        {"comment_line_read", "# FOO x\n  #FOO y\n", {{"FOO", nullptr}}},
        {"hash_glued_to_value_kept", "FOO a#b\n", {{"FOO", "a"}}},
        {"trailing_blanks_or_carriage_return_kept", "FOO value \t \r\n", {{"FOO", "value"}}},
        {"inner_blanks_lost", "FOO a b  c\n", {{"FOO", "a b  c"}}},
        {"tab_separator_or_leading_whitespace_refused", "\t FOO\tx\n", {{"FOO", "x"}}},
        {"non_name_character_after_name_accepted", "FOO=x\n", {{"FOO", nullptr}}},
        {"name_without_value_accepted", "FOO  \n", {{"FOO", nullptr}}},
        {"malformed_line_stops_reading", "FOO=1\n\nBAR 2\n", {{"BAR", "2"}}},
        {"first_duplicate_wins", "FOO a\nFOO b\n", {{"FOO", "b"}}},
        {"names_not_case_sensitive", "foo lower\nFOO upper\n", {{"foo", "lower"}, {"FOO", "upper"}, {"Foo", nullptr}}},
        {"long_line_cut_or_next_line_lost", "FOO " + long_value + "\nBAR last", {{"FOO", long_value.c_str()}, {"BAR", "last"}}},
        {"empty_file_fails", "", {{"FOO", nullptr}}},
        {"missing_file_read", "", {}},
    };
    for (const auto &c : cases) {
        write(c.content);
        conf_store store = {};
        const bool missing = c.want.empty();
        errno = 0;
        EXPECT_EQ(conf_read_file_r((path_ + (missing ? ".absent" : "")).c_str(), &store), missing ? -1 : 0) << c.fault;
        EXPECT_TRUE(!missing || errno == ENOENT) << c.fault << ": errno " << errno;
        for (const auto &[name, value] : c.want)
            EXPECT_EQ(orNull(conf_get_r(name, &store)), orNull(value)) << c.fault << ": " << name;
        conf_free_r(&store);
    }
}

TEST_F(ZrnConf, DefaultsUntilTheFileAppearsThenEachIndexFindsItsOwnNameAndTheFileIsReadOnce)
{
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(ZRN_CONF_INDEX_MIN)), orNull("_MIN_POSSIBLE_ZRN_CONF_VAR_VALUE"));
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(ZRN_CONF_INDEX_MAX)), orNull("_MAX_POSSIBLE_ZRN_CONF_VAR_VALUE"));
    EXPECT_EQ(orNull(zrnConfGetDefault("ZARNET_MAILNAMES_D")), orNull("/var/qmail/mailnames"));
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/usr/local/zrn"));
    EXPECT_EQ(zrnConfGetDefaultByIndex(-1), zrnConfGetDefaultByIndex(30)) << "index outside the table";
    errno = EACCES; // the lookup may be an argument of the caller's error report
    EXPECT_EQ(zrnConfGetByIndex(HTTPD_SERVICE), nullptr);
    EXPECT_EQ(errno, EACCES) << "the failed load changed errno";
    // The names grow the store past its first capacity and, sorted, are found by binary search.
    const char *const names[] = {"ZARNET_MAILNAMES_D", "COURIER_IMAP_ROOT_D", "RBLSMTPD", "CLIENT_PHP_BIN",
        "LIB_CRYPTO_PATH", "LIB_SSL_PATH", "AWSTATS_DOC_D", "AWSTATS_TOOLS_D", "AWSTATS_BIN_D", "AWSTATS_ETC_D",
        "CATALINA_HOME", "MAILMAN_VAR_D", "MAILMAN_ROOT_D", "PGSQL_DATA_D", "PGSQL_BIN_D", "MYSQL_BIN_D", "MYSQL_VAR_D",
        "WEB_STAT", "DUMP_D", "DUMP_TMP_D", "NAMED_RUN_ROOT_D", "FTPD_CONF_INC", "HTTPD_SERVICE", "HTTPD_LOG_D",
        "HTTPD_INCLUDE_D", "HTTPD_CONF_D", "HTTPD_VHOSTS_D", "PRODUCT_ROOT_D"};
    std::string file;
    for (int i = ZARNET_MAILNAMES_D; i <= PRODUCT_ROOT_D; ++i)
        file += std::string(names[i - 1]) + " v" + std::to_string(i) + "\n";
    write(file);
    for (int i = ZARNET_MAILNAMES_D; i <= PRODUCT_ROOT_D; ++i)
        EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(i)), "\"v" + std::to_string(i) + "\"") << names[i - 1];
    zrn_conf_reset_for_testing();
    write("HTTPD_SERVICE apache2\n");
    errno = EACCES;
    const char *first = zrnConfGetByIndex(HTTPD_SERVICE);
    EXPECT_EQ(errno, EACCES) << "loading the file changed errno";
    EXPECT_EQ(orNull(zrnConfGetDefault("HTTPD_SERVICE")), orNull("apache2"));
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/usr/local/zrn"));
    EXPECT_EQ(zrnConfGetByIndex(PRODUCT_ROOT_D), nullptr) << "default leaked into zrnConfGetByIndex";
    write("HTTPD_SERVICE nginx\nPRODUCT_ROOT_D /opt/zrn\n");
    EXPECT_EQ(zrnConfGetByIndex(HTTPD_SERVICE), first) << "not served from the cache";
    EXPECT_EQ(orNull(zrnConfGet("HTTPD_SERVICE")) + orNull(zrnConfGet("PRODUCT_ROOT_D")), "\"apache2\"(null)") << "file read twice";
    zrn_conf_reset_for_testing();
    EXPECT_EQ(orNull(zrnConfGetByIndex(HTTPD_SERVICE)), orNull("nginx")) << "reset kept state";
    zrn_conf_set_path_for_testing(nullptr);
    const std::string expected =
        "variable 'zarnet_mailnames_d' isn't found neither in /etc/zrn/zrn.conf nor in compile-time defaults\n";
    const auto r = testsupport::runInChild([] { return errno = 0, zrnConfGetDefault("zarnet_mailnames_d") == nullptr ? 0 : 1; });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err + r.out, expected + expected);
}
