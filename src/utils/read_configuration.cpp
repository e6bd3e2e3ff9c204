#include "utils/read_configuration.h"

#include "utils/liblog.h"
#include "utils/product_log.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Reader diagnostics sit above the default threshold (6): a broken or missing
// file must not put noise in the output the control panel parses.
const int conf_log_level = 12;

const unsigned initial_capacity = 20;

const char *const zrn_conf_file = "/etc/zrn/zrn.conf";

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// ASCII only: the locale must not change what a variable name is.
bool isNameChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '_';
}

bool resize(conf_store *store, unsigned capacity)
{
    if (static_cast<size_t>(capacity) > SIZE_MAX / sizeof(conf_pair))
        return false;
    void *grown = std::realloc(store->entries, capacity * sizeof(conf_pair));
    if (grown == nullptr)
        return false;
    store->entries = static_cast<conf_pair *>(grown);
    store->capacity = capacity;
    return true;
}

void logNoMemory(const char *format)
{
    zarnet_log(conf_log_level, format, std::strerror(ENOMEM));
    errno = ENOMEM;
}

// Strips the line end so that a logged line does not carry it twice.
std::string shown(const char *line)
{
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

// 0 for a stored or skipped line, -1 when storing failed.
int parseLine(char *line, conf_store *store)
{
    char *p = line;
    while (isBlank(*p))
        ++p;
    if (*p == '\0' || *p == '#')
        return 0;

    char *name = p;
    while (isNameChar(*p))
        ++p;
    if (!isBlank(*p)) {
        zarnet_log(conf_log_level,
                   "Invalid variable definition %s\nExpected a space after variable name\n",
                   shown(line).c_str());
        return 0;
    }
    char *name_end = p;
    while (isBlank(*p))
        ++p;
    if (*p == '\0' || *p == '#') {
        zarnet_log(conf_log_level, "Invalid variable definition %s\nExpected a value",
                   shown(line).c_str());
        return 0;
    }

    char *value = p;
    char *end = std::strchr(value, '#');
    if (end == nullptr)
        end = value + std::strlen(value);
    while (end > value && isBlank(end[-1]))
        --end;
    *end = '\0';
    *name_end = '\0';
    return conf_set_r(name, value, store);
}

// Process-wide state of the runtime layer.
conf_store *zrn_store = nullptr;
const char *index_cache[ZRN_CONF_INDEX_MAX + 1];
bool index_cache_ready = false;
std::string zrn_conf_path_override;

const char *zrnConfPath()
{
    return zrn_conf_path_override.empty() ? zrn_conf_file : zrn_conf_path_override.c_str();
}

struct KnownVariable {
    const char *name;
    const char *value;
};

const KnownVariable known_variables[ZRN_CONF_INDEX_MAX + 1] = {
    {"_MIN_POSSIBLE_ZRN_CONF_VAR_NAME", "_MIN_POSSIBLE_ZRN_CONF_VAR_VALUE"},
    {"ZARNET_MAILNAMES_D", "/var/qmail/mailnames"},
    {"COURIER_IMAP_ROOT_D", "/"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CLIENT_PHP_BIN", "/usr/local/zrn/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/var/www/html/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/awstats"},
    {"AWSTATS_BIN_D", "/var/www/cgi-bin/awstats"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/usr/share/tomcat5"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/pgsql/data"},
    {"PGSQL_BIN_D", "/usr/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/zrn/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {"FTPD_CONF_INC", "/etc/proftpd.include"},
    {"HTTPD_SERVICE", "httpd"},
    {"HTTPD_LOG_D", "/var/log/httpd"},
    {"HTTPD_INCLUDE_D", "/etc/httpd/conf.d"},
    {"HTTPD_CONF_D", "/etc/httpd/conf"},
    {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {"PRODUCT_ROOT_D", "/usr/local/zrn"},
    {"_MAX_POSSIBLE_ZRN_CONF_VAR_NAME", "_MAX_POSSIBLE_ZRN_CONF_VAR_VALUE"},
};

bool validIndex(int index)
{
    return index >= ZRN_CONF_INDEX_MIN && index <= ZRN_CONF_INDEX_MAX;
}

// The lookups may be evaluated inside the arguments of an error report that
// reads errno afterwards; loading the file must not disturb it.
class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};

} // namespace

int cmp_conf(const void *first, const void *second)
{
    return std::strcmp(static_cast<const conf_pair *>(first)->name,
                       static_cast<const conf_pair *>(second)->name);
}

int conf_init_r(conf_store *store)
{
    if (store->count != 0)
        return 0;
    if (store->capacity < initial_capacity && !resize(store, initial_capacity)) {
        logNoMemory("Unable to read configuration: %s");
        return -1;
    }
    store->sorted = 1;
    return 0;
}

void conf_finalize_r(conf_store *store)
{
    if (!store->sorted && store->count > 1)
        std::qsort(store->entries, store->count, sizeof(conf_pair), cmp_conf);
    store->sorted = 1;
}

void conf_free_r(conf_store *store)
{
    for (unsigned i = 0; i < store->count; ++i) {
        std::free(store->entries[i].name);
        std::free(store->entries[i].value);
    }
    std::free(store->entries);
    store->entries = nullptr;
    store->capacity = 0;
    store->count = 0;
    store->sorted = 0;
}

int conf_set_r(const char *name, const char *value, conf_store *store)
{
    if (store->count >= store->capacity) {
        unsigned capacity = store->capacity <= UINT_MAX / 2 ? store->capacity * 2 : 0;
        if (store->count >= capacity)
            capacity = store->count <= UINT_MAX - initial_capacity
                           ? store->count + initial_capacity
                           : 0;
        if (capacity == 0 || !resize(store, capacity)) {
            logNoMemory("Unable to read configuration: %s");
            return -1;
        }
    }

    char *name_copy = strdup(name);
    char *value_copy = strdup(value);
    if (name_copy == nullptr || value_copy == nullptr) {
        std::free(name_copy);
        std::free(value_copy);
        logNoMemory("Unable to form configuration: %s");
        return -1;
    }

    for (unsigned i = 0; i < store->count; ++i) {
        if (std::strcmp(store->entries[i].name, name) == 0) {
            std::free(store->entries[i].value);
            store->entries[i].value = value_copy;
            std::free(name_copy);
            return 0;
        }
    }
    store->entries[store->count].name = name_copy;
    store->entries[store->count].value = value_copy;
    ++store->count;
    store->sorted = 0;
    return 0;
}

const char *conf_get_r(const char *name, const conf_store *store)
{
    if (name == nullptr || store->count == 0)
        return nullptr;
    if (store->sorted) {
        conf_pair key = {const_cast<char *>(name), nullptr};
        const void *found = std::bsearch(&key, store->entries, store->count,
                                         sizeof(conf_pair), cmp_conf);
        return found ? static_cast<const conf_pair *>(found)->value : nullptr;
    }
    for (unsigned i = 0; i < store->count; ++i)
        if (std::strcmp(store->entries[i].name, name) == 0)
            return store->entries[i].value;
    return nullptr;
}

int conf_read_file_r(const char *path, conf_store *store)
{
    const int entry_errno = errno;
    if (conf_init_r(store) != 0)
        return -1;

    // "e": the program runs children, which have no business with this file.
    FILE *file = std::fopen(path, "re");
    if (file == nullptr) {
        const int saved = errno;
        zarnet_log(conf_log_level, "unable to open configuration file %s: %s\n", path,
                   std::strerror(saved));
        errno = saved;
        return -1;
    }

    char *line = nullptr;
    size_t line_size = 0;
    bool store_failed = false;
    errno = 0;
    while (getline(&line, &line_size, file) != -1) {
        if (parseLine(line, store) != 0) {
            store_failed = true;
            break;
        }
        errno = 0;
    }
    // getline gives -1 both at the end and on failure (a read error, or no
    // memory for a long line); only the end of file is a clean finish.
    int saved = errno;
    const bool read_failed = !store_failed && (std::ferror(file) || !std::feof(file));
    std::free(line);

    if (store_failed) {
        std::fclose(file);
        errno = saved;
        return -1;
    }
    conf_finalize_r(store);
    if (read_failed) {
        if (saved == 0)
            saved = EIO;
        zarnet_log(conf_log_level, "Unable to read configuration file: %s", std::strerror(saved));
        std::fclose(file);
        errno = saved;
        return -1;
    }
    std::fclose(file);
    errno = entry_errno;
    return 0;
}

int autoprepend()
{
    if (zrn_store != nullptr)
        return 0;
    if (!index_cache_ready) {
        for (const char *&slot : index_cache)
            slot = nullptr;
        index_cache_ready = true;
    }

    conf_store *store = static_cast<conf_store *>(std::calloc(1, sizeof(conf_store)));
    if (store == nullptr) {
        messlog2(0, 0, "Not enough memory to allocate Zarnet runtime configuration structure\n");
        return -1;
    }
    if (conf_read_file_r(zrnConfPath(), store) != 0) {
        const int saved = errno;
        conf_free_r(store);
        std::free(store);
        errno = saved;
        return -1;
    }
    zrn_store = store;
    return 0;
}

const char *zrnConfGet(const char *name)
{
    ErrnoKeeper keep;
    if (autoprepend() != 0)
        return nullptr;
    return conf_get_r(name, zrn_store);
}

const char *zrnConfGetByIndex(int index)
{
    if (!validIndex(index))
        return nullptr;
    if (index_cache_ready && index_cache[index] != nullptr)
        return index_cache[index];
    const char *value = zrnConfGet(known_variables[index].name);
    // Only a loaded store yields a value, and loading readies the cache.
    if (value != nullptr)
        index_cache[index] = value;
    return value;
}

const char *zrnConfGetDefaultByIndex(int index)
{
    if (!validIndex(index))
        return nullptr;
    const char *value = zrnConfGetByIndex(index);
    return value != nullptr ? value : known_variables[index].value;
}

const char *zrnConfGetDefault(const char *name)
{
    if (name == nullptr)
        return nullptr;
    // Index 29 only closes the table: by name it is unknown, as any other.
    for (int index = ZRN_CONF_INDEX_MIN; index < ZRN_CONF_INDEX_MAX; ++index)
        if (std::strcmp(known_variables[index].name, name) == 0)
            return zrnConfGetDefaultByIndex(index);
    ErrnoKeeper keep;
    messlog2(0, 0, "variable '%s' isn't found neither in %s nor in compile-time defaults\n",
             name, zrnConfPath());
    return nullptr;
}

void zrn_conf_reset_for_testing()
{
    if (zrn_store != nullptr) {
        conf_free_r(zrn_store);
        std::free(zrn_store);
        zrn_store = nullptr;
    }
    for (const char *&slot : index_cache)
        slot = nullptr;
    index_cache_ready = false;
}

void zrn_conf_set_path_for_testing(const char *path)
{
    zrn_conf_reset_for_testing();
    zrn_conf_path_override = path != nullptr ? path : "";
}
