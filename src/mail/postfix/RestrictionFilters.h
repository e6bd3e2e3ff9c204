// The restriction lists of main.cf this system owns, rewritten as pure
// functions over their compound pieces (MainCfManager::filterStringValues).
//
// SmtpdRecipientRestrictionsFilter rebuilds the relay pieces of
// "smtpd_recipient_restrictions" as one contiguous block, in this order:
// permit_mynetworks, permit_sasl_authenticated (SMTP authentication on),
// the operator's refused-clients table (relayRefusedTable), then the relay
// decision. The block goes where the first piece it owns was, or first when
// there was none; every piece it does not own keeps its place and text.
//
// SetRBLFilter puts one "reject_rbl_client ZONE" piece per zone into
// "smtpd_client_restrictions" where the first such piece was (at the end
// when there was none), in the given order without repeats, and drops all
// the others. Pieces are compared with their blank runs taken as one blank.
//
// Neither throws except std::bad_alloc; zones are checked by the caller.
#ifndef MAILTEND_MAIL_POSTFIX_RESTRICTIONFILTERS_H
#define MAILTEND_MAIL_POSTFIX_RESTRICTIONFILTERS_H

#include <boost/logic/tribool.hpp>

#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

// Clients refused before the relay decision, by address or name patterns.
constexpr const char relayRefusedTable[] = "/var/spool/postfix/zarnet/no_relay.re";

class SmtpdRecipientRestrictionsFilter {
public:
    enum Relay { closedRelay, openRelay };

    // smtpAuth indeterminate: permit_sasl_authenticated stays iff present.
    SmtpdRecipientRestrictionsFilter(Relay relay, boost::logic::tribool smtpAuth)
        : relay_(relay), smtpAuth_(smtpAuth) {}
    void operator()(std::vector<std::string> &pieces) const;

private:
    Relay relay_;
    boost::logic::tribool smtpAuth_;
};

class SetRBLFilter {
public:
    explicit SetRBLFilter(const std::vector<std::string> &zones) : zones_(zones) {}
    void operator()(std::vector<std::string> &pieces) const;

private:
    std::vector<std::string> zones_;
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
