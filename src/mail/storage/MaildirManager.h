// The on-disk mail store: one directory per mail domain under the mail-names
// root (ZARNET_MAILNAMES_D, read again for every path formed), one home per
// mailname under it with a Maildir and its fixed folders.
//
// Domain roots are root:popuser 0750, homes and their folders
// popuser:popuser 0700. Creation runs under umask 077, restored on every way
// out. Failures throw boost::filesystem::filesystem_error: chown, chmod and
// the backup rename carry the words "chown", "chmod" or "rename", the path
// and errno; directory creation, renames and recursive removal carry the
// library's own wording. Nothing is printed.
// A missing "popuser" account throws zarnet::SystemError.
//
// There is one shared instance, which is also the quota face
// (MaildirPPManager, which owns it); getInstance looks "popuser" up again on
// every call.
#ifndef MAILTEND_MAIL_STORAGE_MAILDIRMANAGER_H
#define MAILTEND_MAIL_STORAGE_MAILDIRMANAGER_H

#include <boost/filesystem/path.hpp>

#include <sys/types.h>

#include <string>

namespace zarnet {
namespace mail {

class MaildirManager {
public:
    // The shared instance; defined with its owner, MaildirPPManager.
    static MaildirManager &getInstance();

    // Looks "popuser" up and keeps its uid and primary gid.
    void init();

    uid_t popuserUid() const { return uid_; }
    gid_t popuserGid() const { return gid_; }

    // Domain and mailname are used exactly as given.
    static boost::filesystem::path getMailnamesRoot();
    static boost::filesystem::path getDomainRelativeRoot(const std::string &domain);
    static boost::filesystem::path getMailnameRelativeHome(const std::string &domain,
                                                         const std::string &mailname);
    static boost::filesystem::path getDomainRoot(const std::string &domain);
    static boost::filesystem::path getMailnameHome(const std::string &domain,
                                                 const std::string &mailname);

    // An existing tree is accepted; owners and modes are set again. A domain
    // alias link of the name goes: the domain takes the name over.
    void createDomainRoot(const std::string &domain) const;
    // A failure removes what this call created (the whole home when there
    // was none) and throws on with errno as it was at the failure.
    void createMailnameHome(const std::string &domain, const std::string &mailname) const;

    // The domain's alias links follow it; a failure puts everything back.
    void renameDomainRoot(const std::string &oldDomain, const std::string &newDomain) const;
    void renameMailnameHome(const std::string &domain, const std::string &oldMailname,
                            const std::string &newMailname) const;

    // Moves the tree aside under its backup name; a missing tree is no error.
    void backupDomainRoot(const std::string &domain) const;
    void backupMailnameHome(const std::string &domain, const std::string &mailname) const;

    // The domain root is first moved to its backup name, so it disappears
    // at once; one whose status cannot be taken, or that cannot be renamed,
    // is removed where it is. Here and in backupDomainRoot a symbolic link
    // of the domain's name is no domain root: the link itself is removed and
    // what it points at is never touched.
    void removeDomainRoot(const std::string &domain) const;
    void removeMailnameHome(const std::string &domain, const std::string &mailname) const;

    // Domain alias links: "<root>/ALIAS" -> "DOMAIN", relative, so that a
    // login through the alias, whose home the authentication database forms
    // from the alias's name, reaches the domain's homes. Only a symbolic
    // link is ever replaced or removed under an alias name: anything else
    // there is refused with EEXIST ("domain alias link") and left as it is.
    // createDomainAliasLink returns whether the link is new.
    bool createDomainAliasLink(const std::string &domain, const std::string &alias) const;
    // Nothing there, or no link, is no error.
    void removeDomainAliasLink(const std::string &alias) const;
    // Every alias link that points at the domain.
    void removeDomainAliasLinks(const std::string &domain) const;

protected:
    MaildirManager() = default;
    MaildirManager(const MaildirManager &) = delete;
    MaildirManager &operator=(const MaildirManager &) = delete;
    ~MaildirManager() = default;

private:
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

// Renames path (a link itself, never what it points at) to path +
// ".ZarnetSaved." + its inode number and stores that name in out. A missing path (or a non-directory on the way) renames
// nothing, sets out empty and succeeds. false, with errno, when the status
// of path cannot be taken otherwise (out untouched); a failed rename throws.
bool backupRename(const boost::filesystem::path &path, boost::filesystem::path &out);

} // namespace mail
} // namespace zarnet

#endif
