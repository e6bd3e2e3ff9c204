#include "mail/dns/domain_keys.h"

#include "utils/copy_file.h"
#include "utils/fd_io.h"
#include "utils/file_tree.h"
#include "utils/product_log.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

const char kKeyRoot[] = "/etc/domainkeys";
const char kKeyName[] = "default";
const char kSeparators[] = " \t,";
const size_t kPathSize = 4096;

// A report that is about the input, not a failed system call: no errno text.
__attribute__((format(printf, 1, 2))) int refuse(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    errno = 0;
    vmesslog2(0, 0, format, args);
    va_end(args);
    return -1;
}

bool lower_case(const char *domain, std::string *out)
{
    try {
        *out = domain;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        messlog2(0, 0, "cannot convert %s to lower case", domain);
        return false;
    }
    for (char &c : *out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return true;
}

// The domain's key directory. The name becomes one path level below the key
// root, which a name like "../x" must not escape: removal is recursive.
bool key_directory(const char *domain, std::string *dir)
{
    std::string lower;
    if (!lower_case(domain, &lower))
        return false;
    if (lower.empty() || lower == "." || lower == ".." || lower.find('/') != std::string::npos) {
        refuse("Invalid domain name '%s'", domain);
        return false;
    }
    if (sizeof kKeyRoot + lower.size() >= kPathSize) {
        refuse("Domain name '%s' is too long to be stored in %s", lower.c_str(), kKeyRoot);
        return false;
    }
    *dir = std::string(kKeyRoot) + "/" + lower;
    return true;
}

// mkdir -p; the levels created here get 0755 whatever the umask.
bool make_directories(const std::string &dir)
{
    bool ok = true;
    for (size_t end = 0; ok && end != std::string::npos;) {
        end = dir.find('/', end + 1);
        const std::string level = dir.substr(0, end);
        if (mkdir(level.c_str(), 0755) == 0)
            ok = chmod(level.c_str(), 0755) == 0;
        else
            ok = errno == EEXIST;
    }
    struct stat st;
    if (ok && stat(dir.c_str(), &st) != 0)
        ok = false;
    else if (ok && !S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        ok = false;
    }
    if (!ok)
        messlog2(0, 0, "Unable to create directory %s: %s", dir.c_str(), std::strerror(errno));
    return ok;
}

bool split_reported(const char *list, std::vector<std::string> *names)
{
    try {
        *names = split_domain_list(list != nullptr ? list : "");
        return true;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        messlog2(0, 0, "cannot split domains list '%s'\n", list);
        return false;
    }
}

} // namespace

std::vector<std::string> split_domain_list(const std::string &list)
{
    std::vector<std::string> names;
    for (size_t start = list.find_first_not_of(kSeparators); start != std::string::npos;) {
        const size_t end = list.find_first_of(kSeparators, start);
        names.push_back(list.substr(start, end - start));
        start = list.find_first_not_of(kSeparators, end);
    }
    return names;
}

char *get_domainkeys_file(const char *domain)
{
    if (domain == nullptr)
        return nullptr;
    std::string lower;
    if (!lower_case(domain, &lower))
        return nullptr;
    const std::string path = std::string(kKeyRoot) + "/" + lower + "/" + kKeyName;
    if (path.size() >= kPathSize) {
        refuse("File name '%s' is too long to be stored in %s/%s", kKeyName, kKeyRoot,
               lower.c_str());
        return nullptr;
    }
    char *copy = strdup(path.c_str());
    if (copy == nullptr)
        messlog2(0, 0, "cannot convert %s to lower case", domain);
    return copy;
}

int domainkeys_enabled(const char *domain)
{
    const int saved = errno;
    char *path = get_domainkeys_file(domain);
    if (path == nullptr)
        return 0;
    struct stat st;
    const bool regular = stat(path, &st) == 0 && S_ISREG(st.st_mode);
    std::free(path);
    errno = saved;
    return regular ? 1 : 0;
}

namespace {

// Installs the key read from in for every domain of the list.
int install_key(const char *domains, int in, const char *src)
{
    std::vector<std::string> names;
    if (!split_reported(domains, &names))
        return -1;
    if (names.empty())
        return 0;

    errno = 0;
    const struct group *gr = getgrnam("popuser");
    if (gr == nullptr) {
        messlog2(0, 0, "Unable to find group popuser");
        return -1;
    }
    const gid_t group = gr->gr_gid;

    int result = 0;
    for (const std::string &name : names) {
        std::string dir;
        if (!key_directory(name.c_str(), &dir)) {
            result = -1;
            continue;
        }
        char *key = get_domainkeys_file(name.c_str());
        if (key == nullptr || !make_directories(dir)) {
            std::free(key);
            result = -1;
            continue;
        }
        copy_fd_atomic(in, src, key, 0, group, 0440);
        std::free(key);
    }
    return result;
}

// The source is read through one descriptor, never through a link: a path
// the panel passes could otherwise copy any file of root's into a key the
// popuser group reads.
int set_key(const char *domains, const char *src, bool consume)
{
    const int in = src != nullptr ? fd_io::open_regular(src, O_RDONLY) : -1;
    if (in < 0) {
        if (src == nullptr)
            errno = ENOENT;
        messlog2(1, 0, "No source file '%s': %s", src != nullptr ? src : "",
                 fd_io::open_error_text(errno));
    }
    int result = install_key(domains, in, src);
    struct stat opened, named;
    // Only the file that was read goes: a name that leads elsewhere by now
    // (a key just installed under it, a file swapped in) stays.
    if (result == 0 && consume && fstat(in, &opened) == 0 && lstat(src, &named) == 0 &&
        opened.st_dev == named.st_dev && opened.st_ino == named.st_ino)
        unlink(src);
    fd_io::close_quietly(in);
    return result;
}

} // namespace

int set_domain_key(const char *domains, const char *src)
{
    return set_key(domains, src, false);
}

int set_domain_key_consume(const char *domains, const char *src)
{
    return set_key(domains, src, true);
}

int clone_domain_key(const char *source, const char *domains)
{
    char *key = get_domainkeys_file(source);
    if (key == nullptr) {
        errno = 0;
        messlog2(1, 0, "Cannot get domainkeys key file for %s", source != nullptr ? source : "");
    }
    const int saved = errno;
    struct stat st;
    int result = 0;
    if (stat(key, &st) == 0 && S_ISREG(st.st_mode))
        result = set_domain_key(domains, key);
    else
        errno = saved;
    std::free(key);
    return result;
}

int remove_domain_key(const char *domains)
{
    std::vector<std::string> names;
    if (!split_reported(domains, &names))
        return -1;
    int result = 0;
    for (const std::string &name : names) {
        std::string dir;
        if (!key_directory(name.c_str(), &dir) || rm_tree(dir.c_str()) != 0)
            result = -1;
    }
    return result;
}
