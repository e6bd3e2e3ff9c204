#include "mail/storage/attachments.h"

#include "utils/dir_walk.h"
#include "utils/fd_io.h"
#include "utils/idn.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

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
#include <random>
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

// The attachment directory, opened without following a link the mailbox's
// owner may have put in its place; -1 with errno.
int openAttachmentDir(const std::string &ascii, const char *mailname)
{
    const int home =
        fd_io::open_retry((domainRoot(ascii) + "/" + mailname).c_str(), O_RDONLY | O_DIRECTORY);
    if (home < 0)
        return -1;
    const int fd = dir_walk::open_dir(home, "@attachments");
    fd_io::close_quietly(home);
    return fd;
}

// A new file of ours in dir; -1 with errno.
int createTemporary(int dir, std::string &tmp)
{
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        char buf[32];
        std::snprintf(buf, sizeof buf, ".attachment.%08x", static_cast<unsigned>(random()));
        tmp = buf;
        const int fd = fd_io::openat_retry(dir, tmp.c_str(),
                                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

// Copies source into a new file in dir and renames it over name: whatever
// the owner left under that name (a link, a hard link to another file) is
// replaced, never written through. false with errno after the copy's report.
bool copyIn(int dir, const char *source, const char *name, const std::string &target,
            bool &mode_failed)
{
    // The upload is named by the panel: a link there could make a secret
    // of root's an attachment anyone reads.
    const int in = fd_io::open_regular(source, O_RDONLY);
    if (in < 0) {
        report("Unable to open file %s: %s", source, fd_io::open_error_text(errno));
        return false;
    }
    std::string tmp;
    const int out = createTemporary(dir, tmp);
    if (out < 0) {
        const int saved = errno;
        report("Unable to open file %s: %s", target.c_str(), std::strerror(saved));
        fd_io::close_quietly(in);
        errno = saved;
        return false;
    }
    char buf[4096];
    bool ok = true;
    for (;;) {
        errno = 0;
        const ssize_t got = fd_io::read_retry(in, buf, sizeof buf);
        if (got == 0)
            break;
        if (got < 0 || fd_io::write_all(out, buf, static_cast<size_t>(got)) != got) {
            if (got >= 0 && errno == 0)
                errno = EIO;
            ok = false;
            break;
        }
    }
    if (ok && ::fchmod(out, 0644) != 0) {
        mode_failed = true;
        ok = false;
    }
    int saved = errno;
    fd_io::close_quietly(in);
    if (fd_io::close_fd(out) != 0 && ok) {
        ok = false;
        saved = errno;
    }
    if (ok && ::renameat(dir, tmp.c_str(), dir, name) != 0) {
        ok = false;
        saved = errno;
    }
    if (!ok)
        ::unlinkat(dir, tmp.c_str(), 0);
    errno = saved;
    return ok;
}

long long sizeOf(const struct stat &st, int in_blocks)
{
    return in_blocks ? static_cast<long long>(st.st_blocks) * 512
                     : static_cast<long long>(st.st_size);
}

// Entries of the directory dir with their status, directories left out
// unless wanted, sorted by name; false after a report.
bool readEntries(const std::string &dir, bool want_dirs, bool skip_unstatable,
                 std::vector<std::pair<std::string, struct stat>> &entries)
{
    const int fd = dir_walk::open_dir(AT_FDCWD, dir.c_str());
    if (fd < 0) {
        report("Unable to open dir %s: %s\n", dir.c_str(), std::strerror(errno));
        return false;
    }
    const dir_walk::Result read = dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        struct stat st;
        if (!e.stat(st)) {
            if (skip_unstatable)
                return true;
            report("stat %s failed: %s", (dir + "/" + e.name).c_str(), std::strerror(errno));
            return false;
        }
        if (S_ISDIR(st.st_mode) == want_dirs)
            entries.emplace_back(e.name, st);
        return true;
    });
    if (read == dir_walk::Result::Unreadable)
        report("Unable to open dir %s: %s\n", dir.c_str(), std::strerror(errno));
    else if (read == dir_walk::Result::CloseFailed)
        report("Unable to close dir: %s\n", std::strerror(errno));
    std::sort(entries.begin(), entries.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    return read == dir_walk::Result::Done;
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
    std::vector<std::pair<std::string, struct stat>> files;
    if (!readEntries(dir, false, false, files))
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
    std::vector<std::pair<std::string, struct stat>> homes;
    if (!readEntries(dir, true, true, homes))
        return -1;
    // One unreadable home does not hide the others, but is not a success.
    int result = 0;
    for (const auto &home : homes)
        if (list_attachments(home.first.c_str(), domain, in_blocks, fullname) != 0)
            result = -1;
    return result;
}

int add_attachment(const char *mailname, const char *domain, const char *source,
                   const char *name)
{
    std::string ascii;
    if (!asciiDomain(domain, ascii, false))
        return -1;
    const std::string target = attachmentDir(ascii, mailname) + "/" + name;
    bool mode_failed = false;
    const int dir = openAttachmentDir(ascii, mailname);
    const bool ok = dir >= 0 && copyIn(dir, source, name, target, mode_failed);
    fd_io::close_quietly(dir);
    if (!ok) {
        if (mode_failed)
            messlog2(0, 0, "Unable to set mode 0644 on the attachment file %s\n", target.c_str());
        else
            messlog2(0, 0, "Unable to copy the attachment file %s to %s\n", source, target.c_str());
        return -1;
    }
    return 0;
}

int remove_attachment(const char *mailname, const char *domain, const char *name)
{
    std::string ascii;
    if (!asciiDomain(domain, ascii, false))
        return -1;
    const std::string target = attachmentDir(ascii, mailname) + "/" + name;
    const int dir = openAttachmentDir(ascii, mailname);
    if (dir < 0 || ::unlinkat(dir, name, 0) != 0) {
        report("Unable to delete the attachment file %s: %s\n", target.c_str(),
               std::strerror(errno));
        fd_io::close_quietly(dir);
        return -1;
    }
    fd_io::close_quietly(dir);
    return 0;
}
