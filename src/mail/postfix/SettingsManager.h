// Server-wide mail settings that span several configuration places.
//
// So far: the sender-domain black list, kept as records of the "blacklists"
// lookup table. Failures are those of the table layer.
#ifndef MAILTEND_MAIL_POSTFIX_SETTINGSMANAGER_H
#define MAILTEND_MAIL_POSTFIX_SETTINGSMANAGER_H

#include <string>

namespace zarnet {
namespace mail {
namespace postfix {

class SettingsManager {
public:
    // The value of a black-list record.
    static constexpr const char *blackDomainAction = "REJECT";

    // domain: ASCII form. Adding a listed domain or removing an unlisted
    // one succeeds and changes nothing; both need the table to exist.
    static void addBlackDomain(const std::string &domain);
    static void removeBlackDomain(const std::string &domain);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
