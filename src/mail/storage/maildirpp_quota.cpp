#include "mail/storage/maildirpp_quota.h"

#include "mail/panel/panel_queries.h"
#include "utils/FdOwner.h"
#include "utils/dbconnect.h"
#include "utils/dir_walk.h"
#include "utils/fd_io.h"
#include "utils/file_tree.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const int createAttempts = 5;
const unsigned attemptPauseSeconds = 2;
// The delivery agent recounts a "maildirsize" older than 15 minutes.
const time_t staleAge = 960;
const size_t maxContent = 100;
const size_t maxUsageFile = 5120;
const size_t pathBufferSize = 4096;

void realPause(unsigned seconds)
{
    struct timespec left = {static_cast<time_t>(seconds), 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void noHook() {}

maildirpp_test_hooks hooks = {realPause, noHook};

__attribute__((format(printf, 1, 2)))
void report(const char *format, ...)
{
    const int saved = errno;
    va_list args;
    va_start(args, format);
    vmesslog2(0, 0, format, args);
    va_end(args);
    errno = saved;
}

// Reports without a system error appended: the text carries its own cause.
#define REPORT_PLAIN(...)                                                   \
    do {                                                                    \
        errno = 0;                                                          \
        report(__VA_ARGS__);                                                \
    } while (0)

// Brings the process back to the directory it was in, whatever way the
// caller leaves, without disturbing errno.
class CwdKeeper {
public:
    CwdKeeper() : fd_(fd_io::open_retry(".", O_PATH | O_DIRECTORY)) {}
    ~CwdKeeper()
    {
        if (fd_ < 0)
            return;
        const int saved = errno;
        fd_io::retry_eintr([&] { return ::fchdir(fd_); });
        ::close(fd_);
        errno = saved;
    }
    CwdKeeper(const CwdKeeper &) = delete;
    CwdKeeper &operator=(const CwdKeeper &) = delete;

    // Changes into the Maildir. Its last component must not be a symbolic
    // link: the mailbox's owner could point it anywhere, and root writes
    // and counts there.
    bool enter(const char *maildir) const
    {
        if (fd_ < 0)
            return false;
        const int fd = dir_walk::open_dir(AT_FDCWD, maildir);
        if (fd < 0)
            return false;
        const int rc = fd_io::retry_eintr([&] { return ::fchdir(fd); });
        fd_io::close_quietly(fd);
        return rc == 0;
    }

private:
    int fd_;
};

// The temporary "maildirsize" in the Maildir's "tmp" until it is renamed
// into place: closed and removed otherwise, errno untouched.
class PendingFile {
public:
    PendingFile(int dir, int fd, const char *name) : dir_(dir), fd_(fd), name_(name) {}
    ~PendingFile()
    {
        const int saved = errno;
        if (fd_ >= 0)
            ::close(fd_);
        if (!name_.empty())
            ::unlinkat(dir_, name_.c_str(), 0);
        errno = saved;
    }
    PendingFile(const PendingFile &) = delete;
    PendingFile &operator=(const PendingFile &) = delete;

    int close()
    {
        const int rc = fd_io::close_fd(fd_);
        fd_ = -1;
        return rc;
    }
    int renameTo(const char *target)
    {
        const int rc = fd_io::retry_eintr(
            [&] { return ::renameat(dir_, name_.c_str(), AT_FDCWD, target); });
        if (rc == 0)
            name_.clear();
        return rc;
    }

private:
    int dir_;
    int fd_;
    std::string name_;
};

struct MysqlResultFreer {
    MYSQL_RES *res;
    ~MysqlResultFreer()
    {
        if (res != nullptr)
            mysql_free_result(res);
    }
};

struct CFree {
    void *p;
    ~CFree() { std::free(p); }
};

void addSaturated(long long &total, long long amount)
{
    if (__builtin_add_overflow(total, amount, &total))
        total = amount < 0 ? LLONG_MIN : LLONG_MAX;
}

bool later(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// The decimal number at p, leaving p after it; false when there is none or
// it overflows.
bool parseNumber(const char *&p, const char *end, unsigned long long *value)
{
    if (p == end || !isDigit(*p))
        return false;
    unsigned long long v = 0;
    for (; p < end && isDigit(*p); ++p)
        if (__builtin_mul_overflow(v, 10ULL, &v) ||
            __builtin_add_overflow(v, static_cast<unsigned long long>(*p - '0'), &v))
            return false;
    *value = v;
    return true;
}

// The first ",S=<n>" whose number fits and ends at ":" or at the end.
bool sizeFromName(const char *name, long long *size)
{
    const char *const end = name + std::strlen(name);
    for (const char *mark = std::strstr(name, ",S="); mark != nullptr;
         mark = std::strstr(mark + 1, ",S=")) {
        const char *p = mark + 3;
        unsigned long long value;
        if (parseNumber(p, end, &value) && value <= static_cast<unsigned long long>(LLONG_MAX) &&
            (p == end || *p == ':')) {
            *size = static_cast<long long>(value);
            return true;
        }
    }
    return false;
}

struct Tally {
    long long bytes = 0;
    unsigned long long count = 0;
    struct timespec newest = {0, 0};
};

// Counts the messages in parent/name. A directory that is not there (or
// vanished) counts nothing, and so does anything else the owner put under
// its name (changedSince reports it); links are never followed.
bool countMessages(int parent, const char *name, Tally &tally)
{
    const int fd = dir_walk::open_dir(parent, name);
    if (fd < 0)
        return errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        fd_io::close_quietly(fd);
        return false;
    }
    // Taken before the listing: a delivery made while it runs moves the
    // directory's time past this mark.
    if (later(st.st_mtim, tally.newest))
        tally.newest = st.st_mtim;
    return dir_walk::all_visited(dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        long long size;
        if (!sizeFromName(e.name, &size)) {
            struct stat msg;
            if (!e.stat(msg))
                return errno == ENOENT;
            if (S_ISDIR(msg.st_mode))
                return true;
            size = msg.st_size;
        }
        addSaturated(tally.bytes, size);
        ++tally.count;
        return true;
    }));
}

// Of the entries a walk shows ("." and ".." are left out by it).
bool isCountedFolder(const char *name)
{
    return name[0] == '.' && std::strcmp(name, ".Trash") != 0;
}

// Whether a delivery may have been missed by a count that ended at mark:
// some counted directory changed after it, or the check itself could not
// be made.
bool changedSince(const char *maildir, const struct timespec &mark)
{
    struct timespec newest = {0, 0};
    const auto statSub = [&](const char *folder, const char *sub) {
        char path[pathBufferSize];
        const int n = folder == nullptr ? std::snprintf(path, sizeof path, "%s", sub)
                                        : std::snprintf(path, sizeof path, "%s/%s", folder, sub);
        if (n < 0 || static_cast<size_t>(n) >= sizeof path) {
            REPORT_PLAIN("Maildir subfolder '%s' name too long to fit the allowed buffer", sub);
            return false;
        }
        struct stat st;
        if (::lstat(path, &st) != 0) {
            report("Maildir subfolder '%s' stat failed", sub);
            return false;
        }
        if (!S_ISDIR(st.st_mode)) {
            REPORT_PLAIN("Bad/unrecognized entry %s within Maildir folder %s\n", path, maildir);
            return true;
        }
        if (later(st.st_mtim, newest))
            newest = st.st_mtim;
        return true;
    };
    if (!statSub(nullptr, "cur") || !statSub(nullptr, "new"))
        return true;

    const int fd = dir_walk::open_dir(AT_FDCWD, ".");
    if (fd < 0) {
        report("Unable to open Maildir folder. Has it just been removed?");
        return true;
    }
    bool unsure = false;
    dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        if (!isCountedFolder(e.name))
            return true;
        struct stat st;
        if (!e.stat(st))
            return true; // gone since the count; nothing left to miss there
        if (!S_ISDIR(st.st_mode)) {
            REPORT_PLAIN("Bad/unrecognized entry %s within Maildir folder %s\n", e.name, maildir);
            return true;
        }
        unsure = !statSub(e.name, "cur") || !statSub(e.name, "new");
        return !unsure;
    });
    return unsure || later(newest, mark);
}

// One line "<signed bytes><white space><unsigned count>", blanks allowed
// in front (the usage line is right-aligned).
bool parseUsageLine(const char *p, const char *end, long long *bytes, unsigned long long *count)
{
    while (p < end && (*p == ' ' || *p == '\t'))
        ++p;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+'))
        negative = *p++ == '-';
    unsigned long long magnitude;
    if (!parseNumber(p, end, &magnitude) ||
        magnitude > static_cast<unsigned long long>(LLONG_MAX) + (negative ? 1 : 0))
        return false;
    *bytes = negative ? static_cast<long long>(0ULL - magnitude) : static_cast<long long>(magnitude);

    if (p == end || (*p != ' ' && *p != '\t'))
        return false;
    while (p < end && (*p == ' ' || *p == '\t'))
        ++p;
    return parseNumber(p, end, count) && p == end;
}

// Sums the usage lines of "maildirsize" in the current directory; false
// when the file cannot serve (missing, not a plain file, too long, no line
// feed, a bad or overflowing line).
bool readUsageFile(long long *bytes, unsigned long long *count)
{
    // A FIFO put in its place must not hang the run.
    const int fd = fd_io::open_regular("maildirsize", O_RDONLY);
    if (fd < 0)
        return false;
    char buf[maxUsageFile + 1];
    size_t got = 0;
    while (got < sizeof buf) {
        const ssize_t n = fd_io::read_retry(fd, buf + got, sizeof buf - got);
        if (n < 0) {
            fd_io::close_quietly(fd);
            return false;
        }
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    fd_io::close_quietly(fd);
    if (got > maxUsageFile)
        return false;
    const char *end = buf + got;
    const char *eol = static_cast<const char *>(std::memchr(buf, '\n', got));
    if (eol == nullptr)
        return false;

    long long totalBytes = 0;
    unsigned long long totalCount = 0;
    for (const char *line = eol + 1; line < end;) {
        const char *next = static_cast<const char *>(std::memchr(line, '\n', end - line));
        const char *lineEnd = next != nullptr ? next : end;
        long long b;
        unsigned long long c;
        if (!parseUsageLine(line, lineEnd, &b, &c) ||
            __builtin_add_overflow(totalBytes, b, &totalBytes) ||
            __builtin_add_overflow(totalCount, c, &totalCount))
            return false;
        line = next != nullptr ? next + 1 : end;
    }
    *bytes = totalBytes;
    *count = totalCount;
    return true;
}

bool popuserIds(uid_t *uid, gid_t *gid)
{
    // getpwnam may leave errno alone for a missing account; a stale value
    // must not be reported as the cause.
    errno = 0;
    const struct passwd *pw = ::getpwnam("popuser");
    if (pw == nullptr)
        return false;
    *uid = pw->pw_uid;
    *gid = pw->pw_gid;
    return true;
}

// The process's shared panel connection (never closed here), and the domain
// escaped for its queries; null after a report.
MYSQL *openPanel(const char *domain, CFree &escaped)
{
    MYSQL *const conn = db_shared();
    if (conn == nullptr) {
        report("unable to connect to MySQL");
        return nullptr;
    }
    escaped.p = mysql_escape_mail_entity(conn, domain);
    return escaped.p != nullptr ? conn : nullptr;
}

// Runs "SELECT id FROM domains ..." for the escaped domain; the id, or ""
// after a report.
std::string domainId(MYSQL *conn, const char *domain, const char *escaped)
{
    const std::string query = std::string("SELECT id FROM domains WHERE name='") + escaped + "'";
    if (mysql_real_query(conn, query.c_str(), query.size()) != 0) {
        REPORT_PLAIN("Unable to query domain ID: %s", mysql_error(conn));
        return "";
    }
    MysqlResultFreer result{mysql_store_result(conn)};
    if (result.res == nullptr) {
        REPORT_PLAIN("Unable to get domain ID query result: %s", mysql_error(conn));
        return "";
    }
    const MYSQL_ROW row = mysql_fetch_row(result.res);
    if (row == nullptr || row[0] == nullptr || row[0][0] == '\0') {
        REPORT_PLAIN("No such domain %s", domain);
        return "";
    }
    return row[0];
}

} // namespace

void maildirpp_set_test_hooks_for_testing(const maildirpp_test_hooks *set)
{
    hooks.pause = set != nullptr && set->pause != nullptr ? set->pause : realPause;
    hooks.after_count = set != nullptr && set->after_count != nullptr ? set->after_count : noHook;
}

int write_maildirpp_maildirsize(const char *maildir, uid_t uid, gid_t gid,
                                long long quota_bytes, unsigned long long quota_count)
{
    const int entryErrno = errno;
    CwdKeeper cwd;
    if (!cwd.enter(maildir))
        return 0;

    char host[65];
    if (::gethostname(host, sizeof host) != 0) {
        report("Unable to receive hostname");
        return 0;
    }
    host[sizeof host - 1] = '\0';

    // Everything is done relative to "tmp" opened without following a link,
    // so a link put in its place cannot carry the file out of the Maildir.
    zarnet::process::FdOwner tmpDir;
    const char tmpPrefix[] = "tmp/";
    char tmpName[pathBufferSize];
    const char *const baseName = tmpName + sizeof tmpPrefix - 1;
    int fd = -1;
    for (int attempt = 0; attempt < createAttempts && fd < 0; ++attempt) {
        const int n = std::snprintf(tmpName, sizeof tmpName, "%s%lu.%u.%s-maildirsize", tmpPrefix,
                                    static_cast<unsigned long>(::time(nullptr)),
                                    static_cast<unsigned>(::getpid()), host);
        if (n < 0 || static_cast<size_t>(n) >= sizeof tmpName) {
            errno = ENAMETOOLONG;
            report("host name is too long to be used in filename");
            return 0;
        }
        if (!tmpDir.valid())
            tmpDir.reset(fd_io::open_retry("tmp", O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
        struct stat st;
        if (!tmpDir.valid() || ::fstatat(tmpDir.get(), baseName, &st, AT_SYMLINK_NOFOLLOW) == 0 ||
            errno != ENOENT) {
            hooks.pause(attemptPauseSeconds);
            continue;
        }
        fd = fd_io::openat_retry(tmpDir.get(), baseName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                                 0644);
        if (fd >= 0) {
            // The name must still lead to what was opened: anything else
            // means someone else is using it.
            struct stat byFd, byName;
            if (::fstat(fd, &byFd) == 0 &&
                ::fstatat(tmpDir.get(), baseName, &byName, AT_SYMLINK_NOFOLLOW) == 0 &&
                byFd.st_dev == byName.st_dev && byFd.st_ino == byName.st_ino &&
                fd_io::retry_eintr([&] { return ::ftruncate(fd, 0); }) == 0)
                break;
            fd_io::close_quietly(fd);
            ::unlinkat(tmpDir.get(), baseName, 0);
            fd = -1;
        }
        hooks.pause(attemptPauseSeconds);
    }
    if (fd < 0) {
        errno = EAGAIN;
        report("Maximal allowed number of attempts to create a maildirsize file exceeded");
        return 0;
    }
    PendingFile pending(tmpDir.get(), fd, baseName);

    // The umask must not take the readers' access away.
    if (fd_io::retry_eintr([&] { return ::fchown(fd, uid, gid); }) != 0 ||
        fd_io::retry_eintr([&] { return ::fchmod(fd, 0644); }) != 0)
        return 0;

    long long usedBytes = 0;
    unsigned long long usedCount = 0;
    struct timespec mark = {0, 0};
    if (!get_maildirpp_messages_usage(&usedBytes, &usedCount, &mark))
        return 0;
    hooks.after_count();

    char content[maxContent + 1];
    const int length = std::snprintf(content, sizeof content, "%lldS,%lluC\n%12lld%12llu\n",
                                     quota_bytes, quota_count, usedBytes, usedCount);
    if (length < 0 || static_cast<size_t>(length) > maxContent) {
        errno = EINVAL;
        return 0;
    }
    for (size_t done = 0; done < static_cast<size_t>(length);) {
        const ssize_t n = ::write(fd, content + done, static_cast<size_t>(length) - done);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            report("unable to write data to file");
            return 0;
        }
        done += static_cast<size_t>(n);
    }
    if (fd_io::fsync_retry(fd) != 0 || pending.close() != 0) {
        report("unable to commit written data to file");
        return 0;
    }
    if (pending.renameTo("maildirsize") != 0)
        return 0;

    if (changedSince(maildir, mark)) {
        struct timespec times[2];
        times[0].tv_sec = 0;
        times[0].tv_nsec = UTIME_NOW;
        times[1].tv_sec = mark.tv_sec - staleAge;
        times[1].tv_nsec = mark.tv_nsec;
        ::utimensat(AT_FDCWD, "maildirsize", times, AT_SYMLINK_NOFOLLOW);
    }
    errno = entryErrno;
    return 1;
}

int get_maildirpp_messages_usage(long long *bytes, unsigned long long *count,
                                 struct timespec *newest)
{
    Tally tally;
    tally.newest = *newest;
    if (!countMessages(AT_FDCWD, "new", tally) || !countMessages(AT_FDCWD, "cur", tally))
        return 0;

    const int top = dir_walk::open_dir(AT_FDCWD, ".");
    if (top < 0)
        return 0;
    const dir_walk::Result r = dir_walk::each_entry(top, [&](const dir_walk::Entry &e) {
        if (!isCountedFolder(e.name))
            return true;
        const int folder = e.open_dir();
        if (folder < 0) // not a directory (or gone): not a folder to count
            return errno == ENOTDIR || errno == ELOOP || errno == ENOENT;
        const bool ok = countMessages(folder, "new", tally) && countMessages(folder, "cur", tally);
        fd_io::close_quietly(folder);
        return ok;
    });
    if (!dir_walk::all_visited(r))
        return 0;
    *bytes = tally.bytes;
    *count = tally.count;
    *newest = tally.newest;
    return 1;
}

int get_maildirpp_usage(const char *maildir, long long *bytes, unsigned long long *count)
{
    CwdKeeper cwd;
    if (!cwd.enter(maildir))
        return 0;
    if (readUsageFile(bytes, count))
        return 1;
    struct timespec mark = {0, 0};
    return get_maildirpp_messages_usage(bytes, count, &mark);
}

int store_maildirpp_quota_raw(const char *maildir, long long quota)
{
    uid_t uid;
    gid_t gid;
    if (!popuserIds(&uid, &gid)) {
        report("user popuser not found");
        return 0;
    }
    const long long written = quota < 0 ? 0 : quota == 0 ? 1 : quota;
    return write_maildirpp_maildirsize(maildir, uid, gid, written, 0);
}

int store_mbox_quota(const char *domain, const char *mailname, long long quota)
{
    CFree ascii{idn_toascii(domain)};
    if (ascii.p == nullptr) {
        REPORT_PLAIN("idn_toascii(%s) failed: %s", domain, idn_strerror(idn_errno));
        return 0;
    }
    char home[pathBufferSize];
    const int n = std::snprintf(home, sizeof home, "%s/%s/%s",
                                zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D),
                                static_cast<const char *>(ascii.p), mailname);
    if (n < 0 || static_cast<size_t>(n) >= sizeof home) {
        REPORT_PLAIN("domain and/or user name too long to be stored on the filesystem");
        return 0;
    }

    CFree cwd{::getcwd(nullptr, 0)};
    if (cwd.p == nullptr) {
        report("unable to get current working directory");
        return 0;
    }
    if (fd_io::retry_eintr([&] { return ::chdir(home); }) != 0) {
        report("unable to change to mbox folder %s: %s", home, std::strerror(errno));
        return 0;
    }
    const auto back = [&] {
        const int saved = errno;
        fd_io::retry_eintr([&] { return ::chdir(static_cast<const char *>(cwd.p)); });
        errno = saved;
    };

    struct stat st;
    if (quota >= 0 && ::lstat("@attachments", &st) == 0) {
        const long long attachments = tree_size("@attachments", 0);
        if (attachments < 0) {
            report("unable to count attachments folder size");
            back();
            return 0;
        }
        quota -= attachments;
        if (quota < 0) {
            REPORT_PLAIN("WARNING: @attachments directory is big enough to disable delivery!");
            quota = 0;
        }
    }
    const int rc = store_maildirpp_quota_raw("./Maildir", quota);
    back();
    return rc;
}

int rm_mbox_quota(const char *domain, const char *mailname)
{
    CFree escaped{nullptr};
    MYSQL *const conn = openPanel(domain, escaped);
    if (conn == nullptr)
        return 0;
    const std::string id = domainId(conn, domain, static_cast<const char *>(escaped.p));
    if (id.empty())
        return 0;
    char limit[64] = "";
    if (get_dom_Limit(id.c_str(), "mbox_quota", limit, sizeof limit) != 0)
        return 0;
    long long quota;
    if (std::sscanf(limit, "%lld", &quota) != 1)
        quota = -1;
    return store_mbox_quota(domain, mailname, quota);
}

int store_default_mbox_quota(const char *domain, long long quota)
{
    CFree escaped{nullptr};
    MYSQL *const conn = openPanel(domain, escaped);
    if (conn == nullptr)
        return 0;
    char query[1024];
    const int n = std::snprintf(query, sizeof query,
                                "SELECT m.mail_name, m.mbox_quota FROM mail m, domains d "
                                "WHERE d.id = m.dom_id AND d.name='%s' ",
                                static_cast<const char *>(escaped.p));
    if (n < 0 || static_cast<size_t>(n) >= sizeof query) {
        REPORT_PLAIN("domain name is too long to fit query buffer");
        return 0;
    }
    if (mysql_real_query(conn, query, static_cast<unsigned long>(n)) != 0) {
        REPORT_PLAIN("Unable to query mailnames: %s", mysql_error(conn));
        return 0;
    }
    MysqlResultFreer result{mysql_store_result(conn)};
    if (result.res == nullptr) {
        REPORT_PLAIN("Unable to query mailnames: %s", mysql_error(conn));
        return 0;
    }
    while (const MYSQL_ROW row = mysql_fetch_row(result.res)) {
        if (row[0] == nullptr)
            continue;
        long long own;
        if (row[1] != nullptr && std::sscanf(row[1], "%lld", &own) == 1 && own != -1)
            continue;
        if (!store_mbox_quota(domain, row[0], quota)) {
            report("unable to set default mbox quota for domain '%s' (processing '%s')", domain,
                   row[0]);
            return 0;
        }
    }
    return 1;
}

int rm_default_mbox_quota(const char *domain)
{
    return store_default_mbox_quota(domain, -1);
}

int store_domain_quota(const char *domain, long long quota)
{
    return store_default_mbox_quota(domain, quota);
}

int rm_domain_quota(const char *domain)
{
    return rm_default_mbox_quota(domain);
}

char *mysql_escape_mail_entity(MYSQL *conn, const char *name)
{
    CFree ascii{idn_toascii(name)};
    if (ascii.p == nullptr) {
        REPORT_PLAIN("idn_toascii(%s) failed: %s", name, idn_strerror(idn_errno));
        return nullptr;
    }
    const char *text = static_cast<const char *>(ascii.p);
    const size_t length = std::strlen(text);
    char *escaped = static_cast<char *>(std::malloc(2 * length + 1));
    if (escaped == nullptr) {
        report("Unable to allocate memory to escape %s", text);
        return nullptr;
    }
    if (mysql_real_escape_string(conn, escaped, text, static_cast<unsigned long>(length)) ==
        static_cast<unsigned long>(-1)) {
        REPORT_PLAIN("Unable to escape %s: %s", text, mysql_error(conn));
        std::free(escaped);
        return nullptr;
    }
    return escaped;
}
