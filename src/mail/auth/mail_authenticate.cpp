#include "mail/auth/mail_authenticate.h"

#include "mail/auth/mail_database.h"
#include "mail/panel/panel_queries.h"
#include "utils/dbconnect.h"
#include "utils/liblog.h"

#include <crypt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <string>

namespace {

const char open_rw_format[] = "Unable to open database %s: %s";
const char open_ro_format[] = "Unable to open database(readonly) %s: %s";

// Statements are finalised before their handle closes: a handle with a live
// statement would keep the close answering busy.
struct Handle {
    sqlite3 *db = nullptr;
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    explicit Handle(int flags, const char *format) : db(mailAuthDBOpen(flags, format)) {}
    ~Handle() { mailAuthDBClose(db); }
};

struct Statement {
    sqlite3_stmt *stmt = nullptr;
    Statement() = default;
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { finalize(); }
    void finalize()
    {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
};

bool prepare(sqlite3 *db, const char *sql, Statement &st)
{
    if (mailAuthDBPrepare(db, sql, &st.stmt) == SQLITE_OK)
        return true;
    zarnet_log(3, "Unable to prepare SQL statement for query '%s': %s", sql, sqlite3_errmsg(db));
    st.finalize();
    return false;
}

bool bind_text(Statement &st, int index, const char *value)
{
    return sqlite3_bind_text(st.stmt, index, value, -1, SQLITE_STATIC) == SQLITE_OK;
}

bool bind_int(Statement &st, int index, sqlite3_int64 value)
{
    return sqlite3_bind_int64(st.stmt, index, value) == SQLITE_OK;
}

const char *column_text(sqlite3_stmt *stmt, int column)
{
    return reinterpret_cast<const char *>(sqlite3_column_text(stmt, column));
}

int row_flags(const char *enc_password, int user_status, int domain_status)
{
    return (enc_password != nullptr ? MAIL_AUTH_ENCRYPTED : 0) |
           (user_status != 0 ? MAIL_AUTH_USER_DISABLED : 0) |
           (domain_status != 0 ? MAIL_AUTH_DOMAIN_DISABLED : 0);
}

// A statement that changes rows: prepared, bound by bind (which logs its own
// failures), stepped to the end.
template <typename Bind>
int run_change(sqlite3 *db, const char *sql, const char *exec_format, Bind bind)
{
    Statement st;
    if (!prepare(db, sql, st) || !bind(db, st))
        return -1;
    if (mailAuthDBStep(st.stmt) != SQLITE_DONE) {
        zarnet_log(3, exec_format, sqlite3_errmsg(db));
        return -1;
    }
    return 0;
}

template <typename Bind>
int run_change(const char *sql, const char *exec_format, Bind bind)
{
    Handle h(SQLITE_OPEN_READWRITE, open_rw_format);
    return h.db != nullptr ? run_change(h.db, sql, exec_format, bind) : -1;
}

bool bind_domain_id(sqlite3 *db, Statement &st, int index, sqlite3_int64 dom_id,
                    const char *mailname, const char *domain, const char *sql)
{
    if (bind_int(st, index, dom_id))
        return true;
    zarnet_log(3, "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s",
               mailname, domain, sql, sqlite3_errmsg(db));
    return false;
}

int walk_rows(const char *sql, const char *mailname, mailAuthCallback callback, void *data)
{
    Handle h(SQLITE_OPEN_READONLY, open_ro_format);
    if (h.db == nullptr)
        return -1;
    Statement st;
    if (!prepare(h.db, sql, st))
        return -1;
    if (mailname != nullptr && !bind_text(st, 1, mailname)) {
        zarnet_log(3, "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                   static_cast<int>(std::strlen(mailname)), mailname, sql, sqlite3_errmsg(h.db));
        return -1;
    }
    int rc;
    while ((rc = mailAuthDBStep(st.stmt)) == SQLITE_ROW) {
        const char *address = column_text(st.stmt, 0);
        const char *password = column_text(st.stmt, 1);
        const char *enc_password = column_text(st.stmt, 2);
        if (address == nullptr || *address == '\0') {
            zarnet_log(3, "NULL or empty mail address stored in the database, skipped");
            continue;
        }
        if (password == nullptr && enc_password == nullptr) {
            zarnet_log(3, "empty password properties (both plain and encrypted) for user %s, skipped",
                       address);
            continue;
        }
        callback(address, enc_password != nullptr ? enc_password : password,
                 row_flags(enc_password, sqlite3_column_int(st.stmt, 3),
                           sqlite3_column_int(st.stmt, 4)),
                 data);
    }
    if (rc != SQLITE_DONE) {
        zarnet_log(3, "Unable to execute the user selection query: %s", sqlite3_errmsg(h.db));
        return -1;
    }
    return 0;
}

// The walks share everything but the statement's tail and its parameter.
int walk(const char *tail, const char *mailname, mailAuthCallback callback, void *data)
{
    static const char base[] =
        "SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS password,"
        " u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled,"
        " d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id";
    char *sql = nullptr;
    if (asprintf(&sql, "%s %s", base, tail) < 0) {
        zarnet_log(3, "Insufficient memory");
        return -1;
    }
    const int result = walk_rows(sql, mailname, callback, data);
    std::free(sql);
    return result;
}

// A copy of value that lives as long as the process.
const char *keep(const char *value)
{
    static std::list<std::string> kept;
    kept.emplace_back(value);
    return kept.back().c_str();
}

bool non_empty(const char *value) { return value != nullptr && *value != '\0'; }

void md5_crypt(const char *password, char *out, size_t size)
{
    static const char alphabet[] =
        "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    char salt[] = "$1$........";
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < 8; ++i) {
        const int index = (static_cast<int>(64.0 * std::rand() / 2147483648.0) + 1) % 64;
        salt[3 + i] = alphabet[index];
    }
    const char *hashed = crypt(password, salt);
    if (hashed == nullptr || hashed[0] == '*')
        return;
    std::snprintf(out, size, "%s", hashed);
}

// The panel's list for one query; owns the array.
struct PanelList {
    char **items = nullptr;
    PanelList() = default;
    PanelList(const PanelList &) = delete;
    PanelList &operator=(const PanelList &) = delete;
    ~PanelList() { free_array(items); }
};

} // namespace

sqlite3_int64 getDomainId(const char *domain, sqlite3 **db, unsigned char flags)
{
    static const char select_sql[] = "SELECT id FROM domains WHERE name=?";
    static const char insert_sql[] = "INSERT INTO domains (name, status) VALUES(?, ?)";
    Statement st;
    auto fail = [&] {
        st.finalize();
        mailAuthDBClose(*db);
        *db = nullptr;
        return -1;
    };

    if (!prepare(*db, select_sql, st))
        return fail();
    if (!bind_text(st, 1, domain)) {
        zarnet_log(3, "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
                   domain, select_sql, sqlite3_errmsg(*db));
        return fail();
    }
    int rc = mailAuthDBStep(st.stmt);
    if (rc == SQLITE_ROW)
        return sqlite3_column_int64(st.stmt, 0);
    if (rc != SQLITE_DONE) {
        zarnet_log(3, "Unable to execute the domain selection query: %s", sqlite3_errmsg(*db));
        return fail();
    }
    if (flags & MAIL_AUTH_NO_CREATE)
        return -1;
    st.finalize();

    const int status = flags != 0 ? 1 : 0;
    if (!prepare(*db, insert_sql, st))
        return fail();
    if (!bind_text(st, 1, domain)) {
        zarnet_log(3, "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
                   domain, insert_sql, sqlite3_errmsg(*db));
        return fail();
    }
    if (!bind_int(st, 2, status)) {
        zarnet_log(3, "Unable to bind parameter status '%d' for domain '%s' to SQL statement for query '%s': %s",
                   status, domain, insert_sql, sqlite3_errmsg(*db));
        return fail();
    }
    if (mailAuthDBStep(st.stmt) != SQLITE_DONE) {
        zarnet_log(3, "Unable to execute the mail domain authentication registration query: %s",
                   sqlite3_errmsg(*db));
        return fail();
    }
    return sqlite3_last_insert_rowid(*db);
}

int mailAuthSet(const char *mailname, const char *domain, const char *password, int flags)
{
    static const char plain_sql[] =
        "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (?, ?, ?, ?)";
    static const char enc_sql[] =
        "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id) VALUES (?, ?, ?, ?)";
    Handle h(SQLITE_OPEN_READWRITE, open_rw_format);
    if (h.db == nullptr)
        return -1;
    const sqlite3_int64 dom_id = getDomainId(domain, &h.db, flags & MAIL_AUTH_DOMAIN_DISABLED);
    if (dom_id == -1) {
        zarnet_log(3, "No such domain '%s' in the mail authentication DB", domain);
        return -1;
    }

    const char *sql = (flags & MAIL_AUTH_ENCRYPTED) ? enc_sql : plain_sql;
    return run_change(h.db, sql, "Unable to execute the mail authorization registration query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_text(st, 1, mailname)) {
                              zarnet_log(3, "Unable to bind parameter mailname '%s' to SQL statement for query '%s': %s",
                                         mailname, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          if (!bind_text(st, 2, password)) {
                              zarnet_log(3, "Unable to bind parameter password for mail address '%s@%s' to SQL statement for query '%s': %s",
                                         mailname, domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          if (!bind_int(st, 3, (flags >> 1) & 1)) {
                              zarnet_log(3, "Unable to bind parameter status for mail address '%s@%s' to  SQL statement for query '%s': %s",
                                         mailname, domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return bind_domain_id(db, st, 4, dom_id, mailname, domain, sql);
                      });
}

int mailAuthRemove(const char *mailname, const char *domain)
{
    static const char sql[] = "DELETE FROM users WHERE name=? AND dom_id=?";
    Handle h(SQLITE_OPEN_READWRITE, open_rw_format);
    if (h.db == nullptr)
        return -1;
    const sqlite3_int64 dom_id = getDomainId(domain, &h.db, MAIL_AUTH_NO_CREATE);
    if (dom_id == -1)
        return h.db == nullptr ? -1 : 0; // a failed lookup is no missing domain

    return run_change(h.db, sql, "Unable to execute the mail authorization removal query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_text(st, 1, mailname)) {
                              zarnet_log(3, "Unable to bind parameter mailname '%s' to  SQL statement for query '%s': %s",
                                         mailname, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return bind_domain_id(db, st, 2, dom_id, mailname, domain, sql);
                      });
}

int mailAuthRename(const char *old_mailname, const char *new_mailname, const char *domain)
{
    static const char sql[] = "UPDATE users SET name=? WHERE name=? AND dom_id=?";
    Handle h(SQLITE_OPEN_READWRITE, open_rw_format);
    if (h.db == nullptr)
        return -1;
    const sqlite3_int64 dom_id = getDomainId(domain, &h.db, MAIL_AUTH_NO_CREATE);
    if (dom_id == -1) {
        // A failed lookup has been reported already and is no missing domain.
        if (h.db != nullptr)
            zarnet_log(3, "No such domain '%s' in the mail authentication DB", domain);
        return -1;
    }

    return run_change(h.db, sql, "Unable to execute the mail authorization renaming query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_text(st, 1, new_mailname)) {
                              zarnet_log(3, "Unable to bind parameter new mailname '%s' to  SQL statement for query '%s': %s",
                                         new_mailname, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          if (!bind_text(st, 2, old_mailname)) {
                              zarnet_log(3, "Unable to bind parameter old mailname '%s' to  SQL statement for query '%s': %s",
                                         old_mailname, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return bind_domain_id(db, st, 3, dom_id, old_mailname, domain, sql);
                      });
}

namespace {

// Reads the source user of mailAuthClone. 1 with *password (malloc'ed or
// null) and *flags for a user, 0 for none, -1 after a report.
int read_clone_source(const char *mailname, const char *domain, char **password, int *flags)
{
    static const char domain_sql[] = "SELECT id, status FROM domains WHERE name=?";
    static const char user_sql[] =
        "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=?";
    Handle h(SQLITE_OPEN_READONLY, open_ro_format);
    if (h.db == nullptr)
        return -1;

    Statement st;
    if (!prepare(h.db, domain_sql, st))
        return -1;
    if (!bind_text(st, 1, domain)) {
        zarnet_log(3, "Unable to bind parameter domain id for: %s: %s", domain, sqlite3_errmsg(h.db));
        return -1;
    }
    int rc = mailAuthDBStep(st.stmt);
    if (rc == SQLITE_DONE) {
        zarnet_log(3, "Unable to get mail domain id for: %s", domain);
        return -1;
    }
    if (rc != SQLITE_ROW) {
        zarnet_log(3, "Unable to get domain id: %s", sqlite3_errmsg(h.db));
        return -1;
    }
    const sqlite3_int64 dom_id = sqlite3_column_int64(st.stmt, 0);
    const int domain_status = sqlite3_column_int(st.stmt, 1);
    st.finalize();

    if (!prepare(h.db, user_sql, st))
        return -1;
    if (!bind_int(st, 1, dom_id)) {
        zarnet_log(3, "Unable to bind parameter bind domain id for: %s: %s", domain,
                   sqlite3_errmsg(h.db));
        return -1;
    }
    if (!bind_text(st, 2, mailname)) {
        zarnet_log(3, "Unable to bind parameter bind mailname %s: %s", mailname, sqlite3_errmsg(h.db));
        return -1;
    }
    rc = mailAuthDBStep(st.stmt);
    if (rc == SQLITE_DONE)
        return 0;
    if (rc != SQLITE_ROW) {
        zarnet_log(3, "Unable to get passwd for mailname: %s: %s", mailname, sqlite3_errmsg(h.db));
        return -1;
    }
    const char *plain = column_text(st.stmt, 1);
    const char *enc = column_text(st.stmt, 2);
    const char *chosen = enc != nullptr ? enc : plain;
    *password = nullptr;
    if (chosen != nullptr && (*password = strdup(chosen)) == nullptr) {
        zarnet_log(3, "System error: %s", strerror(ENOMEM));
        return -1;
    }
    *flags = row_flags(enc, sqlite3_column_int(st.stmt, 3), domain_status);
    return 1;
}

} // namespace

int mailAuthClone(const char *src_mailname, const char *src_domain, const char *dst_mailname,
                  const char *dst_domain)
{
    char *password = nullptr;
    int flags = 0;
    const int found = read_clone_source(src_mailname, src_domain, &password, &flags);
    if (found < 0) {
        zarnet_log(3, "Unable to get users list from MTA password database");
        return -1;
    }
    if (found == 0)
        return 0;
    const int result = mailAuthSet(dst_mailname, dst_domain, password, flags);
    std::free(password);
    return result;
}

int setDomainStatus(const char *domain, int status)
{
    static const char sql[] = "UPDATE domains SET status=? WHERE name=?";
    return run_change(sql, "Unable to execute the mail domain authorization status change query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_int(st, 1, status)) {
                              zarnet_log(3, "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                                         status, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          if (!bind_text(st, 2, domain)) {
                              zarnet_log(3, "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s",
                                         domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return true;
                      });
}

int mailAuthEnableDomain(const char *domain) { return setDomainStatus(domain, 0); }

int mailAuthDisableDomain(const char *domain) { return setDomainStatus(domain, 1); }

int mailAuthRenameDomain(const char *old_domain, const char *new_domain)
{
    static const char sql[] = "UPDATE domains SET name=? WHERE name=?";
    return run_change(sql, "Unable to execute the mail domain authorization name change query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_text(st, 1, new_domain)) {
                              zarnet_log(3, "Unable to bind parameter new domain name '%s' to SQL statement for query '%s': %s",
                                         new_domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          if (!bind_text(st, 2, old_domain)) {
                              zarnet_log(3, "Unable to bind parameter old domain name '%s' to SQL statement for query '%s': %s",
                                         old_domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return true;
                      });
}

int mailAuthRemoveDomain(const char *domain)
{
    static const char sql[] = "DELETE FROM domains WHERE name=?";
    return run_change(sql, "Unable to execute the domain mail authorization removal query: %s",
                      [&](sqlite3 *db, Statement &st) {
                          if (!bind_text(st, 1, domain)) {
                              zarnet_log(3, "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                                         domain, sql, sqlite3_errmsg(db));
                              return false;
                          }
                          return true;
                      });
}

int mailAuthCheck(const char *address, mailAuthCallback callback, void *data)
{
    static const char sql[] =
        "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword,"
        " u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d"
        " WHERE u.dom_id = d.id AND u.name=? AND d.name=?";
    const char *at = std::strchr(address, '@');
    if (at == nullptr || at == address || at[1] == '\0') {
        zarnet_log(3, "Invalid mail address '%s'", address);
        return -1;
    }
    const int name_len = static_cast<int>(at - address);

    Handle h(SQLITE_OPEN_READONLY, open_ro_format);
    if (h.db == nullptr)
        return -1;
    Statement st;
    if (!prepare(h.db, sql, st))
        return -1;
    if (sqlite3_bind_text(st.stmt, 1, address, name_len, SQLITE_STATIC) != SQLITE_OK) {
        zarnet_log(3, "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                   name_len, address, sql, sqlite3_errmsg(h.db));
        return -1;
    }
    if (!bind_text(st, 2, at + 1)) {
        zarnet_log(3, "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                   at + 1, sql, sqlite3_errmsg(h.db));
        return -1;
    }
    const int rc = mailAuthDBStep(st.stmt);
    if (rc == SQLITE_DONE) {
        zarnet_log(3, "No such user '%s' in mail authorization database", address);
        return -1;
    }
    if (rc != SQLITE_ROW) {
        zarnet_log(3, "Unable to execute the user selection query: %s", sqlite3_errmsg(h.db));
        return -1;
    }
    const char *password = column_text(st.stmt, 0);
    const char *enc_password = column_text(st.stmt, 1);
    if (password == nullptr && enc_password == nullptr) {
        zarnet_log(3, "NULL password fields (noth plain and encrypted) for user %s, skipped", address);
        return -1;
    }
    callback(address, enc_password != nullptr ? enc_password : password,
             row_flags(enc_password, sqlite3_column_int(st.stmt, 2), sqlite3_column_int(st.stmt, 3)),
             data);
    return 0;
}

int mailAuthCheckShort(const char *mailname, mailAuthCallback callback, void *data)
{
    return walk("AND u.name=?", mailname, callback, data);
}

int mailAuthIterateAll(mailAuthCallback callback, void *data)
{
    return walk("ORDER BY d.name, u.name", nullptr, callback, data);
}

int get_env_password(const char **password, int *kind)
{
    static const char *const names[] = {"ZRN_PASSWORD", "ZRN_CRYPTED_PASSWORD"};
    for (int k = 0; k < 2; ++k) {
        const char *value = std::getenv(names[k]);
        if (!non_empty(value))
            continue;
        *password = keep(value);
        *kind = k;
        unsetenv(names[k]);
        return 0;
    }
    return -1;
}

const char *get_env_noncrypted_password()
{
    static char buffer[4096];
    if (buffer[0] != '\0')
        return buffer;
    const char *value = std::getenv("ZRN_PASSWORD");
    if (value != nullptr)
        std::snprintf(buffer, sizeof buffer, "%s", value);
    unsetenv("ZRN_PASSWORD");
    return buffer;
}

const char *get_env_crypted_password()
{
    static char buffer[4096];
    if (buffer[0] != '\0')
        return buffer;
    const char *plain = std::getenv("ZRN_PASSWORD");
    const char *encrypted = std::getenv("ZRN_CRYPTED_PASSWORD");
    if (non_empty(plain))
        md5_crypt(plain, buffer, sizeof buffer);
    else if (non_empty(encrypted))
        std::snprintf(buffer, sizeof buffer, "%s", encrypted);
    else
        md5_crypt("", buffer, sizeof buffer);
    unsetenv("ZRN_PASSWORD");
    unsetenv("ZRN_CRYPTED_PASSWORD");
    return buffer;
}

int set_postbox_passwd(const char *mailname, const char *domain, const char *password, int flags)
{
    if (!non_empty(password))
        return mailAuthRemove(mailname, domain);
    return mailAuthSet(mailname, domain, password, flags);
}

int set_passwd_for_domains(const char *mailname, const char *domain, const char *password,
                           int flags)
{
    if (set_postbox_passwd(mailname, domain, password, flags) == -1) {
        zarnet_log(3, "Unable to set password for mailname %s@%s", mailname, domain);
        return -1;
    }
    PanelList aliases;
    if (get_domaliases_by_domain(nullptr, &aliases.items, domain) != 0) {
        zarnet_log(3, "Unable to get domain aliases for domain %s", domain);
        return -1;
    }
    if (aliases.items == nullptr)
        return 0;
    for (char **alias = aliases.items; *alias != nullptr; ++alias) {
        if (set_postbox_passwd(mailname, *alias, password, flags) == -1)
            return -1;
    }
    return 1;
}

int set_mass_postbox_passwd(const char *mailname, const char *domain, const char *password,
                            int flags)
{
    if (set_passwd_for_domains(mailname, domain, password, flags) == -1)
        return -1;
    PanelList aliases;
    if (get_aliases_by_mailname(nullptr, &aliases.items, mailname, domain) != 0)
        return -1;
    if (aliases.items == nullptr)
        return 0;
    for (char **alias = aliases.items; *alias != nullptr; ++alias) {
        if (set_passwd_for_domains(*alias, domain, password, flags) == -1)
            return -1;
    }
    return 1;
}

int rm_mname_from_domains(const char *mailname, const char *domain)
{
    if (mailAuthRemove(mailname, domain) == -1) {
        zarnet_log(3, "Unable to remove mailname %s@%s", mailname, domain);
        return -1;
    }
    PanelList aliases;
    if (get_domaliases_by_domain(nullptr, &aliases.items, domain) != 0) {
        zarnet_log(3, "Unable to get domain aliases for domain %s", domain);
        return -1;
    }
    if (aliases.items == nullptr)
        return 0;
    for (char **alias = aliases.items; *alias != nullptr; ++alias) {
        if (mailAuthRemove(mailname, *alias) == -1) {
            zarnet_log(3, "Unable to remove mailname %s@%s", mailname, *alias);
            return -1;
        }
    }
    return 1;
}

int rm_mails_from_domains(const char *mailname, const char *domain)
{
    if (mailAuthRemove(mailname, domain) == -1) {
        zarnet_log(3, "Unable to remove mailname %s@%s", mailname, domain);
        return -1;
    }
    if (rm_mname_from_domains(mailname, domain) == -1) {
        zarnet_log(3, "Unable to remove mailname from domain aliases");
        return -1;
    }
    PanelList aliases;
    if (get_aliases_by_mailname(nullptr, &aliases.items, mailname, domain) != 0) {
        zarnet_log(3, "Unable to get mail aliases for mailname %s%s", mailname, domain);
        return -1;
    }
    if (aliases.items == nullptr)
        return 0;
    for (char **alias = aliases.items; *alias != nullptr; ++alias) {
        if (rm_mname_from_domains(*alias, domain) == -1) {
            zarnet_log(3, "Unable to remove mailname from domain aliases");
            return -1;
        }
    }
    return 1;
}

int domain_auth_action(const char *domain, int (*action)(const char *domain),
                       const char *action_text)
{
    if (action(domain) == -1) {
        zarnet_log(3, "Unable to %s for domain %s", action_text, domain);
        return -1;
    }
    PanelList aliases;
    if (get_domaliases_by_domain(nullptr, &aliases.items, domain) != 0) {
        zarnet_log(3, "Unable to get aliases for domain %s", domain);
        return -1;
    }
    if (aliases.items == nullptr)
        return 0;
    for (char **alias = aliases.items; *alias != nullptr; ++alias) {
        if (action(*alias) == -1) {
            zarnet_log(3, "Unable to %s for domain alias %s", action_text, *alias);
            return -1;
        }
    }
    return 1;
}

int add_domain_auth_alias(const char *domain, const char *alias)
{
    PanelList mailnames;
    if (get_mailnames_by_domain(nullptr, &mailnames.items, domain) != 0) {
        zarnet_log(3, "Unable to get mailnames from domain %s", domain);
        return -1;
    }
    if (mailnames.items == nullptr)
        return 0;
    for (char **mailname = mailnames.items; *mailname != nullptr; ++mailname) {
        PanelList mail_aliases;
        if (get_aliases_by_mailname(nullptr, &mail_aliases.items, *mailname, domain) != 0) {
            zarnet_log(3, "Unable to get mail aliases for %s@%s", *mailname, domain);
            return -1;
        }
        for (char **name = mail_aliases.items; name != nullptr && *name != nullptr; ++name) {
            if (mailAuthClone(*name, domain, *name, alias) == -1) {
                zarnet_log(3, "Unable to clone auth record for %s@%s", *name, domain);
                return -1;
            }
        }
        if (mailAuthClone(*mailname, domain, *mailname, alias) == -1) {
            zarnet_log(3, "Unable to clone auth record for %s@%s", *mailname, domain);
            return -1;
        }
    }
    return 1;
}

int rm_domain_auth_alias(const char *alias)
{
    if (mailAuthRemoveDomain(alias) == -1) {
        zarnet_log(3, "Unable to remove domain %s from auth database", alias);
        return -1;
    }
    PanelList owner;
    if (get_domain_by_domainalias(nullptr, &owner.items, alias) != 0) {
        zarnet_log(3, "Unable to get domain by domain alias %s", alias);
        return -1;
    }
    if (owner.items == nullptr || owner.items[0] == nullptr)
        return 0;
    const char *domain = owner.items[0];

    PanelList mailnames;
    if (get_mailnames_by_domain(nullptr, &mailnames.items, domain) != 0) {
        zarnet_log(3, "Unable to get mailnames from domain %s", domain);
        return -1;
    }
    if (mailnames.items == nullptr)
        return 0;
    for (char **mailname = mailnames.items; *mailname != nullptr; ++mailname) {
        PanelList mail_aliases;
        if (get_aliases_by_mailname(nullptr, &mail_aliases.items, *mailname, domain) != 0) {
            zarnet_log(3, "Unable to get aliases for mailname %s@%s", *mailname, domain);
            return -1;
        }
        for (char **name = mail_aliases.items; name != nullptr && *name != nullptr; ++name) {
            if (mailAuthRemove(*name, alias) == -1) {
                zarnet_log(3, "Unable to remove mail alias %s@%s", *name, alias);
                return -1;
            }
        }
    }
    return 1;
}
