#include "mail/storage/MaildirManager.h"

#include "utils/ExSystemError.h"
#include "utils/FdOwner.h"
#include "utils/UtilityErrorStream.h"
#include "utils/dir_walk.h"
#include "utils/fd_io.h"
#include "utils/file_tree.h"
#include "utils/read_configuration.h"

// Boost.Filesystem, not the standard one: the command layer prints a
// failure's class and text, and those are Boost's.
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <ostream>
#include <vector>

namespace fs = boost::filesystem;

namespace zarnet {
namespace mail {

namespace {

using zarnet::process::FdOwner;

class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : old_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(old_); }
    UmaskGuard(const UmaskGuard &) = delete;
    UmaskGuard &operator=(const UmaskGuard &) = delete;

private:
    mode_t old_;
};

[[noreturn]] void throwFs(const char *what, const fs::path &path, int code)
{
    errno = code;
    throw fs::filesystem_error(what, path,
                               boost::system::error_code(code, boost::system::system_category()));
}

// A name that is empty, "." or ".." or holds a slash would make the path
// land on the mail-names root or outside the domain, and a removal there
// would take every mailbox with it.
void checkComponent(const std::string &name, const fs::path &path)
{
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
        throwFs("invalid name", path, EINVAL);
}

// Gives the directory opened as fd (a failed open counts as a failed chown)
// to uid:gid with mode 0700.
void ownOpened(const FdOwner &fd, const fs::path &path, uid_t uid, gid_t gid)
{
    if (!fd.valid())
        throwFs("chown", path, errno);
    if (fd_io::retry_eintr([&] { return ::fchown(fd.get(), uid, gid); }) != 0)
        throwFs("chown", path, errno);
    if (fd_io::retry_eintr([&] { return ::fchmod(fd.get(), 0700); }) != 0)
        throwFs("chmod", path, errno);
}

// Everything below a home is writable by popuser, who could put a symbolic
// link where a folder should be and have root create folders in, or give
// away, what it points at. So each folder is made and opened relative to its
// already opened parent, without following a link, and changed through that
// descriptor.
FdOwner makeBelow(int parentFd, const char *name, const fs::path &path, uid_t uid, gid_t gid,
                  bool &created)
{
    created = fd_io::retry_eintr([&] { return ::mkdirat(parentFd, name, 0700); }) == 0;
    if (!created) {
        const int code = errno;
        struct stat st;
        // Read-only, so following a link here is harmless; the open below
        // refuses one.
        if (code != EEXIST || ::fstatat(parentFd, name, &st, 0) != 0 || !S_ISDIR(st.st_mode))
            throwFs("boost::filesystem::create_directory", path, code);
    }
    FdOwner fd(fd_io::openat_retry(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    ownOpened(fd, path, uid, gid);
    return fd;
}

struct HomeDirectory {
    int parent; // index into this table, -1 for the home itself
    const char *name;
};

const HomeDirectory homeDirectories[] = {
    {-1, "Maildir"}, {0, "tmp"},   {0, "new"},   {0, "cur"},        {0, ".Spam"},
    {4, "tmp"},      {4, "new"},   {4, "cur"},   {-1, "@attachments"},
};

// The tree walk never follows a link out of the tree; its failure is worded
// as the filesystem library words a failed recursive removal.
void removeTree(const fs::path &path)
{
    if (rm_tree_quiet(path.c_str()) != 0)
        throwFs("boost::filesystem::remove_all", path, errno);
}

void backupOrThrow(const fs::path &path)
{
    fs::path saved;
    if (!backupRename(path, saved)) {
        const int code = errno;
        throw fs::filesystem_error("rename", path, saved,
                                   boost::system::error_code(code, boost::system::system_category()));
    }
}

// The mail-names root, opened; every step on a name in it is taken relative
// to this descriptor without following a link in that name.
FdOwner openMailnamesRoot()
{
    const fs::path top = MaildirManager::getMailnamesRoot();
    FdOwner fd(fd_io::open_retry(top.c_str(), O_RDONLY | O_DIRECTORY));
    if (!fd.valid())
        throwFs("open", top, errno);
    return fd;
}

bool isLink(int top, const std::string &name)
{
    struct stat st;
    return ::fstatat(top, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

// Unlinks name if it is a symbolic link; unlinkat refuses a directory put
// there meanwhile. Whether a link was there.
bool dropLink(int top, const std::string &name, const fs::path &path)
{
    if (!isLink(top, name))
        return false;
    if (::unlinkat(top, name.c_str(), 0) != 0 && errno != ENOENT)
        throwFs("unlink", path, errno);
    return true;
}

// The names of the alias links in the root whose target is exactly target
// (a name beginning with "." is no domain's: a link being placed).
// Where the link name in dir points; "" when it is no link.
std::string linkTarget(int dir, const char *name)
{
    char text[512];
    const ssize_t n = ::readlinkat(dir, name, text, sizeof text);
    return n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
}

std::vector<std::string> linksTo(int top, const std::string &target)
{
    std::vector<std::string> names;
    const int fd = fd_io::openat_retry(top, ".", O_RDONLY | O_DIRECTORY);
    const dir_walk::Result r = dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        if (e.name[0] != '.' && linkTarget(e.dir, e.name) == target)
            names.emplace_back(e.name);
        return true;
    });
    if (!dir_walk::all_visited(r))
        throwFs("boost::filesystem::directory_iterator::construct",
                MaildirManager::getMailnamesRoot(), errno);
    return names;
}

// Points name at target: a link made under a name no domain can have and
// renamed into place, so it replaces an old link at once and never a
// directory (rename refuses that).
void placeLink(int top, const std::string &target, const std::string &name, const fs::path &path)
{
    struct stat st;
    if (::fstatat(top, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISLNK(st.st_mode))
        throwFs("domain alias link", path, EEXIST);
    const std::string temp = "." + name + ".link";
    ::unlinkat(top, temp.c_str(), 0); // left by a run that died
    if (::symlinkat(target.c_str(), top, temp.c_str()) != 0)
        throwFs("symlink", path, errno);
    if (::renameat(top, temp.c_str(), top, name.c_str()) != 0) {
        const int code = errno;
        ::unlinkat(top, temp.c_str(), 0);
        throwFs("domain alias link", path, code == EISDIR || code == ENOTEMPTY ? EEXIST : code);
    }
}

// The home of a valid domain and mailname.
fs::path checkedHome(const std::string &domain, const std::string &mailname)
{
    const fs::path home = MaildirManager::getMailnameHome(domain, mailname);
    checkComponent(domain, home);
    checkComponent(mailname, home);
    return home;
}

} // namespace

void MaildirManager::init()
{
    errno = 0;
    const struct passwd *pw = ::getpwnam("popuser");
    if (pw == nullptr)
        throw SystemError("user popuser not found", errno);
    uid_ = pw->pw_uid;
    gid_ = pw->pw_gid;
}

fs::path MaildirManager::getMailnamesRoot()
{
    return fs::path(zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D));
}

fs::path MaildirManager::getDomainRelativeRoot(const std::string &domain)
{
    return fs::path(domain);
}

fs::path MaildirManager::getMailnameRelativeHome(const std::string &domain,
                                                 const std::string &mailname)
{
    return fs::path(domain) / mailname;
}

fs::path MaildirManager::getDomainRoot(const std::string &domain)
{
    return getMailnamesRoot() / getDomainRelativeRoot(domain);
}

fs::path MaildirManager::getMailnameHome(const std::string &domain, const std::string &mailname)
{
    return getMailnamesRoot() / getMailnameRelativeHome(domain, mailname);
}

void MaildirManager::createDomainRoot(const std::string &domain) const
{
    const fs::path root = getDomainRoot(domain);
    checkComponent(domain, root);
    UmaskGuard mask(077);
    fs::create_directories(getMailnamesRoot());
    const FdOwner top = openMailnamesRoot();
    dropLink(top.get(), domain, root);
    if (::mkdirat(top.get(), domain.c_str(), 0750) != 0 && errno != EEXIST)
        throwFs("boost::filesystem::create_directories", root, errno);
    const FdOwner fd(dir_walk::open_dir(top.get(), domain.c_str()));
    if (!fd.valid())
        throwFs("boost::filesystem::create_directories", root, errno);
    if (fd_io::retry_eintr([&] { return ::fchown(fd.get(), 0, gid_); }) != 0)
        throwFs("chown", root, errno);
    if (fd_io::retry_eintr([&] { return ::fchmod(fd.get(), 0750); }) != 0)
        throwFs("chmod", root, errno);
}

void MaildirManager::createMailnameHome(const std::string &domain,
                                        const std::string &mailname) const
{
    const fs::path home = checkedHome(domain, mailname);
    UmaskGuard mask(077);

    // A failure takes away only what this call made: a home that was there
    // keeps everything it had.
    struct stat before;
    const bool homeExisted = ::lstat(home.c_str(), &before) == 0 || errno != ENOENT;
    constexpr size_t count = sizeof homeDirectories / sizeof homeDirectories[0];
    fs::path relative[count];
    bool created[count] = {};

    std::exception_ptr failure;
    int failureErrno = 0;
    try {
        fs::create_directories(home);
        // The home's own name sits in the root-owned domain directory, out
        // of popuser's reach, so it may be opened by its path.
        FdOwner homeFd(fd_io::open_retry(home.c_str(), O_RDONLY | O_DIRECTORY));
        ownOpened(homeFd, home, uid_, gid_);

        FdOwner opened[count];
        for (size_t i = 0; i < count; ++i) {
            const HomeDirectory &d = homeDirectories[i];
            relative[i] = d.parent < 0 ? fs::path(d.name) : relative[d.parent] / d.name;
            const int parentFd = d.parent < 0 ? homeFd.get() : opened[d.parent].get();
            opened[i] = makeBelow(parentFd, d.name, home / relative[i], uid_, gid_, created[i]);
        }
    } catch (const fs::filesystem_error &e) {
        failureErrno = e.code().value() != 0 ? e.code().value() : errno;
        failure = std::current_exception();
    } catch (...) {
        failureErrno = errno;
        failure = std::current_exception();
    }
    if (!failure)
        return;
    if (!homeExisted)
        rm_tree_quiet(home.c_str());
    for (size_t i = count; i-- > 0;)
        if (homeExisted && created[i])
            rm_tree_quiet((home / relative[i]).c_str());
    errno = failureErrno;
    std::rethrow_exception(failure);
}

void MaildirManager::renameDomainRoot(const std::string &oldDomain,
                                      const std::string &newDomain) const
{
    const fs::path from = getDomainRoot(oldDomain);
    const fs::path to = getDomainRoot(newDomain);
    checkComponent(oldDomain, from);
    checkComponent(newDomain, to);
    const FdOwner top = openMailnamesRoot();
    const std::vector<std::string> aliases = linksTo(top.get(), oldDomain);
    fs::rename(from, to);
    std::size_t moved = 0;
    const auto putBack = [&](int code) {
        if (::renameat(top.get(), newDomain.c_str(), top.get(), oldDomain.c_str()) != 0)
            zarnet::uerr << "CRITICAL ERROR: the mail storage of " << oldDomain
                         << " could not be moved back from " << to.string() << ": "
                         << std::strerror(errno) << std::endl;
        while (moved-- > 0) {
            try {
                placeLink(top.get(), oldDomain, aliases[moved], getDomainRoot(aliases[moved]));
            } catch (const std::exception &) {
            }
        }
        errno = code;
    };
    try {
        for (; moved < aliases.size(); ++moved)
            placeLink(top.get(), newDomain, aliases[moved], getDomainRoot(aliases[moved]));
    } catch (const fs::filesystem_error &e) {
        putBack(e.code().value()); // errno is the cleanup's by now
        throw;
    } catch (...) {
        putBack(errno);
        throw;
    }
}

void MaildirManager::renameMailnameHome(const std::string &domain, const std::string &oldMailname,
                                        const std::string &newMailname) const
{
    const fs::path from = getMailnameHome(domain, oldMailname);
    const fs::path to = getMailnameHome(domain, newMailname);
    checkComponent(domain, from);
    checkComponent(oldMailname, from);
    checkComponent(newMailname, to);
    fs::rename(from, to);
}

void MaildirManager::backupDomainRoot(const std::string &domain) const
{
    const fs::path root = getDomainRoot(domain);
    checkComponent(domain, root);
    if (!dropLink(openMailnamesRoot().get(), domain, root))
        backupOrThrow(root);
}

void MaildirManager::backupMailnameHome(const std::string &domain,
                                        const std::string &mailname) const
{
    backupOrThrow(checkedHome(domain, mailname));
}

void MaildirManager::removeDomainRoot(const std::string &domain) const
{
    const fs::path root = getDomainRoot(domain);
    checkComponent(domain, root);
    if (dropLink(openMailnamesRoot().get(), domain, root))
        return;
    // The rename aside only keeps readers of the old tree from seeing it
    // half removed; when it cannot be done the removal asked for still is.
    fs::path doomed;
    try {
        if (!backupRename(root, doomed))
            doomed = root;
    } catch (const fs::filesystem_error &) {
        doomed = root;
    }
    if (!doomed.empty())
        removeTree(doomed);
}

void MaildirManager::removeMailnameHome(const std::string &domain,
                                        const std::string &mailname) const
{
    removeTree(checkedHome(domain, mailname));
}

bool MaildirManager::createDomainAliasLink(const std::string &domain,
                                           const std::string &alias) const
{
    const fs::path link = getDomainRoot(alias);
    checkComponent(domain, link);
    checkComponent(alias, link);
    const FdOwner top = openMailnamesRoot();
    const bool fresh = !isLink(top.get(), alias);
    // Another domain's alias: its logins must not move with a mistaken call.
    if (!fresh && linkTarget(top.get(), alias.c_str()) != domain)
        throwFs("domain alias link", link, EEXIST);
    placeLink(top.get(), domain, alias, link);
    return fresh;
}

void MaildirManager::removeDomainAliasLink(const std::string &alias) const
{
    const fs::path link = getDomainRoot(alias);
    checkComponent(alias, link);
    dropLink(openMailnamesRoot().get(), alias, link);
}

void MaildirManager::removeDomainAliasLinks(const std::string &domain) const
{
    checkComponent(domain, getDomainRoot(domain));
    const FdOwner top = openMailnamesRoot();
    for (const std::string &alias : linksTo(top.get(), domain))
        dropLink(top.get(), alias, getDomainRoot(alias));
}

bool backupRename(const fs::path &path, fs::path &out)
{
    struct stat st;
    if (fd_io::retry_eintr([&] { return ::lstat(path.c_str(), &st); }) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            return false;
        out = fs::path();
        return true;
    }
    out = fs::path(path.string() + ".ZarnetSaved." + std::to_string(st.st_ino));
    fs::rename(path, out);
    return true;
}

} // namespace mail
} // namespace zarnet
