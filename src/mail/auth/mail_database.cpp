#include "mail/auth/mail_database.h"

#include "utils/liblog.h"
#include "utils/read_configuration.h"

#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <strings.h>

namespace {

const char *const style_paths[] = {
    "/var/lib/zarnet/mail/auth/passwd.db",
    "/var/spool/postfix/zarnet/passwd.db",
};

std::string testing_path;

const char schema_script[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE,"
    " status INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX domains_name ON domains(name);"
    "CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN "
    "   DELETE FROM users WHERE dom_id = OLD.id;  END;"
    "CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT,"
    " dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL,"
    " userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255),"
    " \"cmusaslsecretCRAM-MD5\" VARCHAR(255), status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id));"
    "CREATE INDEX users_name ON users(name);CREATE INDEX users_dom_id ON users(dom_id);"
    "CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN "
    "   SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint"
    " \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN "
    "   SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint"
    " \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "COMMIT;";

const int busy_timeout_ms = 50;

// How long one call waits for a lock another process holds. Deliveries and
// the POP3/IMAP server hold theirs for milliseconds; a lock held for seconds
// is a stuck writer, and the panel waiting on this command needs an answer.
const int lock_wait_seconds = 5;

// The repeats of one busy call: none before the second attempt, then 10
// microseconds more before each further one, until lock_wait_seconds have
// passed since the first.
class Retry {
public:
    // false when the call must give up: the time is up (reported) or a
    // pause failed; *rc then becomes the call's answer.
    bool again(int *rc)
    {
        if (std::chrono::steady_clock::now() - start_ >= std::chrono::seconds(lock_wait_seconds)) {
            zarnet_log(3, "Mail authentication database %s stayed locked for %d seconds, giving up",
                       mailAuthDB, lock_wait_seconds);
            return false;
        }
        if (++attempt_ < 2)
            return true;
        const unsigned long long micros = (attempt_ - 1) * 10;
        struct timespec left = {static_cast<time_t>(micros / 1000000),
                                static_cast<long>(micros % 1000000) * 1000};
        while (nanosleep(&left, &left) != 0) {
            if (errno != EINTR) {
                *rc = SQLITE_ERROR;
                return false;
            }
        }
        return true;
    }

private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    unsigned long long attempt_ = 0;
};

// mkdir -p with mode 0755 for every component created.
int mkdir_chain(const char *dir)
{
    std::string path(dir);
    for (size_t end = 1; end <= path.size(); ++end) {
        if (end != path.size() && path[end] != '/')
            continue;
        if (path[end - 1] == '/')
            continue;
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), 0755) == 0)
            continue;
        if (errno != EEXIST)
            return -1;
        struct stat st;
        if (stat(part.c_str(), &st) != 0)
            return -1;
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
    }
    return 0;
}

} // namespace

const char *mailAuthDB = style_paths[0];

void mailAuthDBSelectStyle(int style)
{
    if (style == 0 || style == 1)
        mailAuthDB = style_paths[style];
}

void mailAuthDBSetPathForTesting(const char *path)
{
    if (path == nullptr) {
        mailAuthDB = style_paths[0];
        return;
    }
    testing_path = path;
    mailAuthDB = testing_path.c_str();
}

int mailAuthDBExec(sqlite3 *db, const char *sql, char **errmsg)
{
    // Only a transaction the script opened itself is rolled back for a
    // repeat: one the caller holds (a busy COMMIT) stays for the next try.
    const bool outside = sqlite3_get_autocommit(db) != 0;
    int rc;
    for (Retry retry;;) {
        if (errmsg != nullptr && *errmsg != nullptr) {
            sqlite3_free(*errmsg);
            *errmsg = nullptr;
        }
        rc = sqlite3_exec(db, sql, nullptr, nullptr, errmsg);
        if (rc != SQLITE_BUSY && rc != SQLITE_LOCKED)
            return rc;
        if (outside && !sqlite3_get_autocommit(db))
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        if (!retry.again(&rc))
            return rc;
    }
}

int mailAuthDBPrepare(sqlite3 *db, const char *sql, sqlite3_stmt **stmt)
{
    for (Retry retry;;) {
        *stmt = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, stmt, nullptr);
        if (rc != SQLITE_BUSY && rc != SQLITE_LOCKED)
            return rc;
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
        if (!retry.again(&rc))
            return rc;
    }
}

int mailAuthDBStep(sqlite3_stmt *stmt)
{
    for (Retry retry;;) {
        int rc = sqlite3_step(stmt);
        if (rc != SQLITE_BUSY && rc != SQLITE_LOCKED)
            return rc;
        sqlite3_reset(stmt);
        if (!retry.again(&rc))
            return rc;
    }
}

int mailAuthDBClose(sqlite3 *db)
{
    for (Retry retry;;) {
        int rc = sqlite3_close(db);
        if (rc != SQLITE_BUSY)
            return rc;
        if (!retry.again(&rc))
            return rc;
    }
}

sqlite3 *mailAuthDBOpen(int flags, const char *format)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(mailAuthDB, &db, flags, nullptr) != SQLITE_OK) {
        zarnet_log(3, format, mailAuthDB, db != nullptr ? sqlite3_errmsg(db) : "general DB errror");
        mailAuthDBClose(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, busy_timeout_ms);
    return db;
}

int mailAuthDBInit()
{
    char *path = strdup(mailAuthDB);
    if (path == nullptr) {
        errno = ENOMEM;
        zarnet_log(2, "Memory allocation error");
        return -1;
    }
    const char *dir = dirname(path);
    if (dir == nullptr) {
        zarnet_log(2, "dirname(%s) failed: %s", mailAuthDB, strerror(errno));
        std::free(path);
        return -1;
    }
    if (mkdir_chain(dir) != 0) {
        zarnet_log(2, "recursive mkdir(%s) failed: %s", dir, strerror(errno));
        std::free(path);
        return -1;
    }
    std::free(path);

    unlink(mailAuthDB);
    sqlite3 *db = mailAuthDBOpen(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                 "Unable to open database %s: %s");
    if (db == nullptr)
        return -1;

    int result = 0;
    char *errmsg = nullptr;
    if (mailAuthDBExec(db, schema_script, &errmsg) != SQLITE_OK) {
        if (errmsg != nullptr)
            zarnet_log(3, "Unable to re-create Mail Authentication Database: %s", errmsg);
        else
            zarnet_log(3, "Unable to re-create Mail Authentication Database");
        result = -1;
    }
    sqlite3_free(errmsg);
    mailAuthDBClose(db);
    return result;
}

int mailAuthDBSetAccess(uid_t owner, gid_t group, mode_t dir_mode, mode_t file_mode)
{
    char *path = strdup(mailAuthDB);
    if (path == nullptr) {
        errno = ENOMEM;
        zarnet_log(2, "Memory allocation error");
        return -1;
    }
    const std::string dir = dirname(path);
    std::free(path);
    if (dir[0] != '/' || dir.size() < 2) {
        zarnet_log(2, "Invalid mail authentication DB path %s", mailAuthDB);
        return -1;
    }

    const char *const targets[] = {dir.c_str(), mailAuthDB};
    const mode_t modes[] = {dir_mode, file_mode};
    for (int i = 0; i < 2; ++i) {
        if (chown(targets[i], owner, group) != 0) {
            zarnet_log(2, "chown(\"%s\", %d, %d) failed: %s", targets[i], static_cast<int>(owner),
                       static_cast<int>(group), strerror(errno));
            return -1;
        }
        if (chmod(targets[i], modes[i]) != 0) {
            zarnet_log(2, "chmod(\"%s\", %04o) failed: %s", targets[i],
                       static_cast<unsigned>(modes[i]), strerror(errno));
            return -1;
        }
    }
    return 0;
}

int mailAuthDBInitStyle(int style)
{
    mailAuthDBSelectStyle(style);
    if (mailAuthDBInit() != 0)
        return -1;

    if (style != 1)
        return mailAuthDBSetAccess(0, 0, 0750, 0600);
    errno = 0;
    const struct passwd *pw = getpwnam("postfix");
    if (pw == nullptr) {
        // An absent entry leaves errno alone; say what went wrong anyway.
        zarnet_log(2, "Unable to get user id for \"%s\": %s", "postfix",
                   strerror(errno != 0 ? errno : ENOENT));
        return -1;
    }
    return mailAuthDBSetAccess(pw->pw_uid, 0, 0770, 0460);
}

int mailAuthDBDetectStyle()
{
    static const char prefix[] = "$features['SMTP_Server']";
    const size_t prefix_len = sizeof prefix - 1;

    const char *root = zrnConfGetDefaultByIndex(PRODUCT_ROOT_D);
    char command[4096];
    const int n = std::snprintf(command, sizeof command, "%s/admin/sbin/mailtend --features", root);
    if (n < 0 || static_cast<size_t>(n) >= sizeof command) {
        zarnet_log(3, "path to mailtend is too long, check PRODUCT_ROOT_D (%s)", root);
        return -1;
    }

    std::fflush(nullptr);
    FILE *pipe = popen(command, "re");
    if (pipe == nullptr) {
        zarnet_log(3, "unable to execute %s: %s", command, strerror(errno));
        return -1;
    }

    int style = -1;
    char *line = nullptr;
    size_t capacity = 0;
    ssize_t len;
    while (style < 0) {
        errno = 0;
        len = getline(&line, &capacity, pipe);
        if (len < 0) {
            if (errno == EINTR) {
                clearerr(pipe);
                continue;
            }
            break;
        }
        if (len > 0 && line[len - 1] == '\n')
            line[--len] = '\0';
        if (static_cast<size_t>(len) < prefix_len || std::strncmp(line, prefix, prefix_len) != 0)
            continue;

        const char *open = std::strpbrk(line + prefix_len, "'\"");
        const char *close = open != nullptr ? std::strpbrk(open + 1, "'\"") : nullptr;
        if (close == nullptr) {
            zarnet_log(6, "Unparseable line \"%s\", skipped", line);
            continue;
        }
        const char *value = open + 1;
        const size_t value_len = static_cast<size_t>(close - value);
        if (value_len > 0 && strncasecmp(value, "postfix", value_len) == 0)
            style = 1;
        else if (value_len > 0 && strncasecmp(value, "qmail", value_len) == 0)
            style = 0;
        else
            zarnet_log(6, "Unknown server style \"%.*s\", skipped", static_cast<int>(value_len),
                       value);
    }
    std::free(line);
    pclose(pipe);

    if (style < 0)
        zarnet_log(6, "Unable to determine mail server type from ``mailtend --features''");
    return style;
}
