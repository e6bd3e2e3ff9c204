#include "mail/storage/mailbox_size.h"

#include "mail/storage/maildirpp_quota.h"
#include "utils/fd_io.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

long long entrySize(const struct stat &st, int block)
{
    return block ? static_cast<long long>(st.st_blocks) * 512 : static_cast<long long>(st.st_size);
}

void addSaturated(long long &total, long long amount)
{
    if (__builtin_add_overflow(total, amount, &total))
        total = LLONG_MAX;
}

// Adds everything below the directory open as fd; takes fd over. Walking
// by descriptors keeps a link swapped in by the mailbox's owner from
// leading the count elsewhere.
bool addTree(int fd, int block, long long &total)
{
    DIR *dir = ::fdopendir(fd);
    if (dir == nullptr) {
        fd_io::close_quietly(fd);
        return false;
    }
    bool ok = true;
    for (;;) {
        errno = 0;
        const struct dirent *entry = ::readdir(dir);
        if (entry == nullptr) {
            ok = errno == 0;
            break;
        }
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        struct stat st;
        if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                continue;
            ok = false;
            break;
        }
        addSaturated(total, entrySize(st, block));
        if (!S_ISDIR(st.st_mode))
            continue;
        const int sub =
            fd_io::openat_retry(::dirfd(dir), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (sub < 0) {
            if (errno == ENOENT)
                continue;
            ok = false;
            break;
        }
        if (!addTree(sub, block, total)) {
            ok = false;
            break;
        }
    }
    const int saved = errno;
    ::closedir(dir);
    errno = saved;
    return ok;
}

} // namespace

long long get_dir_size(const char *path, int block)
{
    struct stat st;
    if (::lstat(path, &st) != 0)
        return -1;
    long long total = entrySize(st, block);
    if (!S_ISDIR(st.st_mode))
        return total;
    const int fd = fd_io::open_retry(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0 || !addTree(fd, block, total))
        return -1;
    return total;
}

long long get_mbox_size(const char *mailname, const char *domain, int block)
{
    char *ascii = idn_toascii(domain);
    if (ascii == nullptr) {
        errno = 0;
        messlog2(1, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
    }
    char home[4096];
    const int n = std::snprintf(home, sizeof home, "%s/%s/%s/",
                                zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D), ascii, mailname);
    std::free(ascii);
    if (n < 0 || static_cast<size_t>(n) + sizeof "@attachments" > sizeof home) {
        errno = 0;
        messlog2(1, 0, "user mailbox path is too long");
    }

    long long total = 0;
    const std::string attachments = std::string(home) + "@attachments";
    struct stat st;
    if (::lstat(attachments.c_str(), &st) == 0) {
        total = get_dir_size(attachments.c_str(), block);
        if (total < 0)
            return -1;
    }

    const std::string maildir = std::string(home) + "Maildir";
    long long bytes = 0;
    unsigned long long count = 0;
    if (!get_maildirpp_usage(maildir.c_str(), &bytes, &count))
        messlog2(1, 0, "Unable to calculate Maildir++ size: %s", maildir.c_str());
    addSaturated(total, bytes);
    return total;
}
