// Mailname-level changes: the lookup-table records a mailname owns and its
// storage and delivery file.
//
// Arguments are already validated and in ASCII form (domain D, mailname M).
// Failures are thrown: zarnet::SystemError from the delivery file ("unable to
// modify <path>"), "user popuser not found" from the storage layer. Nothing
// is restored on failure; what was written stays written.
#ifndef MAILTEND_MAIL_POSTFIX_MAILNAMEMANAGER_H
#define MAILTEND_MAIL_POSTFIX_MAILNAMEMANAGER_H

#include <string>

namespace zarnet {
namespace mail {
namespace postfix {

class MailnameManager {
public:
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
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
