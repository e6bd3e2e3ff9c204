#include "mail/attachments.h"

#include "utils/copy_file.h"
#include "utils/fd_io.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

// For messages that carry the system's error text themselves: messlog2
// would add it a second time.
__attribute__((format(printf, 1, 2)))
void report(const char *format, ...)
{
    const int saved = errno;
    errno = 0;
    va_list args;
    va_start(args, format);
    vmesslog2(0, 0, format, args);
    va_end(args);
    errno = saved;
}

// The domain's ASCII form in lower case; false after the report (which
// ends the process when fatal).
bool asciiDomain(const char *domain, std::string &out, bool fatal)
{
    char *ascii = idn_toascii(domain);
    if (ascii == nullptr) {
        errno = 0;
        messlog2(fatal ? 1 : 0, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
        return false;
    }
    out = ascii;
    std::free(ascii);
    for (char &c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return true;
}

std::string domainRoot(const std::string &ascii)
{
    return std::string(zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D)) + "/" + ascii;
}

std::string attachmentDir(const std::string &ascii, const char *mailname)
{
    return domainRoot(ascii) + "/" + mailname + "/@attachments";
}

// The attachment directory as a real directory, not a link the mailbox's
// owner put in its place.
bool realDirectory(const std::string &dir)
{
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

long long sizeOf(const struct stat &st, int in_blocks)
{
    return in_blocks ? static_cast<long long>(st.st_blocks) * 512
                     : static_cast<long long>(st.st_size);
}

// Entries of the directory open as fd (taken over) with their status,
// directories left out unless wanted; false after a report.
bool readEntries(int fd, const std::string &dir, bool want_dirs, bool skip_unstatable,
                 std::vector<std::pair<std::string, struct stat>> &entries)
{
    DIR *d = ::fdopendir(fd);
    if (d == nullptr) {
        report("Unable to open dir %s: %s\n", dir.c_str(), std::strerror(errno));
        fd_io::close_quietly(fd);
        return false;
    }
    bool ok = true;
    for (;;) {
        errno = 0;
        const struct dirent *e = ::readdir(d);
        if (e == nullptr) {
            if (errno != 0) {
                report("Unable to open dir %s: %s\n", dir.c_str(), std::strerror(errno));
                ok = false;
            }
            break;
        }
        struct stat st;
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (skip_unstatable)
                continue;
            report("stat %s failed: %s", (dir + "/" + e->d_name).c_str(), std::strerror(errno));
            ok = false;
            break;
        }
        if (S_ISDIR(st.st_mode) != want_dirs || std::strcmp(e->d_name, ".") == 0 ||
            std::strcmp(e->d_name, "..") == 0)
            continue;
        entries.emplace_back(e->d_name, st);
    }
    if (::closedir(d) != 0 && ok) {
        report("Unable to close dir: %s\n", std::strerror(errno));
        ok = false;
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    return ok;
}

int openDirectory(const std::string &dir)
{
    const int fd = fd_io::open_retry(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0)
        report("Unable to open dir %s: %s\n", dir.c_str(), std::strerror(errno));
    return fd;
}

} // namespace

int list_attachments(const char *mailname, const char *domain, int in_blocks, int fullname)
{
    std::string ascii;
    asciiDomain(domain, ascii, true);
    if (mailname == nullptr || *mailname == '\0') {
        errno = 0;
        messlog2(1, 0, "MailName empty for domain '%s'", domain);
    }
    const std::string dir = attachmentDir(ascii, mailname);
    const int fd = openDirectory(dir);
    std::vector<std::pair<std::string, struct stat>> files;
    if (fd < 0 || !readEntries(fd, dir, false, false, files))
        return -1;
    for (const auto &f : files)
        std::printf("%s\t%lld\n", fullname ? (dir + "/" + f.first).c_str() : f.first.c_str(),
                    sizeOf(f.second, in_blocks));
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : -1;
}

int list_all_attachments(const char *domain, int in_blocks, int fullname)
{
    std::string ascii;
    asciiDomain(domain, ascii, true);
    const std::string dir = domainRoot(ascii);
    const int fd = openDirectory(dir);
    std::vector<std::pair<std::string, struct stat>> homes;
    if (fd < 0 || !readEntries(fd, dir, true, true, homes))
        return -1;
    for (const auto &home : homes)
        list_attachments(home.first.c_str(), domain, in_blocks, fullname);
    return 0;
}

int add_attachment(const char *mailname, const char *domain, const char *source,
                   const char *name)
{
    std::string ascii;
    if (!asciiDomain(domain, ascii, false))
        return -1;
    const std::string dir = attachmentDir(ascii, mailname);
    const std::string target = dir + "/" + name;
    struct stat st;
    if (!realDirectory(dir) ||
        (::lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
         ::unlink(target.c_str()) != 0) ||
        copy_file(source, target.c_str()) != 0) {
        messlog2(0, 0, "Unable to copy the attachment file %s to %s\n", source, target.c_str());
        return -1;
    }
    if (::chmod(target.c_str(), 0644) != 0) {
        messlog2(0, 0, "Unable to set mode 0644 on the attachment file %s\n", target.c_str());
        return -1;
    }
    return 0;
}

int remove_attachment(const char *mailname, const char *domain, const char *name)
{
    std::string ascii;
    if (!asciiDomain(domain, ascii, false))
        return -1;
    const std::string dir = attachmentDir(ascii, mailname);
    const std::string target = dir + "/" + name;
    if (!realDirectory(dir) || ::unlink(target.c_str()) != 0) {
        report("Unable to delete the attachment file %s: %s\n", target.c_str(),
               std::strerror(errno));
        return -1;
    }
    return 0;
}
