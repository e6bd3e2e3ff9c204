// Mailname-level changes: the lookup-table records a mailname owns and its
// storage and delivery file.
//
// Records of mailname M in domain D, A ranging over D's domain aliases (the
// panel's list, read once per operation):
//   vmailbox  M@D -> mailboxPath(D, M)
//   virtual   M@D -> M@D, and M@A -> M@D
// and of a mail alias L of M:
//   virtual   L@D -> M@D, and L@A -> M@D
//
// Arguments are already validated and in ASCII form. Failures are thrown:
// the table layer's errors, zarnet::SystemError from the delivery file
// ("unable to modify <path>"), "user popuser not found" and filesystem errors
// from the storage layer, std::runtime_error when the panel's list of domain
// aliases cannot be read (before any change). Only renameMailname restores
// what it already changed; the others leave it written.
#ifndef MAILTEND_MAIL_POSTFIX_MAILNAMEMANAGER_H
#define MAILTEND_MAIL_POSTFIX_MAILNAMEMANAGER_H

#include "mail/postfix/BatchDatabaseHelper.h"

#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

class MailnameManager {
public:
    // What removeMailname does with the home.
    enum OnRemoval { KeepHome = 0, RemoveHome = 1, BackupHome = 2 };

    // Home created (owners and modes set again when it exists), delivery
    // file reset to "| true", quota written (or, without one, the domain's
    // limit from the panel), then the records.
    static void createMailname(const std::string &domain, const std::string &mailname,
                               long long quota);
    static void createMailname(const std::string &domain, const std::string &mailname);

    // The "vmailbox" record, then one addition of the "virtual" records.
    static void createMailnameRecord(BatchDatabaseHelper &batch, const std::string &domain,
                                     const std::string &mailname);

    static void createMailAlias(BatchDatabaseHelper &batch, const std::string &domain,
                                const std::string &mailname, const std::string &alias);
    static void createMailAlias(const std::string &domain, const std::string &mailname,
                                const std::string &alias);
    // Records already gone are no failure.
    static void removeMailAlias(const std::string &domain, const std::string &mailname,
                                const std::string &alias);

    // The mailname's records and those of the mail aliases given (so none is
    // left pointing at a mailbox that is gone), then the home as asked.
    static void removeMailname(const std::string &domain, const std::string &mailname,
                               OnRemoval onRemoval,
                               const std::vector<std::string> &mailAliases = {});

    // Rewrites "vmailbox" (key and mailbox path) and "virtual" (every key and
    // destination naming the old address in the domain or in any of its
    // domain aliases), then renames the home. A new address already in a
    // table is refused (std::runtime_error) before that table changes. A
    // failure undoes the table
    // rewrites already made, newest first, and propagates; an undo that
    // fails itself is reported on the error stream as a CRITICAL ERROR
    // naming the table, and the first failure still propagates.
    static void renameMailname(const std::string &domain, const std::string &oldMailname,
                               const std::string &newMailname);
    // The old address in one domain alias, in keys and destinations.
    static void renameMailnameOnDomainAlias(const std::string &domainAlias,
                                            const std::string &oldMailname,
                                            const std::string &newMailname);

    // Maildir delivery through the quota-enforcing delivery program on and
    // off; no lookup table changes.
    static void enableDelivery(const std::string &domain, const std::string &mailname);
    static void disableDelivery(const std::string &domain, const std::string &mailname);

    // A forward to `email` (ASCII form) put first in, or taken out of, the
    // delivery file; no lookup table changes.
    static void addForward(const std::string &domain, const std::string &mailname,
                           const std::string &email);
    static void removeForward(const std::string &domain, const std::string &mailname,
                              const std::string &email);

    // The mailname's delivery file: ".qmail" in its home.
    static std::string deliveryFilePath(const std::string &domain, const std::string &mailname);

    // The "vmailbox" value: the home relative to the mail-names root, then
    // "Maildir/". The rename matches records by this same text.
    static std::string mailboxPath(const std::string &domain, const std::string &mailname);

    // The panel's domain aliases of the domain (ASCII names).
    static std::vector<std::string> domainAliases(const std::string &domain);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
