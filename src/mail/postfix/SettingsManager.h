// Server-wide mail settings that span several configuration places.
//
// The sender-domain black list, kept as records of the "blacklists" lookup
// table, and the relay white list, the networks of the main.cf parameter
// "mynetworks". Failures are those of the table and main.cf layers.
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

    // The white-list entry of a network: the address, in square brackets
    // when it is an IPv6 one, "/" and the prefix length. Throws
    // std::invalid_argument for text that is not an IPv4 or IPv6 address
    // and for a prefix longer than the address.
    static std::string whiteListEntry(const std::string &address, unsigned prefix);
    // Adding a listed network writes the list back unchanged. A loopback
    // network is never removed: local programs submit mail through it.
    static void addWhiteNetwork(const std::string &address, unsigned prefix);
    static void removeWhiteNetwork(const std::string &address, unsigned prefix);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
