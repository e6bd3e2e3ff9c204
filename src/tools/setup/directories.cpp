#include "tools/setup/accounts.h"
#include "tools/setup/setup_steps.h"

#include "utils/AutocleanOFStream.h"
#include "utils/ExSystemError.h"
#include "utils/FdOwner.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/read_configuration.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace zarnet {
namespace setup {

namespace {

const char runtimeConfig[] = "/etc/zrn/zrn.conf";

// The variables the mail layers read, with the values in force (the
// built-in defaults while the file is missing).
const zrn_conf_index mailVariables[] = {ZARNET_MAILNAMES_D, PRODUCT_ROOT_D, COURIER_IMAP_ROOT_D,
                                        HTTPD_SERVICE};
const char *const mailVariableNames[] = {"ZARNET_MAILNAMES_D", "PRODUCT_ROOT_D",
                                         "COURIER_IMAP_ROOT_D", "HTTPD_SERVICE"};

// The root becomes a main.cf value and a string in Courier's SQL: nothing
// that either would read differently.
std::string checkedMailnamesRoot()
{
    const std::string root = zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D);
    const std::string wrapped = root + "/";
    const bool plain = root.size() > 1 && root[0] == '/' &&
                       root.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                              "0123456789/._-") == std::string::npos &&
                       wrapped.find("/../") == std::string::npos &&
                       wrapped.find("/./") == std::string::npos;
    if (!plain)
        throw std::runtime_error("ZARNET_MAILNAMES_D \"" + root +
                                 "\" is not an absolute path of letters, digits and /._-");
    return root;
}

struct Directory {
    std::string path;
    uid_t owner;
    gid_t group;
    mode_t mode;
    bool keepExisting; // someone else's directory: only created
};

std::string ownerText(uid_t uid, gid_t gid)
{
    const struct passwd *pw = ::getpwuid(uid);
    const struct group *gr = ::getgrgid(gid);
    return (pw != nullptr ? std::string(pw->pw_name) : std::to_string(uid)) + ":" +
           (gr != nullptr ? std::string(gr->gr_name) : std::to_string(gid));
}

std::string modeText(mode_t mode)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
    return text;
}

void ensureDirectory(const Directory &d)
{
    bool created = false;
    if (::mkdir(d.path.c_str(), 0700) == 0) {
        created = true;
    } else if (errno == ENOENT) {
        // parents are plain system directories
        std::filesystem::create_directories(std::filesystem::path(d.path).parent_path());
        if (::mkdir(d.path.c_str(), 0700) != 0)
            throwSystemError("mkdir " + d.path);
        created = true;
    } else if (errno != EEXIST) {
        throwSystemError("mkdir " + d.path);
    }
    process::FdOwner fd(fd_io::open_retry(d.path.c_str(), O_RDONLY | O_DIRECTORY));
    if (!fd.valid())
        throwSystemError("open " + d.path);
    struct stat st;
    if (::fstat(fd.get(), &st) != 0)
        throwSystemError("stat " + d.path);
    if (!created && (d.keepExisting || (st.st_uid == d.owner && st.st_gid == d.group &&
                                        (st.st_mode & 07777) == d.mode)))
        return;
    // chown first: it would clear set-id bits set before it
    if (::fchown(fd.get(), d.owner, d.group) != 0)
        throwSystemError("chown " + d.path);
    if (::fchmod(fd.get(), d.mode) != 0)
        throwSystemError("chmod " + d.path);
    report("directory", created ? "created " + d.path
                                : d.path + " now " + ownerText(d.owner, d.group) + " " +
                                      modeText(d.mode));
}

uid_t userId(const char *name)
{
    errno = 0;
    const struct passwd *pw = ::getpwnam(name);
    if (pw == nullptr)
        throw SystemError(std::string("user ") + name + " not found", errno);
    return pw->pw_uid;
}

void ensureRuntimeConfig()
{
    struct stat st;
    if (::lstat(runtimeConfig, &st) == 0)
        return;
    if (errno != ENOENT)
        throwSystemError(std::string("stat ") + runtimeConfig);
    MKLock lock(runtimeConfig);
    AutocleanOFStream out(std::string(runtimeConfig) + ".tmp");
    if (!out.is_open())
        throwSystemError("open " + out.path());
    out << "# Installation paths of the panel and the services around it; a variable\n"
           "# left out takes its built-in default. NAME, blanks, value.\n";
    for (std::size_t i = 0; i < sizeof mailVariables / sizeof mailVariables[0]; ++i)
        out << mailVariableNames[i] << ' ' << zrnConfGetDefaultByIndex(mailVariables[i]) << '\n';
    out.commit(runtimeConfig, 0, 0, 0644);
    report("file", std::string("created ") + runtimeConfig);
}

// The Courier-IMAP settings live under "<COURIER_IMAP_ROOT_D>/etc/courier-imap";
// this system's packages keep them in /etc/courier.
void ensureCourierLink()
{
    struct stat st;
    if (::lstat("/etc/courier-imap", &st) == 0)
        return;
    if (errno != ENOENT)
        throwSystemError("lstat /etc/courier-imap");
    if (::stat("/etc/courier", &st) != 0 || !S_ISDIR(st.st_mode))
        return;
    if (::symlink("courier", "/etc/courier-imap") != 0)
        throwSystemError("symlink /etc/courier-imap");
    report("link", "created /etc/courier-imap -> courier");
}

} // namespace

MailIds setUpAccountsAndDirectories()
{
    MailIds ids;
    ids.mailnamesRoot = checkedMailnamesRoot();
    ensurePopuserAccount(ids.mailnamesRoot);
    errno = 0;
    const struct passwd *pw = ::getpwnam("popuser");
    if (pw == nullptr)
        throw SystemError("user popuser not found", errno);
    ids.popuserUid = pw->pw_uid;
    ids.popuserGid = pw->pw_gid;

    const std::string productRoot = zrnConfGetDefaultByIndex(PRODUCT_ROOT_D);
    // The table directory as the authentication database's set-up leaves it.
    const Directory directories[] = {
        {"/etc/zrn", 0, 0, 0755, true},
        {ids.mailnamesRoot, 0, ids.popuserGid, 0750, false},
        {"/var/spool/postfix/zarnet", userId("postfix"), 0, 0770, false},
        {productRoot + "/handlers", 0, 0, 0755, false},
        {mk_lock_dir(), 0, 0, 0755, false},
        {"/usr/lib/zarnet-9.0", 0, 0, 0755, false},
    };
    for (const Directory &d : directories)
        ensureDirectory(d);
    ensureRuntimeConfig();
    ensureCourierLink();
    return ids;
}

} // namespace setup
} // namespace zarnet
