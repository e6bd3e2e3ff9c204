// Mailbox and domain quotas as the class-based layers see them: the shared
// storage instance with operations that write Maildir++ "maildirsize" files.
//
// Quotas are byte counts; a negative one means no limit. Every operation
// throws boost::filesystem::filesystem_error with its own text, the mailbox
// home or domain root as path and the errno of the failed step (EIO when
// it left none) when the work underneath fails (the procedural layer may
// have reported more).
#ifndef MAILTEND_MAIL_STORAGE_MAILDIRPPMANAGER_H
#define MAILTEND_MAIL_STORAGE_MAILDIRPPMANAGER_H

#include "mail/storage/MaildirManager.h"

#include <string>

namespace zarnet {
namespace mail {

class MaildirPPManager : public MaildirManager {
public:
    // The one shared instance, after looking "popuser" up again.
    static MaildirPPManager &getInstance();

    // The space taken by an "@attachments" directory is subtracted from a
    // quota first; a quota it uses up (with a warning on zarnet::uerr when
    // it is smaller) is written as one byte, so delivery stops. A negative
    // quota is no limit.
    void setMailboxQuota(const std::string &domain, const std::string &mailname,
                         long long quota) const;
    // Falls back to the domain's default mailbox quota from the panel.
    void removeMailboxQuota(const std::string &domain, const std::string &mailname) const;

    // Applies quota to every mailbox of the domain without a quota of its own.
    void setDomainQuota(const std::string &domain, long long quota) const;
    void removeDomainQuota(const std::string &domain) const;
    void setDefaultMailboxQuota(const std::string &domain, long long quota) const;
    void removeDefaultMailboxQuota(const std::string &domain) const;

private:
    MaildirPPManager() = default;
    ~MaildirPPManager() = default;
};

} // namespace mail
} // namespace zarnet

#endif
