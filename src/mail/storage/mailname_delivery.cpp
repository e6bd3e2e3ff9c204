#include "mail/storage/mailname_delivery.h"

#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/file_str.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

const char kPopUser[] = "popuser";
const char kPlainDelivery[] = "./Maildir/";
const char kQuotaDelivery[] = "| /usr/bin/deliverquota ./Maildir";

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};

bool is_mailname_start(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

int format_path(char *buf, size_t size, const char *mailname, const char *domain, const char *suffix,
                const char *what)
{
    if (buf != nullptr && size > 0)
        buf[0] = '\0';
    if (mailname == nullptr || domain == nullptr || domain[0] == '\0' || !is_mailname_start(mailname[0]))
        return dotqmail_refuse(EINVAL, "empty mailname or maildomain");
    std::unique_ptr<char, FreeDeleter> ascii(idn_toascii(domain));
    if (!ascii)
        return dotqmail_refuse(EINVAL, "idn_toascii(%s) failed: %s", domain, idn_strerror(idn_errno));
    // Names differing only in case must meet in one home; the converter keeps
    // an ASCII name's case.
    for (char *p = ascii.get(); *p != '\0'; ++p)
        if (*p >= 'A' && *p <= 'Z')
            *p = static_cast<char>(*p - 'A' + 'a');
    // Both become path components under the root that root edits and chowns:
    // they must not climb out of it.
    if (std::strchr(mailname, '/') != nullptr || std::strchr(ascii.get(), '/') != nullptr ||
        ascii.get()[0] == '.')
        return dotqmail_refuse(EINVAL, "Invalid mailname '%s' or domain name '%s'", mailname, domain);

    const char *root = zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D);
    const int n = std::snprintf(buf, size, "%s/%s/%s%s", root, ascii.get(), mailname, suffix);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        if (buf != nullptr && size > 0)
            buf[0] = '\0';
        return dotqmail_refuse(ENAMETOOLONG,
                               "Either domain name '%s' or mailname '%s' are too long to store %s in the "
                               "provided buffer",
                               domain, mailname, what);
    }
    return 0;
}

// Writes a replacement beside the file and renames it over the file, under
// the file's lock, so the delivery agent and the other editors never see a
// partial file. Whatever is left undone at destruction is cleaned up.
class Replacement {
public:
    Replacement(const char *path, lock_struct_t *lock) : path_(path), lock_(lock) {}

    ~Replacement()
    {
        const int saved = errno;
        fd_io::close_quietly(fd_);
        if (!tmp_.empty())
            unlink(tmp_.c_str());
        free_lock(lock_);
        errno = saved;
    }

    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

    int run(const char *content)
    {
        std::string name;
        do {
            name = path_ + ".XXXXXX";
            fd_ = mkostemp(&name[0], O_CLOEXEC);
        } while (fd_ < 0 && errno == EINTR);
        if (fd_ < 0)
            return dotqmail_fail(errno, "Unable to open %s: %s", path_.c_str(), std::strerror(errno));
        tmp_ = name;

        const size_t len = std::strlen(content);
        const ssize_t done = fd_io::write_all(fd_, content, len);
        if (done >= 0 && static_cast<size_t>(done) != len)
            errno = EIO;
        if (done < 0 || static_cast<size_t>(done) != len)
            return write_failed();
        if (dotqmail_set_owner_fd(fd_, path_.c_str()) != 0)
            return -1;
        if (fd_io::fsync_retry(fd_) != 0)
            return write_failed();
        const int fd = fd_;
        fd_ = -1;
        if (fd_io::close_fd(fd) != 0)
            return write_failed();
        if (rename(tmp_.c_str(), path_.c_str()) != 0)
            return write_failed();
        tmp_.clear();
        fd_io::sync_parent_directory(path_);
        return 0;
    }

private:
    int write_failed()
    {
        return dotqmail_fail(errno, "Unable to write to %s: %s", path_.c_str(), std::strerror(errno));
    }

    std::string path_;
    lock_struct_t *lock_;
    std::string tmp_;
    int fd_ = -1;
};

} // namespace

int dotqmail_fail(int code, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    errno = code;
    vmesslog2(0, 0, format, args);
    va_end(args);
    errno = code;
    return -1;
}

int dotqmail_refuse(int code, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    errno = 0;
    vmesslog2(0, 0, format, args);
    va_end(args);
    errno = code;
    return -1;
}

int get_dotqmail_path(char *buf, size_t size, const char *mailname, const char *domain)
{
    return format_path(buf, size, mailname, domain, "/.qmail", ".qmail path");
}

int get_mailhome_path(char *buf, size_t size, const char *mailname, const char *domain)
{
    return format_path(buf, size, mailname, domain, "", "mailname home path");
}

int dotqmail_refuse_special(const char *path)
{
    const int saved = errno;
    struct stat st;
    if (lstat(path, &st) != 0 || S_ISREG(st.st_mode)) {
        errno = saved;
        return 0;
    }
    if (S_ISLNK(st.st_mode)) {
        errno = ELOOP;
        return -1;
    }
    // Reported here: the edit's own opens would say so once per step.
    return dotqmail_refuse(EINVAL, "Unable to open file %s: not a regular file", path);
}

int dotqmail_set_owner_fd(int fd, const char *path)
{
    errno = 0;
    const struct passwd *pw = getpwnam(kPopUser);
    if (pw == nullptr) {
        if (errno != 0)
            return dotqmail_fail(errno, "user %s not found", kPopUser);
        return dotqmail_refuse(ENOENT, "user %s not found", kPopUser);
    }
    if (fd_io::retry_eintr([&] { return fchown(fd, pw->pw_uid, pw->pw_gid); }) != 0)
        return dotqmail_fail(errno, "Unable to chown %s: %s", path, std::strerror(errno));
    if (fd_io::retry_eintr([&] { return fchmod(fd, 0600); }) != 0)
        return dotqmail_fail(errno, "Unable to chmod %s: %s", path, std::strerror(errno));
    return 0;
}

int dotqmail_set_owner(const char *path)
{
    // Never through a symbolic link: root would give away what it points at.
    const int fd = fd_io::open_retry(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return dotqmail_fail(errno, "Unable to open %s: %s", path, std::strerror(errno));
    struct stat st;
    int rc;
    if (fstat(fd, &st) != 0)
        rc = dotqmail_fail(errno, "Unable to open %s: %s", path, std::strerror(errno));
    else if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
        // A second name could be a hard link to a file of someone else's.
        rc = dotqmail_refuse(EINVAL, "Refusing to give away %s: not a regular file with one link", path);
    else
        rc = dotqmail_set_owner_fd(fd, path);
    fd_io::close_quietly(fd);
    return rc;
}

int dotqmail_reset(const char *path)
{
    lock_struct_t *lock = mk_held_lock(path, 1);
    if (lock == nullptr)
        return dotqmail_fail(errno, "Error occurred while locking the file %s: %s", path,
                             std::strerror(errno));
    Replacement replacement(path, lock);
    return replacement.run("| true\n");
}

int dotqmail_add_delivery(const char *path)
{
    if (dotqmail_refuse_special(path) != 0)
        return dotqmail_fail(errno, "Unable to add string to %s file.", path);
    // Whatever delivery line there was goes, so the one put first is the only one.
    const char *const lines[] = {kQuotaDelivery, kPlainDelivery, nullptr};
    if (file_strings(path, lines, FILE_STR_MOVE_TO_TOP, 0) != 0)
        return dotqmail_fail(errno, "Unable to add string to %s file.", path);
    return dotqmail_set_owner(path);
}

int dotqmail_remove_delivery(const char *path)
{
    if (dotqmail_refuse_special(path) != 0)
        return dotqmail_fail(errno, "Unable to remove string from %s file", path);
    const char *const lines[] = {kPlainDelivery, kQuotaDelivery, nullptr};
    if (file_strings(path, lines, FILE_STR_REMOVE, 0) != 0)
        return dotqmail_fail(errno, "Unable to remove string from %s file", path);
    return dotqmail_set_owner(path);
}

int add_mailname_delivery(const char *mailname, const char *domain)
{
    char path[DOTQMAIL_PATH_SIZE];
    if (get_dotqmail_path(path, sizeof path, mailname, domain) != 0)
        return -1;
    return dotqmail_add_delivery(path);
}

int remove_mailname_delivery(const char *mailname, const char *domain)
{
    char path[DOTQMAIL_PATH_SIZE];
    if (get_dotqmail_path(path, sizeof path, mailname, domain) != 0)
        return -1;
    return dotqmail_remove_delivery(path);
}
