#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string orNull(const char *s)
{
    return s != nullptr ? std::string("\"") + s + "\"" : std::string("(null)");
}

class ConfDir : public testing::Test {
protected:
    void SetUp() override { zrn_conf_set_path_for_testing(path_.c_str()); }
    void TearDown() override { zrn_conf_set_path_for_testing(nullptr); }
    void write(const std::string &content) { testsupport::spit(path_, content); }

    const testsupport::TempDir temp_{"zrnconf"};
    const std::string path_ = temp_.path() + "/zrn.conf";
};

} // namespace

using ConfReader = ConfDir;

TEST_F(ConfReader, Grammar)
{
    const std::string long_value(100000, 'v');
    const struct {
        const char *fault;
        std::string content;
        std::vector<std::pair<const char *, const char *>> want; // null value: not defined
    } cases[] = {
        {"plain_definition_lost", "FOO /srv/mail\n", {{"FOO", "/srv/mail"}}},
        {"comment_line_read", "# FOO x\n  #FOO y\n", {{"FOO", nullptr}}},
        {"comment_after_value_kept", "FOO /srv/mail # moved\n", {{"FOO", "/srv/mail"}}},
        {"hash_glued_to_value_kept", "FOO a#b\n", {{"FOO", "a"}}},
        {"trailing_blanks_or_carriage_return_kept", "FOO value \t \r\n", {{"FOO", "value"}}},
        {"inner_blanks_lost", "FOO a b  c\n", {{"FOO", "a b  c"}}},
        {"tab_separator_refused", "FOO\tx\n", {{"FOO", "x"}}},
        {"leading_whitespace_refused", "  \t FOO x\n", {{"FOO", "x"}}},
        {"blank_lines_stop_reading", "\n \n\t\nFOO x\n", {{"FOO", "x"}}},
        {"non_name_character_after_name_accepted", "FOO=x\n", {{"FOO", nullptr}}},
        {"equals_value_after_blank_refused", "FOO =x\n", {{"FOO", "=x"}}},
        {"name_without_value_accepted", "FOO  \n", {{"FOO", nullptr}}},
        {"name_with_comment_only_accepted", "FOO # nothing\n", {{"FOO", nullptr}}},
        {"malformed_line_stops_reading", "FOO=1\nBAR 2\n", {{"BAR", "2"}}},
        {"first_duplicate_wins", "FOO a\nFOO b\n", {{"FOO", "b"}}},
        {"names_not_case_sensitive", "foo lower\nFOO upper\n",
         {{"foo", "lower"}, {"FOO", "upper"}, {"Foo", nullptr}}},
        {"long_line_cut_or_next_line_lost", "FOO " + long_value + "\nBAR after\n",
         {{"FOO", long_value.c_str()}, {"BAR", "after"}}},
        {"last_line_without_line_feed_lost", "FOO a\nBAR last", {{"BAR", "last"}}},
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

using ZrnConf = ConfDir;

TEST_F(ZrnConf, MissingFileGivesDefaultsAndIsRetried)
{
    // Defaults at the table's ends and between them, by index and by name.
    const struct {
        int index;
        const char *name;
        const char *value;
    } defaults[] = {{ZRN_CONF_INDEX_MIN, "_MIN_POSSIBLE_ZRN_CONF_VAR_NAME", "_MIN_POSSIBLE_ZRN_CONF_VAR_VALUE"},
                    {ZARNET_MAILNAMES_D, "ZARNET_MAILNAMES_D", "/var/qmail/mailnames"},
                    {HTTPD_SERVICE, "HTTPD_SERVICE", "httpd"}, {PRODUCT_ROOT_D, "PRODUCT_ROOT_D", "/usr/local/zrn"}};
    for (const auto &v : defaults) {
        EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(v.index)), orNull(v.value)) << v.name;
        EXPECT_EQ(orNull(zrnConfGetDefault(v.name)), orNull(v.value)) << v.name;
        EXPECT_EQ(zrnConfGetByIndex(v.index), nullptr) << v.name;
    }
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(ZRN_CONF_INDEX_MAX)), orNull("_MAX_POSSIBLE_ZRN_CONF_VAR_VALUE"));
    EXPECT_EQ(zrnConfGetDefaultByIndex(-1), nullptr) << "index below the table";
    EXPECT_EQ(zrnConfGetDefaultByIndex(30), nullptr) << "index past the table";

    // Now the file exists: a failed load must not be remembered, and each
    // index must find the name of its constant (not a neighbour's). The
    // names grow the store past its first capacity and, sorted, are found by
    // binary search.
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
        EXPECT_EQ(orNull(zrnConfGetByIndex(i)), "\"v" + std::to_string(i) + "\"") << names[i - 1];
}

TEST_F(ZrnConf, FileValueOverridesOnlyItsVariableAndIsReadOnce)
{
    write("HTTPD_SERVICE apache2\n");
    const char *first = zrnConfGetByIndex(HTTPD_SERVICE);
    EXPECT_EQ(orNull(first), orNull("apache2"));
    EXPECT_EQ(orNull(zrnConfGetDefault("HTTPD_SERVICE")), orNull("apache2"));
    EXPECT_EQ(orNull(zrnConfGetDefaultByIndex(PRODUCT_ROOT_D)), orNull("/usr/local/zrn"));
    EXPECT_EQ(zrnConfGet("PRODUCT_ROOT_D"), nullptr) << "default leaked into zrnConfGet";
    EXPECT_EQ(zrnConfGetByIndex(PRODUCT_ROOT_D), nullptr) << "default leaked into zrnConfGetByIndex";

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
        const auto r = testsupport::runInChild([&] {
            errno = 0;
            return zrnConfGetDefault(name) == nullptr ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << name;
        EXPECT_EQ(r.err, expected) << name;
        EXPECT_EQ(r.out, expected) << name;
    }
}
