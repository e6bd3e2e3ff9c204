#include "mail/postfix/SettingsManager.h"

#include "mail/postfix/BatchDatabaseHelper.h"
#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/lookup_tables.h"
#include "utils/IPAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {

// The table is consulted as a sender access map: a key that is a domain
// matches every sender address in it, and the action REJECT refuses the
// mail with the server's standard permanent error, so senders learn the
// mail was refused instead of it vanishing.
void SettingsManager::addBlackDomain(const std::string &domain)
{
    BatchDatabaseHelper batch(true, true);
    batch.addChange(tables::blacklists, domain, blackDomainAction);
}

void SettingsManager::removeBlackDomain(const std::string &domain)
{
    BatchDatabaseHelper batch(true, true);
    batch.removeChanges(tables::blacklists, KeyList(1, domain));
}

namespace {

const char whiteListParameter[] = "mynetworks";

} // namespace

// The entry is one element of a list that the mail server splits at blanks
// and commas, so only a plain address may go in: anything else could add
// networks nobody asked for.
std::string SettingsManager::whiteListEntry(const std::string &address, unsigned prefix)
{
    unsigned char buf[sizeof(in6_addr)];
    const bool v6 = address.find(':') != std::string::npos;
    if (inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(), buf) != 1)
        throw std::invalid_argument("invalid IP address '" + address + "'");
    if (prefix > (v6 ? 128u : 32u))
        throw std::invalid_argument("netmask " + std::to_string(prefix) +
                                    " is too long for the address '" + address + "'");
    return (v6 ? "[" + address + "]" : address) + "/" + std::to_string(prefix);
}

void SettingsManager::addWhiteNetwork(const std::string &address, unsigned prefix)
{
    MainCfManager::getInstance().appendStringValue(whiteListParameter,
                                                   whiteListEntry(address, prefix));
}

void SettingsManager::removeWhiteNetwork(const std::string &address, unsigned prefix)
{
    if (isLoopbackIP(address.c_str()))
        return;
    MainCfManager::getInstance().removeListElement(whiteListParameter,
                                                   whiteListEntry(address, prefix));
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
