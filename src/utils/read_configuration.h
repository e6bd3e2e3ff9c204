// Runtime configuration: installation paths read from /etc/zrn/zrn.conf.
//
// File syntax, one definition per line:
//     # comment
//     NAME value up to a "#" or the end of the line   # comment
// NAME is letters, digits and "_", followed by at least one blank. Trailing
// blanks are not part of the value, a value never contains "#", the last
// definition of a name wins and names are case-sensitive. Malformed lines are
// logged at level 12 (hidden by the default threshold) and skipped. Lines
// have no length limit.
//
// Generic reader (conf_*_r): works on a caller-owned conf_store, returns 0 or
// -1 with errno set (ENOMEM, or the error of opening or reading the file) and
// logs at level 12. The store owns every name and value (malloc'ed);
// conf_free_r releases them.
//
// Runtime layer (zrnConf*): one process-wide store, loaded on first demand
// and kept for the run. A failed load keeps nothing, so the next request tries
// the file again. The returned strings belong to the store or to the
// compile-time defaults: never free or modify them. These lookups leave the
// caller's errno untouched, so they may sit in the arguments of an error
// report.
#ifndef MAILTEND_UTILS_READ_CONFIGURATION_H
#define MAILTEND_UTILS_READ_CONFIGURATION_H

struct conf_pair {
    char *name;
    char *value;
};

struct conf_store {
    conf_pair *entries;
    unsigned capacity;
    unsigned count;
    int sorted; // entries in ascending byte-wise name order: lookups bisect
};

// A zero-initialised conf_store ({}) is a valid empty store.
int conf_read_file_r(const char *path, conf_store *store);
const char *conf_get_r(const char *name, const conf_store *store);
int conf_set_r(const char *name, const char *value, conf_store *store);
// Gives a store without entries room for 20 and marks it sorted.
int conf_init_r(conf_store *store);
// Sorts the entries by name.
void conf_finalize_r(conf_store *store);
// Releases every entry and leaves an empty store behind.
void conf_free_r(conf_store *store);
// qsort/bsearch comparison of two conf_pair by name.
int cmp_conf(const void *first, const void *second);

// Stable identifiers of the known variables, as passed to the *ByIndex
// lookups. The two range markers are not variables.
enum zrn_conf_index {
    ZRN_CONF_INDEX_MIN = 0,
    ZARNET_MAILNAMES_D = 1,
    COURIER_IMAP_ROOT_D = 2,
    RBLSMTPD = 3,
    CLIENT_PHP_BIN = 4,
    LIB_CRYPTO_PATH = 5,
    LIB_SSL_PATH = 6,
    AWSTATS_DOC_D = 7,
    AWSTATS_TOOLS_D = 8,
    AWSTATS_BIN_D = 9,
    AWSTATS_ETC_D = 10,
    CATALINA_HOME = 11,
    MAILMAN_VAR_D = 12,
    MAILMAN_ROOT_D = 13,
    PGSQL_DATA_D = 14,
    PGSQL_BIN_D = 15,
    MYSQL_BIN_D = 16,
    MYSQL_VAR_D = 17,
    WEB_STAT = 18,
    DUMP_D = 19,
    DUMP_TMP_D = 20,
    NAMED_RUN_ROOT_D = 21,
    FTPD_CONF_INC = 22,
    HTTPD_SERVICE = 23,
    HTTPD_LOG_D = 24,
    HTTPD_INCLUDE_D = 25,
    HTTPD_CONF_D = 26,
    HTTPD_VHOSTS_D = 27,
    PRODUCT_ROOT_D = 28,
    ZRN_CONF_INDEX_MAX = 29,
};

// Loads the file into the process-wide store unless already loaded; 0 or -1.
// Running out of memory for the store is reported through messlog2 (the run
// goes on).
int autoprepend();

// The file's value, or null when the file lacks the name or cannot be read.
const char *zrnConfGet(const char *name);
// As zrnConfGet for the table's name at index; a found value is cached for
// the rest of the run. Null for an index outside 0-29.
const char *zrnConfGetByIndex(int index);
// The file's value, else the compile-time default. Null only for an index
// outside 0-29.
const char *zrnConfGetDefaultByIndex(int index);
// As zrnConfGetDefaultByIndex for a known name; an unknown name is reported
// on both output streams and gives null.
const char *zrnConfGetDefault(const char *name);

// Test hooks: read another file instead of /etc/zrn/zrn.conf (null restores
// it), and forget the loaded store and the index cache. Production code never
// calls them.
void zrn_conf_set_path_for_testing(const char *path);
void zrn_conf_reset_for_testing();

#endif
