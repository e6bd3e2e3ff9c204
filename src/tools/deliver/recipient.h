// The hosted mailbox a message is for, checked before it names a path.
//
// The address is split at its last "@". The local part is the mailname in
// lower case and must pass the mailname checks of the mail store; the domain
// must be a host name in ASCII and is lower-cased. The home is
// "<ZARNET_MAILNAMES_D>/<domain>/<mailname>". A bad address throws a
// permanent Failure (5.1.3): the mail server resolved it to this transport,
// so no later attempt can do better.
#ifndef MAILTEND_TOOLS_DELIVER_RECIPIENT_H
#define MAILTEND_TOOLS_DELIVER_RECIPIENT_H

#include <string>

namespace deliver {

struct Recipient {
    std::string mailname;
    std::string domain;
    std::string address; // mailname@domain
    std::string home;
};

Recipient parseRecipient(const std::string &address);

// The part after the last "@" in lower case; empty when there is none.
std::string addressDomain(const std::string &address);

std::string lowerAscii(std::string text);

} // namespace deliver

#endif
