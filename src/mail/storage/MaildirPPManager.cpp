#include "mail/storage/MaildirPPManager.h"

#include "mail/storage/mailbox_size.h"
#include "mail/storage/maildirpp_quota.h"
#include "utils/UtilityErrorStream.h"
#include "utils/fd_io.h"

#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <ostream>

namespace fs = boost::filesystem;

namespace zarnet {
namespace mail {

namespace {

// The failed step's errno, never 0: a message ending in "Success" would
// hide why the quota was not written.
[[noreturn]] void fail(const char *text, const fs::path &path, int err = errno)
{
    throw fs::filesystem_error(
        text, path, boost::system::error_code(err != 0 ? err : EIO, boost::system::system_category()));
}

struct CFreeDeleter {
    void operator()(char *p) const { std::free(p); }
};

} // namespace

MaildirPPManager &MaildirPPManager::getInstance()
{
    static MaildirPPManager instance;
    instance.init();
    return instance;
}

// The base's shared instance is this one: defined here, so that the base
// does not depend on its quota face.
MaildirManager &MaildirManager::getInstance()
{
    return MaildirPPManager::getInstance();
}

void MaildirPPManager::setMailboxQuota(const std::string &domain, const std::string &mailname,
                                       long long quota) const
{
    const fs::path home = getMailnameHome(domain, mailname);
    const std::unique_ptr<char, CFreeDeleter> cwd(::getcwd(nullptr, 0));
    if (!cwd)
        fail("getcwd", home);
    if (fd_io::retry_eintr([&] { return ::chdir(home.c_str()); }) != 0)
        fail("chdir", home);

    bool ok = true;
    long long written = 0; // no limit
    if (quota >= 0) {
        struct stat st;
        if (::lstat("@attachments", &st) == 0 && S_ISDIR(st.st_mode)) {
            const long long attachments = get_dir_size("@attachments", 0);
            if (attachments < 0) {
                ok = false;
            } else if (quota < attachments) {
                uerr << "WARNING: @attachments directory is big enough to disable delivery!"
                     << std::endl;
                quota = 0;
            } else {
                quota -= attachments;
            }
        }
        // A quota used up takes delivery away; "0S" would read as no limit.
        written = quota == 0 ? 1 : quota;
    }
    ok = ok && write_maildirpp_maildirsize("Maildir", popuserUid(), popuserGid(), written, 0);
    const int failure = errno;

    const bool back = fd_io::retry_eintr([&] { return ::chdir(cwd.get()); }) == 0;
    if (!ok)
        fail("create maildirsize", home, failure);
    if (!back)
        fail("cwd chdir", home);
}

void MaildirPPManager::removeMailboxQuota(const std::string &domain,
                                          const std::string &mailname) const
{
    if (!rm_mbox_quota(domain.c_str(), mailname.c_str()))
        fail("unable to remove quota", getMailnameHome(domain, mailname));
}

void MaildirPPManager::setDomainQuota(const std::string &domain, long long quota) const
{
    if (!store_domain_quota(domain.c_str(), quota))
        fail("unable to store domain quota", getDomainRoot(domain));
}

void MaildirPPManager::removeDomainQuota(const std::string &domain) const
{
    if (!rm_domain_quota(domain.c_str()))
        fail("unable to remove domain quota", getDomainRoot(domain));
}

void MaildirPPManager::setDefaultMailboxQuota(const std::string &domain, long long quota) const
{
    if (!store_default_mbox_quota(domain.c_str(), quota))
        fail("unable to store default mbox quota", getDomainRoot(domain));
}

void MaildirPPManager::removeDefaultMailboxQuota(const std::string &domain) const
{
    if (!rm_default_mbox_quota(domain.c_str()))
        fail("unable to remove default mbox quota", getDomainRoot(domain));
}

} // namespace mail
} // namespace zarnet
