#include "mail/postfix/SettingsManager.h"

#include "mail/postfix/BatchDatabaseHelper.h"
#include "mail/postfix/lookup_tables.h"

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

} // namespace postfix
} // namespace mail
} // namespace zarnet
