#include "mail/postfix/MailnameManager.h"

#include "mail/panel/panel_queries.h"
#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/DatabaseHelper.h"
#include "mail/postfix/lookup_tables.h"
#include "mail/storage/DotQMailManager.h"
#include "mail/storage/MaildirManager.h"
#include "mail/storage/MaildirPPManager.h"
#include "utils/UtilityErrorStream.h"
#include "utils/dbconnect.h"

#include <exception>
#include <functional>
#include <map>
#include <ostream>
#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

const char doubleErrorHead[] = "CRITICAL ERROR: Unable to properly restore ";
const char doubleErrorTail[] =
    " used by Zarnet.\nMail system may be not usable at the moment and it cannot be repaired "
    "automatically.\nConstact Orvanta support to resolve this issue.";

std::string address(const std::string &local, const std::string &domain)
{
    return local + "@" + domain;
}

// Replaces every element found in the map by its mapped value. A rename
// refuses an element that already is one of the new values: its undo, the
// reverse map, would take that element's records along.
class ReplaceElements {
public:
    ReplaceElements(const std::map<std::string, std::string> &replacements, bool refuseTaken)
        : replacements_(replacements), refuseTaken_(refuseTaken)
    {
    }
    bool operator()(std::string &element) const
    {
        const auto found = replacements_.find(element);
        if (found != replacements_.end()) {
            element = found->second;
            return true;
        }
        if (refuseTaken_)
            for (const auto &replacement : replacements_)
                if (replacement.second == element)
                    throw std::runtime_error(element + " is already in use");
        return true;
    }

private:
    const std::map<std::string, std::string> &replacements_;
    bool refuseTaken_;
};

// One completed step of a rename: its undo runs only when the scope is left
// by an exception, and its own failure is reported, never thrown over the
// first one.
class Undo {
public:
    Undo(const char *tableTitle, std::function<void()> undo)
        : tableTitle_(tableTitle), undo_(std::move(undo)), pending_(std::uncaught_exceptions())
    {
    }
    Undo(const Undo &) = delete;
    Undo &operator=(const Undo &) = delete;
    ~Undo()
    {
        if (std::uncaught_exceptions() <= pending_)
            return;
        try {
            undo_();
        } catch (...) {
            uerr << doubleErrorHead << tableTitle_ << doubleErrorTail << std::endl;
        }
    }

private:
    const char *tableTitle_;
    std::function<void()> undo_;
    int pending_;
};

void filterAddresses(const char *table, const std::map<std::string, std::string> &replacements,
                     bool refuseTaken)
{
    DatabaseHelper::filterRecords(table, database::ElementsFilter<ReplaceElements>(
                                             ReplaceElements(replacements, refuseTaken)));
}

void filterMailbox(const std::map<std::string, std::string> &addresses,
                   const std::map<std::string, std::string> &paths, bool refuseTaken)
{
    DatabaseHelper::filterRecords(
        tables::vmailbox, database::KeyValueFilter<ReplaceElements, ReplaceElements>(
                              ReplaceElements(addresses, refuseTaken),
                              ReplaceElements(paths, refuseTaken)));
}

// Keys of the local part in the domain and in each domain alias.
KeyList addressKeys(const std::string &local, const std::string &domain,
                    const std::vector<std::string> &aliases)
{
    KeyList keys(1, address(local, domain));
    for (const std::string &alias : aliases)
        keys.push_back(address(local, alias));
    return keys;
}

RecordList addressRecords(const std::string &local, const std::string &domain,
                          const std::string &target, const std::vector<std::string> &aliases)
{
    RecordList records;
    for (const std::string &key : addressKeys(local, domain, aliases))
        records.emplace_back(key, target);
    return records;
}

} // namespace

std::vector<std::string> MailnameManager::domainAliases(const std::string &domain)
{
    char **list = nullptr;
    if (get_domaliases_by_domain(nullptr, &list, domain.c_str()) != 0)
        throw std::runtime_error("unable to get domain aliases for domain " + domain);
    std::vector<std::string> aliases;
    for (char **p = list; p != nullptr && *p != nullptr; ++p)
        aliases.emplace_back(*p);
    free_array(list);
    return aliases;
}

std::string MailnameManager::mailboxPath(const std::string &domain, const std::string &mailname)
{
    return (MaildirManager::getMailnameRelativeHome(domain, mailname) / "Maildir").string() + "/";
}

std::string MailnameManager::deliveryFilePath(const std::string &domain,
                                              const std::string &mailname)
{
    // The instance looks popuser up: without that account no file is edited.
    return (MaildirManager::getInstance().getMailnameHome(domain, mailname) / ".qmail").string();
}

void MailnameManager::createMailname(const std::string &domain, const std::string &mailname,
                                     long long quota)
{
    MaildirPPManager &storage = MaildirPPManager::getInstance();
    storage.createMailnameHome(domain, mailname);
    DotQMailManager(deliveryFilePath(domain, mailname)).reset();
    storage.setMailboxQuota(domain, mailname, quota);
    BatchDatabaseHelper batch(true, true);
    createMailnameRecord(batch, domain, mailname);
}

void MailnameManager::createMailname(const std::string &domain, const std::string &mailname)
{
    MaildirPPManager &storage = MaildirPPManager::getInstance();
    storage.createMailnameHome(domain, mailname);
    DotQMailManager(deliveryFilePath(domain, mailname)).reset();
    storage.removeMailboxQuota(domain, mailname);
    BatchDatabaseHelper batch(true, true);
    createMailnameRecord(batch, domain, mailname);
}

void MailnameManager::createMailnameRecord(BatchDatabaseHelper &batch, const std::string &domain,
                                           const std::string &mailname)
{
    const std::vector<std::string> aliases = domainAliases(domain);
    const std::string target = address(mailname, domain);
    batch.addChange(tables::vmailbox, target, mailboxPath(domain, mailname));
    const RecordList records = addressRecords(mailname, domain, target, aliases);
    batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
}

void MailnameManager::createMailAlias(BatchDatabaseHelper &batch, const std::string &domain,
                                      const std::string &mailname, const std::string &alias)
{
    const RecordList records =
        addressRecords(alias, domain, address(mailname, domain), domainAliases(domain));
    batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
}

void MailnameManager::createMailAlias(const std::string &domain, const std::string &mailname,
                                      const std::string &alias)
{
    BatchDatabaseHelper batch(true, true);
    createMailAlias(batch, domain, mailname, alias);
}

void MailnameManager::removeMailAlias(const std::string &domain, const std::string &,
                                      const std::string &alias)
{
    const KeyList keys = addressKeys(alias, domain, domainAliases(domain));
    DatabaseHelper::removeRecords(tables::virtual_addresses, keys.begin(), keys.end());
}

void MailnameManager::removeMailname(const std::string &domain, const std::string &mailname,
                                     OnRemoval onRemoval,
                                     const std::vector<std::string> &mailAliases)
{
    const std::vector<std::string> aliases = domainAliases(domain);
    DatabaseHelper::removeRecord(tables::vmailbox, address(mailname, domain));
    KeyList keys = addressKeys(mailname, domain, aliases);
    for (const std::string &alias : mailAliases) {
        const KeyList more = addressKeys(alias, domain, aliases);
        keys.insert(keys.end(), more.begin(), more.end());
    }
    DatabaseHelper::removeRecords(tables::virtual_addresses, keys.begin(), keys.end());

    const MaildirManager &storage = MaildirManager::getInstance();
    if (onRemoval == RemoveHome)
        storage.removeMailnameHome(domain, mailname);
    else if (onRemoval == BackupHome)
        storage.backupMailnameHome(domain, mailname);
}

void MailnameManager::renameMailname(const std::string &domain, const std::string &oldMailname,
                                     const std::string &newMailname)
{
    const std::string oldAddress = address(oldMailname, domain);
    const std::string newAddress = address(newMailname, domain);
    const std::string oldPath = mailboxPath(domain, oldMailname);
    const std::string newPath = mailboxPath(domain, newMailname);

    // The domain aliases' keys move in the same rewrite as the domain's, so
    // one undo covers them and no alias is left pointing at the old name.
    std::map<std::string, std::string> forward = {{oldAddress, newAddress}};
    std::map<std::string, std::string> back = {{newAddress, oldAddress}};
    for (const std::string &alias : domainAliases(domain)) {
        forward[address(oldMailname, alias)] = address(newMailname, alias);
        back[address(newMailname, alias)] = address(oldMailname, alias);
    }

    filterMailbox({{oldAddress, newAddress}}, {{oldPath, newPath}}, true);
    const Undo vmailboxUndo("Postfix Virtual Mailboxes Database", [&] {
        filterMailbox({{newAddress, oldAddress}}, {{newPath, oldPath}}, false);
    });
    filterAddresses(tables::virtual_addresses, forward, true);
    const Undo virtualUndo("Postfix Virtual Aliases Database",
                           [&] { filterAddresses(tables::virtual_addresses, back, false); });

    MaildirManager::getInstance().renameMailnameHome(domain, oldMailname, newMailname);
}

void MailnameManager::renameMailnameOnDomainAlias(const std::string &domainAlias,
                                                  const std::string &oldMailname,
                                                  const std::string &newMailname)
{
    const std::map<std::string, std::string> replacements = {
        {address(oldMailname, domainAlias), address(newMailname, domainAlias)}};
    filterAddresses(tables::virtual_addresses, replacements, true);
}

void MailnameManager::enableDelivery(const std::string &domain, const std::string &mailname)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).enableDelivery();
}

void MailnameManager::disableDelivery(const std::string &domain, const std::string &mailname)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).disableDelivery();
}

void MailnameManager::addForward(const std::string &domain, const std::string &mailname,
                                 const std::string &email)
{
    DotQMailManager(deliveryFilePath(domain, mailname))
        .addRedirect(email, DotQMailManager::MoveToTop);
}

void MailnameManager::removeForward(const std::string &domain, const std::string &mailname,
                                    const std::string &email)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).removeRedirect(email);
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
