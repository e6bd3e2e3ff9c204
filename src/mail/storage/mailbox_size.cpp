#include "mail/storage/mailbox_size.h"

#include "mail/storage/maildirpp_quota.h"
#include "utils/file_tree.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

long long get_dir_size(const char *path, int block)
{
    return tree_size(path, block);
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
    if (__builtin_add_overflow(total, bytes, &total))
        total = LLONG_MAX;
    return total;
}
