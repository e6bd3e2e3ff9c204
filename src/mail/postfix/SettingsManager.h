// Server-wide mail settings that span several configuration places.
//
// The sender-domain black list, kept as records of the "blacklists" lookup
// table; the relay white list, the networks of the main.cf parameter
// "mynetworks"; the relay mode and SMTP authentication; the DNS black-list
// zones. Failures are those of the table and main.cf layers, and
// SystemError when the refused-clients table cannot be created.
//
// The relay setters own "smtpd_relay_restrictions" (always emptied) and the
// relay block of "smtpd_recipient_restrictions" (RestrictionFilters.h) and
// write them, the SASL switch and "mynetworks" in one main.cf change.
// Before the block names them they create what is missing, never replacing
// what exists: the refused-clients table relayRefusedTable, an empty file
// owned by root:root with mode 0644, and, when POP-before-SMTP is switched
// on, the empty indexed table tables::poplock.
#ifndef MAILTEND_MAIL_POSTFIX_SETTINGSMANAGER_H
#define MAILTEND_MAIL_POSTFIX_SETTINGSMANAGER_H

#include <boost/logic/tribool.hpp>

#include <string>
#include <vector>

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

    // Every client may relay.
    static void setOpenRelay();
    // Only mynetworks may relay; SMTP authentication no longer lets anyone.
    static void setClosedRelay();
    // Only mynetworks and, as switched here, clients on the POP-before-SMTP
    // list (popAuth: the table in mynetworks) and authenticated clients
    // (smtpAuth: permit_sasl_authenticated and "smtpd_sasl_auth_enable").
    // Indeterminate leaves that part as it is.
    static void setAuthRelay(boost::logic::tribool popAuth, boost::logic::tribool smtpAuth);

    // zones: ASCII domain names, checked by the caller; empty switches the
    // DNS black lists off.
    static void setRBLHosts(const std::vector<std::string> &zones);

    // The refused-clients table when missing; true when it was created.
    static bool ensureRefusedClientsTable();
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
