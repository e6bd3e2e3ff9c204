#include "mail/postfix/SettingsManager.h"

#include "mail/postfix/BatchDatabaseHelper.h"
#include "mail/postfix/DatabaseHelper.h"
#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/RestrictionFilters.h"
#include "mail/postfix/lookup_tables.h"
#include "utils/ExSystemError.h"
#include "utils/FdOwner.h"
#include "utils/IPAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

namespace {

typedef SmtpdRecipientRestrictionsFilter RecipientFilter;

// O_EXCL: an existing table (or anything in its place) is the operator's
// and stays; a link planted there is not followed.
bool createRefusedClientsTable()
{
    const std::string failed = std::string("unable to create ") + relayRefusedTable;
    process::FdOwner fd(::open(relayRefusedTable, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW |
                                                      O_CLOEXEC, 0644));
    if (!fd.valid()) {
        if (errno == EEXIST)
            return false;
        throwSystemError(failed, errno);
    }
    if (::fchown(fd.get(), 0, 0) != 0 || ::fchmod(fd.get(), 0644) != 0 ||
        ::fsync(fd.get()) != 0) {
        const int saved = errno;
        ::unlink(relayRefusedTable);
        throwSystemError(failed, saved);
    }
    fd.close(failed.c_str());
    return true;
}

const char recipientParameter[] = "smtpd_recipient_restrictions";

// One write for all relay parameters: a relay list emptied without the
// recipient list's check would leave the server refusing to start.
void setRelay(RecipientFilter::Relay relay, boost::logic::tribool smtpAuth,
              boost::logic::tribool popAuth)
{
    createRefusedClientsTable();
    const MainCfManager &mainCf = MainCfManager::getInstance();
    mainCf.editValues({recipientParameter, whiteListParameter}, [&](ParameterValues &v) {
        v[recipientParameter] =
            MainCfManager::filteredList(v[recipientParameter], RecipientFilter(relay, smtpAuth));
        // An empty relay list leaves the decision to the recipient list
        // alone; the distribution's default would defer relayed mail.
        v["smtpd_relay_restrictions"] = "";
        if (!boost::logic::indeterminate(smtpAuth))
            v["smtpd_sasl_auth_enable"] = smtpAuth ? "yes" : "no";

        std::string &networks = v[whiteListParameter];
        std::vector<std::string> elements = MainCfManager::splitSimpleList(networks);
        const auto listed = std::find(elements.begin(), elements.end(), tables::poplock);
        if (popAuth && listed == elements.end()) {
            networks = elements.empty() ? std::string(tables::poplock)
                                        : networks + ", " + tables::poplock;
        } else if (!popAuth && listed != elements.end()) {
            elements.erase(std::remove(elements.begin(), elements.end(), tables::poplock),
                           elements.end());
            networks = MainCfManager::joinList(elements);
        } else {
            v.erase(whiteListParameter);
        }
    });
}

} // namespace

void SettingsManager::setOpenRelay()
{
    setRelay(RecipientFilter::openRelay, boost::logic::indeterminate, boost::logic::indeterminate);
}

void SettingsManager::setClosedRelay()
{
    setRelay(RecipientFilter::closedRelay, false, boost::logic::indeterminate);
}

void SettingsManager::setAuthRelay(boost::logic::tribool popAuth, boost::logic::tribool smtpAuth)
{
    // The table exists before main.cf names it.
    if (popAuth)
        DatabaseHelper::createTable(tables::poplock);
    setRelay(RecipientFilter::closedRelay, smtpAuth, popAuth);
}

void SettingsManager::setRBLHosts(const std::vector<std::string> &zones)
{
    MainCfManager::getInstance().filterStringValues("smtpd_client_restrictions", SetRBLFilter(zones));
}

bool SettingsManager::ensureRefusedClientsTable()
{
    return createRefusedClientsTable();
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
