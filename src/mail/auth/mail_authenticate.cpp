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
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace {

const char open_rw_format[] = "Unable to open database %s: %s";
const char open_ro_format[] = "Unable to open database(readonly) %s: %s";
const char domain_id_failure[] =
    "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s";
const char no_domain_format[] = "No such domain '%s' in the mail authentication DB";

// A change of rows, run inside a transaction on passwd.db; true on success.
typedef std::function<bool(sqlite3 *db)> Change;

// The transaction on passwd.db in progress, and a MailAuthCommand's
// changes, kept until it commits them.
struct Session {
    sqlite3 *db = nullptr;       // open in a transaction, else null
    bool command = false;        // a MailAuthCommand lives
    bool failed = false;         // and a change of its command failed
    sqlite3 *kept = nullptr;     // its handle, open between its transactions
    std::vector<Change> changes; // its changes so far
} session;

// passwd.db for reading: the transaction in progress, which holds the rows
// changed so far, else a handle of its own.
struct Handle {
    const bool own = session.db == nullptr;
    sqlite3 *db = nullptr;
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    explicit Handle(int flags, const char *format)
        : db(own ? mailAuthDBOpen(flags, format) : session.db)
    {
    }
    ~Handle()
    {
        if (own)
            mailAuthDBClose(db);
    }
};

// One statement: prepared at construction, its parameters bound in order,
// stepped with the busy/locked retry. The first failure is logged at level 3
// with the caller's format, whose last "%s" takes SQLite's error text (and,
// for a binding, the "%s" before it the statement unless told otherwise).
// It ends the statement: later calls do nothing and report failure. A null
// handle (its opening reported already) fails silently.
//
// Statements are finalised before their handle closes: a handle with a live
// statement would keep the close answering busy.
class Statement {
public:
    Statement(sqlite3 *db, const char *sql, bool sql_in_reports = true)
        : db_(db), sql_(sql_in_reports ? sql : nullptr)
    {
        if (db != nullptr && mailAuthDBPrepare(db, sql, &stmt_) != SQLITE_OK)
            fail("Unable to prepare SQL statement for query '%s': %s", sql);
    }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { sqlite3_finalize(stmt_); }

    template <typename... Args>
    Statement &text(const char *value, const char *format, Args... args)
    {
        if (stmt_ != nullptr)
            bound(sqlite3_bind_text(stmt_, ++index_, value, -1, SQLITE_STATIC), format, args...);
        return *this;
    }

    template <typename... Args>
    Statement &integer(sqlite3_int64 value, const char *format, Args... args)
    {
        if (stmt_ != nullptr)
            bound(sqlite3_bind_int64(stmt_, ++index_, value), format, args...);
        return *this;
    }

    // 1 for a row, 0 at the end, -1 after a failure.
    template <typename... Args>
    int step(const char *format, Args... args)
    {
        const int rc = stmt_ != nullptr ? mailAuthDBStep(stmt_) : SQLITE_MISUSE;
        if (rc == SQLITE_ROW || rc == SQLITE_DONE)
            return rc == SQLITE_ROW ? 1 : 0;
        if (stmt_ != nullptr)
            fail(format, args...);
        return -1;
    }

    // A statement that changes rows must run to its end: 0, else -1.
    int run(const char *format)
    {
        if (stmt_ != nullptr && mailAuthDBStep(stmt_) == SQLITE_DONE)
            return 0;
        if (stmt_ != nullptr)
            fail(format);
        return -1;
    }

    const char *column(int i) const
    {
        return reinterpret_cast<const char *>(sqlite3_column_text(stmt_, i));
    }
    int number(int i) const { return sqlite3_column_int(stmt_, i); }
    sqlite3_int64 id(int i) const { return sqlite3_column_int64(stmt_, i); }

private:
    template <typename... Args>
    void bound(int rc, const char *format, Args... args)
    {
        if (rc == SQLITE_OK)
            return;
        if (sql_ != nullptr)
            fail(format, args..., sql_);
        else
            fail(format, args...);
    }

    template <typename... Args>
    void fail(const char *format, Args... args)
    {
        // The text first: finalising may replace it.
        zarnet_log(3, format, args..., sqlite3_errmsg(db_));
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }

    sqlite3 *db_;
    const char *sql_;
    sqlite3_stmt *stmt_ = nullptr;
    int index_ = 0;
};

// Runs changes in one transaction, then commits it (store true) or rolls it
// back. The write lock is held only while they run. A command's handle stays
// open for its next transaction; any other is closed. 0, or -1 after a
// report (nothing is then stored).
int run(const std::vector<Change> &changes, bool store)
{
    sqlite3 *db = session.kept;
    if (db == nullptr && (db = mailAuthDBOpen(SQLITE_OPEN_READWRITE, open_rw_format)) == nullptr)
        return -1;
    if (session.command)
        session.kept = db;
    bool ok = false;
    // Immediate: a lock held elsewhere shows before any row is read.
    if (mailAuthDBExec(db, "BEGIN IMMEDIATE", nullptr) != SQLITE_OK) {
        zarnet_log(3, "Unable to start a transaction in the mail authentication database: %s",
                   sqlite3_errmsg(db));
    } else {
        session.db = db;
        ok = true;
        for (auto c = changes.begin(); ok && c != changes.end(); ++c)
            ok = (*c)(db);
        session.db = nullptr;
        if (ok && store && mailAuthDBExec(db, "COMMIT", nullptr) != SQLITE_OK) {
            zarnet_log(3, "Unable to commit the changes to the mail authentication database: %s",
                       sqlite3_errmsg(db));
            ok = false;
        }
        // A RAISE(ROLLBACK) trigger may have ended the transaction already.
        if (!sqlite3_get_autocommit(db))
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    if (!session.command)
        mailAuthDBClose(db);
    return ok ? 0 : -1;
}

// apply in the transaction in progress, else in one of its own: all of its
// rows are stored or none. A command's change is kept for it. 0 or -1.
int change(const Change &apply)
{
    if (session.db != nullptr)
        return apply(session.db) ? 0 : -1;
    if (session.failed) {
        zarnet_log(3, "Mail authentication database left unchanged after an earlier failure");
        return -1;
    }
    if (!session.command)
        return run(std::vector<Change>(1, apply), true);
    session.changes.push_back(apply);
    return 0;
}

// The command's changes run, committed (store true) or rolled back; a
// failure drops them and fails later ones. 0 or -1.
int run_command(bool store)
{
    if (session.failed)
        return -1;
    if (session.changes.empty() || run(session.changes, store) == 0) {
        if (store)
            session.changes.clear();
        return 0;
    }
    session.changes.clear();
    session.failed = true;
    return -1;
}

// A copy of a string argument that a kept change can outlive; null stays
// null.
class Arg {
public:
    Arg(const char *text) : null_(text == nullptr), text_(text != nullptr ? text : "") {}
    const char *get() const { return null_ ? nullptr : text_.c_str(); }

private:
    bool null_;
    std::string text_;
};

int row_flags(const char *enc_password, int user_status, int domain_status)
{
    return (enc_password != nullptr ? MAIL_AUTH_ENCRYPTED : 0) |
           (user_status != 0 ? MAIL_AUTH_USER_DISABLED : 0) |
           (domain_status != 0 ? MAIL_AUTH_DOMAIN_DISABLED : 0);
}

int walk_rows(const char *sql, const char *mailname, mailAuthCallback callback, void *data)
{
    Handle h(SQLITE_OPEN_READONLY, open_ro_format);
    Statement st(h.db, sql);
    if (mailname != nullptr)
        st.text(mailname, "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                static_cast<int>(std::strlen(mailname)), mailname);
    int rc;
    while ((rc = st.step("Unable to execute the user selection query: %s")) == 1) {
        const char *address = st.column(0);
        const char *password = st.column(1);
        const char *enc_password = st.column(2);
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
                 row_flags(enc_password, st.number(3), st.number(4)), data);
    }
    return rc;
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

// The names one panel list query gives, appended to *names; *listed tells
// whether the panel gave a list at all. false when the query failed.
template <typename Query>
bool panel_list(Query query, std::vector<std::string> *names, bool *listed = nullptr)
{
    char **items = nullptr;
    if (query(&items) != 0)
        return false;
    if (listed != nullptr)
        *listed = items != nullptr;
    for (char **item = items; item != nullptr && *item != nullptr; ++item)
        names->emplace_back(*item);
    free_array(items);
    return true;
}

// The domain, then its domain aliases; false after failure's report.
bool domain_and_aliases(const char *domain, const char *failure, std::vector<std::string> *names,
                        bool *listed)
{
    names->assign(1, domain);
    if (panel_list([&](char ***out) { return get_domaliases_by_domain(nullptr, out, domain); },
                   names, listed))
        return true;
    zarnet_log(3, failure, domain);
    return false;
}

// For every mailname of domain its mail aliases, then (with_mailnames) the
// mailname; false after a report.
bool mailnames_and_aliases(const char *domain, const char *aliases_failure, bool with_mailnames,
                           std::vector<std::string> *names, bool *listed)
{
    std::vector<std::string> mailnames;
    if (!panel_list([&](char ***out) { return get_mailnames_by_domain(nullptr, out, domain); },
                    &mailnames, listed)) {
        zarnet_log(3, "Unable to get mailnames from domain %s", domain);
        return false;
    }
    for (const std::string &mailname : mailnames) {
        if (!panel_list([&](char ***out) {
                return get_aliases_by_mailname(nullptr, out, mailname.c_str(), domain);
            }, names)) {
            zarnet_log(3, aliases_failure, mailname.c_str(), domain);
            return false;
        }
        if (with_mailnames)
            names->push_back(mailname);
    }
    return true;
}

// A spreading function's result: apply in one transaction, with the
// panel's lists read before.
int spread(bool listed, const Change &apply)
{
    return change(apply) == -1 ? -1 : listed ? 1 : 0;
}

// getDomainId on a handle that stays open: -2 for a failure.
sqlite3_int64 domain_id(sqlite3 *db, const char *domain, unsigned char flags)
{
    static const char domain_failure[] =
        "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s";
    int found;
    {
        Statement select(db, "SELECT id FROM domains WHERE name=?");
        found = select.text(domain, domain_failure, domain)
                    .step("Unable to execute the domain selection query: %s");
        if (found == 1)
            return select.id(0);
    }
    if (found == 0 && (flags & MAIL_AUTH_NO_CREATE))
        return -1;
    if (found == 0) {
        const int status = flags != 0 ? 1 : 0;
        found = Statement(db, "INSERT INTO domains (name, status) VALUES(?, ?)")
                    .text(domain, domain_failure, domain)
                    .integer(status, "Unable to bind parameter status '%d' for domain '%s' to SQL statement"
                                     " for query '%s': %s", status, domain)
                    .run("Unable to execute the mail domain authentication registration query: %s");
        if (found == 0)
            return sqlite3_last_insert_rowid(db);
    }
    return -2;
}

// The record functions on an open handle; true on success.

bool set_user(sqlite3 *db, const char *mailname, const char *domain, const char *password, int flags)
{
    const sqlite3_int64 dom_id = domain_id(db, domain, flags & MAIL_AUTH_DOMAIN_DISABLED);
    if (dom_id < 0) {
        zarnet_log(3, no_domain_format, domain);
        return false;
    }
    return Statement(db, (flags & MAIL_AUTH_ENCRYPTED)
                             ? "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id)"
                               " VALUES (?, ?, ?, ?)"
                             : "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id)"
                               " VALUES (?, ?, ?, ?)")
               .text(mailname, "Unable to bind parameter mailname '%s' to SQL statement for query '%s': %s",
                     mailname)
               .text(password, "Unable to bind parameter password for mail address '%s@%s' to SQL statement"
                               " for query '%s': %s", mailname, domain)
               .integer((flags >> 1) & 1, "Unable to bind parameter status for mail address '%s@%s' to  SQL"
                                          " statement for query '%s': %s", mailname, domain)
               .integer(dom_id, domain_id_failure, mailname, domain)
               .run("Unable to execute the mail authorization registration query: %s") == 0;
}

bool remove_user(sqlite3 *db, const char *mailname, const char *domain)
{
    const sqlite3_int64 dom_id = domain_id(db, domain, MAIL_AUTH_NO_CREATE);
    if (dom_id < 0)
        return dom_id == -1; // a failed lookup is no missing domain
    return Statement(db, "DELETE FROM users WHERE name=? AND dom_id=?")
               .text(mailname, "Unable to bind parameter mailname '%s' to  SQL statement for query '%s': %s",
                     mailname)
               .integer(dom_id, domain_id_failure, mailname, domain)
               .run("Unable to execute the mail authorization removal query: %s") == 0;
}

// set_postbox_passwd's choice.
bool store(sqlite3 *db, const char *mailname, const char *domain, const char *password, int flags)
{
    return non_empty(password) ? set_user(db, mailname, domain, password, flags)
                               : remove_user(db, mailname, domain);
}

// Reads the source user of mailAuthClone. 1 with *password (malloc'ed or
// null) and *flags for a user, 0 for none, -1 after a report.
int read_clone_source(sqlite3 *db, const char *mailname, const char *domain, char **password,
                      int *flags)
{
    sqlite3_int64 dom_id;
    int domain_status;
    {
        Statement st(db, "SELECT id, status FROM domains WHERE name=?", false);
        const int found = st.text(domain, "Unable to bind parameter domain id for: %s: %s", domain)
                              .step("Unable to get domain id: %s");
        // A domain none of whose mailnames has a login has no row yet: like a
        // missing user, nothing to clone (aliases of such domains must work).
        if (found != 1)
            return found;
        dom_id = st.id(0);
        domain_status = st.number(1);
    }

    Statement st(db,
                 "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=?",
                 false);
    const int found = st.integer(dom_id, "Unable to bind parameter bind domain id for: %s: %s", domain)
                          .text(mailname, "Unable to bind parameter bind mailname %s: %s", mailname)
                          .step("Unable to get passwd for mailname: %s: %s", mailname);
    if (found != 1)
        return found;
    const char *enc = st.column(2);
    const char *chosen = enc != nullptr ? enc : st.column(1);
    *password = nullptr;
    if (chosen != nullptr && (*password = strdup(chosen)) == nullptr) {
        zarnet_log(3, "System error: %s", strerror(ENOMEM));
        return -1;
    }
    *flags = row_flags(enc, st.number(3), domain_status);
    return 1;
}

bool clone_user(sqlite3 *db, const char *src_mailname, const char *src_domain,
                const char *dst_mailname, const char *dst_domain)
{
    char *password = nullptr;
    int flags = 0;
    const int found = read_clone_source(db, src_mailname, src_domain, &password, &flags);
    if (found < 0)
        zarnet_log(3, "Unable to get users list from MTA password database");
    const bool ok = found == 0 || (found == 1 && set_user(db, dst_mailname, dst_domain, password, flags));
    std::free(password);
    return ok;
}

bool remove_domain(sqlite3 *db, const char *domain)
{
    return Statement(db, "DELETE FROM domains WHERE name=?")
               .text(domain, "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                     domain)
               .run("Unable to execute the domain mail authorization removal query: %s") == 0;
}

bool rename_user(sqlite3 *db, const char *old_mailname, const char *new_mailname, const char *domain)
{
    const sqlite3_int64 dom_id = domain_id(db, domain, MAIL_AUTH_NO_CREATE);
    if (dom_id < 0) {
        // A failed lookup has been reported already.
        if (dom_id == -1)
            zarnet_log(3, no_domain_format, domain);
        return false;
    }
    return Statement(db, "UPDATE users SET name=? WHERE name=? AND dom_id=?")
               .text(new_mailname, "Unable to bind parameter new mailname '%s' to  SQL statement for query"
                                   " '%s': %s", new_mailname)
               .text(old_mailname, "Unable to bind parameter old mailname '%s' to  SQL statement for query"
                                   " '%s': %s", old_mailname)
               .integer(dom_id, domain_id_failure, old_mailname, domain)
               .run("Unable to execute the mail authorization renaming query: %s") == 0;
}

} // namespace

sqlite3_int64 getDomainId(const char *domain, sqlite3 **db, unsigned char flags)
{
    const sqlite3_int64 id = domain_id(*db, domain, flags);
    if (id != -2)
        return id;
    mailAuthDBClose(*db);
    *db = nullptr;
    return -1;
}

int mailAuthSet(const char *mailname, const char *domain, const char *password, int flags)
{
    return change([m = Arg(mailname), d = Arg(domain), p = Arg(password), flags](sqlite3 *db) {
        return set_user(db, m.get(), d.get(), p.get(), flags);
    });
}

int mailAuthRemove(const char *mailname, const char *domain)
{
    return change([m = Arg(mailname), d = Arg(domain)](sqlite3 *db) {
        return remove_user(db, m.get(), d.get());
    });
}

int mailAuthRename(const char *old_mailname, const char *new_mailname, const char *domain)
{
    return change([o = Arg(old_mailname), n = Arg(new_mailname), d = Arg(domain)](sqlite3 *db) {
        return rename_user(db, o.get(), n.get(), d.get());
    });
}

int mailAuthClone(const char *src_mailname, const char *src_domain, const char *dst_mailname,
                  const char *dst_domain)
{
    return change([sm = Arg(src_mailname), sd = Arg(src_domain), dm = Arg(dst_mailname),
                   dd = Arg(dst_domain)](sqlite3 *db) {
        return clone_user(db, sm.get(), sd.get(), dm.get(), dd.get());
    });
}

int setDomainStatus(const char *domain_name, int status)
{
    return change([d = Arg(domain_name), status](sqlite3 *db) {
        const char *domain = d.get();
        return Statement(db, "UPDATE domains SET status=? WHERE name=?")
                   .integer(status, "Unable to bind parameter status %d to  SQL statement for query '%s': %s",
                            status)
                   .text(domain, "Unable to bind parameter domain name '%s' to  SQL statement for query"
                                 " '%s': %s", domain)
                   .run("Unable to execute the mail domain authorization status change query: %s") == 0;
    });
}

int mailAuthEnableDomain(const char *domain) { return setDomainStatus(domain, 0); }

int mailAuthDisableDomain(const char *domain) { return setDomainStatus(domain, 1); }

int mailAuthRenameDomain(const char *old_name, const char *new_name)
{
    return change([o = Arg(old_name), n = Arg(new_name)](sqlite3 *db) {
        const char *old_domain = o.get(), *new_domain = n.get();
        return Statement(db, "UPDATE domains SET name=? WHERE name=?")
                   .text(new_domain, "Unable to bind parameter new domain name '%s' to SQL statement for"
                                     " query '%s': %s", new_domain)
                   .text(old_domain, "Unable to bind parameter old domain name '%s' to SQL statement for"
                                     " query '%s': %s", old_domain)
                   .run("Unable to execute the mail domain authorization name change query: %s") == 0;
    });
}

int mailAuthRemoveDomain(const char *domain)
{
    return change([d = Arg(domain)](sqlite3 *db) { return remove_domain(db, d.get()); });
}

int mailAuthCheck(const char *address, mailAuthCallback callback, void *data)
{
    const char *at = std::strchr(address, '@');
    if (at == nullptr || at == address || at[1] == '\0') {
        zarnet_log(3, "Invalid mail address '%s'", address);
        return -1;
    }
    const std::string mailname(address, at);

    Handle h(SQLITE_OPEN_READONLY, open_ro_format);
    Statement st(h.db, "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword,"
                       " u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d"
                       " WHERE u.dom_id = d.id AND u.name=? AND d.name=?");
    const int found =
        st.text(mailname.c_str(),
                "Unable to bind parameter mailname '%.*s' to SQL statement for query '%s': %s",
                static_cast<int>(mailname.size()), address)
            .text(at + 1, "Unable to bind parameter domain name '%s' to SQL statement for query '%s': %s",
                  at + 1)
            .step("Unable to execute the user selection query: %s");
    if (found == 0)
        zarnet_log(3, "No such user '%s' in mail authorization database", address);
    if (found != 1)
        return -1;
    const char *password = st.column(0);
    const char *enc_password = st.column(1);
    if (password == nullptr && enc_password == nullptr) {
        zarnet_log(3, "NULL password fields (noth plain and encrypted) for user %s, skipped", address);
        return -1;
    }
    callback(address, enc_password != nullptr ? enc_password : password,
             row_flags(enc_password, st.number(2), st.number(3)), data);
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
    return change([m = Arg(mailname), d = Arg(domain), p = Arg(password), flags](sqlite3 *db) {
        return store(db, m.get(), d.get(), p.get(), flags);
    });
}

namespace {

// set_postbox_passwd for each name in each domain, the first domain the
// mailbox's own.
bool store_everywhere(sqlite3 *db, const std::vector<std::string> &names,
                      const std::vector<std::string> &domains, const char *password, int flags)
{
    for (const std::string &name : names) {
        for (const std::string &domain : domains) {
            if (store(db, name.c_str(), domain.c_str(), password, flags))
                continue;
            if (&domain == &domains.front())
                zarnet_log(3, "Unable to set password for mailname %s@%s", name.c_str(), domain.c_str());
            return false;
        }
    }
    return true;
}

} // namespace

int set_passwd_for_domains(const char *mailname, const char *domain, const char *password,
                           int flags)
{
    std::vector<std::string> domains;
    bool listed = false;
    if (!domain_and_aliases(domain, "Unable to get domain aliases for domain %s", &domains, &listed))
        return -1;
    return spread(listed, [names = std::vector<std::string>(1, mailname), domains,
                           p = Arg(password), flags](sqlite3 *db) {
        return store_everywhere(db, names, domains, p.get(), flags);
    });
}

int set_mass_postbox_passwd(const char *mailname, const char *domain, const char *password,
                            int flags)
{
    std::vector<std::string> domains, names(1, mailname);
    bool listed = false;
    if (!domain_and_aliases(domain, "Unable to get domain aliases for domain %s", &domains, &listed) ||
        !panel_list([&](char ***out) { return get_aliases_by_mailname(nullptr, out, mailname, domain); },
                    &names, &listed))
        return -1;
    return spread(listed, [names, domains, p = Arg(password), flags](sqlite3 *db) {
        return store_everywhere(db, names, domains, p.get(), flags);
    });
}

int rm_mname_from_domains(const char *mailname, const char *domain)
{
    std::vector<std::string> domains;
    bool listed = false;
    if (!domain_and_aliases(domain, "Unable to get domain aliases for domain %s", &domains, &listed))
        return -1;
    return spread(listed, [local = std::string(mailname), domains](sqlite3 *db) {
        for (const std::string &name : domains) {
            if (!remove_user(db, local.c_str(), name.c_str())) {
                zarnet_log(3, "Unable to remove mailname %s@%s", local.c_str(), name.c_str());
                return false;
            }
        }
        return true;
    });
}

int rm_mails_from_domains(const char *mailname, const char *domain)
{
    std::vector<std::string> domains, names(1, mailname);
    bool listed = false;
    if (!domain_and_aliases(domain, "Unable to get domain aliases for domain %s", &domains, nullptr))
        return -1;
    if (!panel_list([&](char ***out) { return get_aliases_by_mailname(nullptr, out, mailname, domain); },
                    &names, &listed)) {
        zarnet_log(3, "Unable to get mail aliases for mailname %s%s", mailname, domain);
        return -1;
    }
    return spread(listed, [names, domains](sqlite3 *db) {
        for (const std::string &name : names) {
            for (const std::string &in : domains) {
                if (remove_user(db, name.c_str(), in.c_str()))
                    continue;
                zarnet_log(3, "Unable to remove mailname %s@%s", name.c_str(), in.c_str());
                if (&name != &names.front() || &in != &domains.front())
                    zarnet_log(3, "Unable to remove mailname from domain aliases");
                return false;
            }
        }
        return true;
    });
}

int domain_auth_action(const char *domain, int (*action)(const char *domain),
                       const char *action_text)
{
    std::vector<std::string> domains;
    bool listed = false;
    if (!domain_and_aliases(domain, "Unable to get aliases for domain %s", &domains, &listed))
        return -1;
    // The action joins this transaction: it runs while it is in progress.
    return spread(listed, [domains, action, text = std::string(action_text)](sqlite3 *) {
        for (const std::string &name : domains) {
            if (action(name.c_str()) == -1) {
                zarnet_log(3, &name == &domains.front() ? "Unable to %s for domain %s"
                                                        : "Unable to %s for domain alias %s",
                           text.c_str(), name.c_str());
                return false;
            }
        }
        return true;
    });
}

int add_domain_auth_alias(const char *domain, const char *alias)
{
    std::vector<std::string> names;
    bool listed = false;
    if (!mailnames_and_aliases(domain, "Unable to get mail aliases for %s@%s", true, &names, &listed))
        return -1;
    return spread(listed, [names, from = std::string(domain), to = std::string(alias)](sqlite3 *db) {
        for (const std::string &name : names) {
            if (!clone_user(db, name.c_str(), from.c_str(), name.c_str(), to.c_str())) {
                zarnet_log(3, "Unable to clone auth record for %s@%s", name.c_str(), from.c_str());
                return false;
            }
        }
        return true;
    });
}

int rm_domain_auth_alias(const char *alias)
{
    std::vector<std::string> owner, names;
    bool listed = false;
    if (!panel_list([&](char ***out) { return get_domain_by_domainalias(nullptr, out, alias); },
                    &owner)) {
        zarnet_log(3, "Unable to get domain by domain alias %s", alias);
        return -1;
    }
    if (!owner.empty() &&
        !mailnames_and_aliases(owner[0].c_str(), "Unable to get aliases for mailname %s@%s", false,
                               &names, &listed))
        return -1;
    return spread(listed, [names, gone = std::string(alias)](sqlite3 *db) {
        if (!remove_domain(db, gone.c_str())) {
            zarnet_log(3, "Unable to remove domain %s from auth database", gone.c_str());
            return false;
        }
        for (const std::string &name : names) {
            if (!remove_user(db, name.c_str(), gone.c_str())) {
                zarnet_log(3, "Unable to remove mail alias %s@%s", name.c_str(), gone.c_str());
                return false;
            }
        }
        return true;
    });
}

MailAuthCommand::MailAuthCommand()
{
    session.command = true;
    session.failed = false;
}

MailAuthCommand::~MailAuthCommand()
{
    mailAuthDBClose(session.kept);
    session.kept = nullptr;
    session.changes.clear();
    session.command = false;
}

int MailAuthCommand::check() { return run_command(false); }

int MailAuthCommand::commit() { return run_command(true); }
