#include "mail/postfix/DomainManager.h"

#include "mail/panel/panel_queries.h"
#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/lookup_tables.h"
#include "mail/storage/MaildirPPManager.h"
#include "utils/UtilityErrorStream.h"
#include "utils/dbconnect.h"
#include "utils/sh_quoting.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <ostream>
#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

using namespace database;

const char local_host[] = "@localhost.localdomain";

// The panel connection for a run of queries; each query's array is
// released before the next.
class PanelLists {
public:
    PanelLists() : conn_(db_shared())
    {
        if (conn_ == nullptr)
            throw std::runtime_error("unable to connect to the panel database");
    }
    PanelLists(const PanelLists &) = delete;
    PanelLists &operator=(const PanelLists &) = delete;

    template <class Query>
    std::vector<std::string> list(Query query, const std::string &what)
    {
        char **items = nullptr;
        if (query(conn_, &items) != 0)
            throw std::runtime_error("unable to get " + what + " from the panel database");
        std::vector<std::string> names;
        for (char **item = items; item != nullptr && *item != nullptr; ++item)
            names.emplace_back(*item);
        free_array(items);
        return names;
    }

private:
    MYSQL *conn_;
};

// The virtual_domains record of a domain: its name as key, name and "/" as
// value; both follow a rename so no value names a domain that is gone.
class ReplaceDomainEntry {
public:
    ReplaceDomainEntry(const std::string &from, const std::string &to)
        : from_(from), to_(to), fromDir_(from + "/"), toDir_(to + "/")
    {
    }
    bool operator()(std::string &element) const
    {
        if (element == from_)
            element = to_;
        else if (element == fromDir_)
            element = toDir_;
        return true;
    }

private:
    std::string from_, to_, fromDir_, toDir_;
};

// Moves O to N in all three tables; the storage-path prefix ends in "/" so
// that a domain whose name merely begins with O keeps its paths.
void moveDomainDomains(const std::string &from, const std::string &to)
{
    DatabaseHelper::filterRecords(tables::virtual_domains,
                                  ElementsFilter<ReplaceDomainEntry>(ReplaceDomainEntry(from, to)));
}

std::string bounceName(const std::string &domain) { return DomainManager::bouncePrefix + domain; }

// Addresses in the domain, and the domain's bounce address, which names the
// domain without being in it.
class ReplaceDomainAddress {
public:
    ReplaceDomainAddress(const std::string &from, const std::string &to)
        : part_(from, to, false), bounce_(bounceName(from) + local_host, bounceName(to) + local_host)
    {
    }
    bool operator()(std::string &element) const
    {
        return part_(element) && ReplaceElementFilterRef(bounce_.first, bounce_.second)(element);
    }

private:
    ReplaceDomainPart part_; // holds references: from and to outlive the filter
    std::pair<std::string, std::string> bounce_;
};

void moveDomainAddresses(const std::string &from, const std::string &to)
{
    DatabaseHelper::filterRecords(tables::virtual_addresses,
                                  ElementsFilter<ReplaceDomainAddress>(ReplaceDomainAddress(from, to)));
}

struct KeepValue {
    bool operator()(std::string &) const { return true; }
};

// The bounce command's record follows its domain's new name.
void moveBounceRecord(const std::string &from, const std::string &to)
{
    const std::string fromKey = bounceName(from), toKey = bounceName(to);
    DatabaseHelper::filterRecords(tables::aliases, KeyValueFilter<ReplaceElementFilterRef, KeepValue>(
                                                       ReplaceElementFilterRef(fromKey, toKey), KeepValue()));
}

void moveDomainMailboxes(const std::string &from, const std::string &to)
{
    const std::string fromRoot = MaildirManager::getDomainRelativeRoot(from).string() + "/";
    const std::string toRoot = MaildirManager::getDomainRelativeRoot(to).string() + "/";
    DatabaseHelper::filterRecords(
        tables::vmailbox, KeyValueFilter<ReplaceDomainPart, ReplaceDomainPath>(
                              ReplaceDomainPart(from, to, false), ReplaceDomainPath(fromRoot, toRoot)));
}

// Takes back a link this run made; the failure that calls for it is the
// one reported.
void dropLinkQuietly(const std::string &alias)
{
    try {
        MaildirManager::getInstance().removeDomainAliasLink(alias);
    } catch (const std::exception &) {
    }
}

// The aliases record of a bounce; removing an absent one is no error.
void removeBounceRecord(const std::string &domain)
{
    DatabaseHelper::removeRecord(tables::aliases, bounceName(domain));
}

} // namespace

const char *const DomainManager::stdAddresses[6] = {"postmaster", "mailer-daemon", "root",
                                                    "anonymous",  "drweb",         "kluser"};

namespace {

RecordList standardRecords(const std::string &domain)
{
    RecordList records;
    for (const char *name : DomainManager::stdAddresses)
        records.emplace_back(std::string(name) + "@" + domain, name + std::string(local_host));
    return records;
}

KeyList standardKeys(const std::string &domain)
{
    KeyList keys;
    for (const char *name : DomainManager::stdAddresses)
        keys.push_back(std::string(name) + "@" + domain);
    return keys;
}

std::vector<std::string> panelAliases(const std::string &domain)
{
    PanelLists panel;
    return panel.list(
        [&](MYSQL *conn, char ***out) { return get_domaliases_by_domain(conn, out, domain.c_str()); },
        "the domain aliases of " + domain);
}

// Whether an alias's records are in the tables: it always has its standard
// addresses there.
bool aliasInTables(const std::string &alias)
{
    return DatabaseHelper::hasRecord(tables::virtual_addresses,
                                     std::string(DomainManager::stdAddresses[0]) + "@" + alias);
}

void enableWith(BatchDatabaseHelper &batch, const std::string &domain, const RecordList &more)
{
    batch.addChange(tables::virtual_domains, domain, domain + "/");
    RecordList records = standardRecords(domain);
    records.insert(records.end(), more.begin(), more.end());
    batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
}

// A directory, not an alias's link, of the domain's name in the mail store.
bool isDomainRoot(const std::string &domain)
{
    struct stat st;
    return ::lstat(MaildirManager::getDomainRoot(domain).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// An alias of the same name always leaves its standard addresses in
// "virtual"; without them there is nothing of it to purge, and the rewrite of
// the whole table (seconds on a large server) is skipped. A name that already
// has its own domain root is a domain added again, never an alias (an alias
// has a link there or nothing): its records, those of its mailnames
// included, stay.
void removeAliasLeftovers(const std::string &domain, bool hadRoot)
{
    if (hadRoot)
        return;
    if (aliasInTables(domain))
        DomainManager::removeDomainAlias(domain);
    else
        removeBounceRecord(domain);
}

} // namespace

// The leftovers go before the root replaces the alias's link: a run that
// fails after that must still find them on its retry.
void DomainManager::createDomain(const std::string &domain, long long quota, bool disabled)
{
    MaildirPPManager &storage = MaildirPPManager::getInstance();
    removeAliasLeftovers(domain, isDomainRoot(domain));
    storage.createDomainRoot(domain);
    storage.setDomainQuota(domain, quota);
    createDomainRecord(domain, disabled);
}

void DomainManager::createDomain(const std::string &domain, bool disabled)
{
    removeAliasLeftovers(domain, isDomainRoot(domain));
    MaildirManager::getInstance().createDomainRoot(domain);
    createDomainRecord(domain, disabled);
}

void DomainManager::createDomainRecord(BatchDatabaseHelper &batch, const std::string &domain,
                                       bool disabled)
{
    createStandardDomainAddresses(batch, domain);
    if (!disabled)
        enableDomain(batch, domain);
}

void DomainManager::createDomainRecord(const std::string &domain, bool disabled)
{
    BatchDatabaseHelper batch(true, true);
    createDomainRecord(batch, domain, disabled);
}

void DomainManager::enableDomain(BatchDatabaseHelper &batch, const std::string &domain)
{
    enableWith(batch, domain, RecordList());
}

void DomainManager::enableDomain(const std::string &domain)
{
    // The panel may list an alias the tables never had; it gets no record.
    RecordList aliases;
    for (const std::string &alias : panelAliases(domain))
        if (aliasInTables(alias))
            aliases.emplace_back(alias, domain);
    BatchDatabaseHelper batch(true, true);
    enableWith(batch, domain, aliases);
}

void DomainManager::disableDomain(const std::string &domain)
{
    KeyList keys = standardKeys(domain);
    for (const std::string &alias : panelAliases(domain))
        keys.push_back(alias);
    // The domain stops being hosted last: a failed step before leaves it
    // whole, as the caller's rollback of the logins assumes.
    {
        BatchDatabaseHelper batch(true, true);
        batch.removeChanges(tables::virtual_addresses, keys);
    }
    DatabaseHelper::removeRecord(tables::virtual_domains, domain);
}

void DomainManager::createStandardDomainAddresses(BatchDatabaseHelper &batch,
                                                  const std::string &domain)
{
    const RecordList records = standardRecords(domain);
    batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
}

void DomainManager::createStandardDomainAddresses(const std::string &domain)
{
    BatchDatabaseHelper batch(true, true);
    createStandardDomainAddresses(batch, domain);
}

void DomainManager::removeStandardDomainAddresses(BatchDatabaseHelper &batch,
                                                  const std::string &domain)
{
    batch.removeChanges(tables::virtual_addresses, standardKeys(domain));
}

void DomainManager::removeStandardDomainAddresses(const std::string &domain)
{
    BatchDatabaseHelper batch(true, true);
    removeStandardDomainAddresses(batch, domain);
}

void DomainManager::removeDomain(const std::string &domain, OnRemoval mode)
{
    DatabaseHelper::removeRecord(tables::virtual_domains, domain);
    try {
        MaildirManager::getInstance().removeDomainAliasLinks(domain);
    } catch (const std::exception &) {
        // A link left points at nothing once the root is gone; a later
        // alias or domain of its name replaces it.
    }
    try {
        if (mode == removeStorage)
            MaildirManager::getInstance().removeDomainRoot(domain);
        else if (mode == backupStorage)
            MaildirManager::getInstance().backupDomainRoot(domain);
    } catch (const std::exception &) {
        // The domain is gone for the mail server either way; a tree left on
        // disk is harmless and must not keep its records alive.
    }
    removeDomainReferences(domain, false);
    // The bounce record is keyed by name, not by an address in the domain.
    removeBounceRecord(domain);
}

void DomainManager::createCatchallFor(BatchDatabaseHelper &batch, const DomainList &domains,
                                      const std::string &target)
{
    RecordList records;
    for (const std::string &domain : domains)
        records.emplace_back("@" + domain, target);
    batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
}

void DomainManager::createCatchallFor(const DomainList &domains, const std::string &target)
{
    BatchDatabaseHelper batch(true, true);
    createCatchallFor(batch, domains, target);
}

void DomainManager::createCatchall(BatchDatabaseHelper &batch, const std::string &domain,
                                   const std::string &target)
{
    createCatchallFor(batch, DomainList(1, domain), target);
}

void DomainManager::createCatchall(const std::string &domain, const std::string &target)
{
    BatchDatabaseHelper batch(true, true);
    createCatchall(batch, domain, target);
}

void DomainManager::removeCatchall(BatchDatabaseHelper &batch, const std::string &domain)
{
    KeyList keys(1, "@" + domain);
    for (const std::string &alias : panelAliases(domain))
        keys.push_back("@" + alias);
    batch.removeChanges(tables::virtual_addresses, keys);
}

void DomainManager::removeCatchall(const std::string &domain)
{
    BatchDatabaseHelper batch(true, true);
    removeCatchall(batch, domain);
}

std::string DomainManager::bounceCommand(const std::string &text)
{
    std::string command = std::string("\"|") + bounceProgram;
    if (!text.empty()) {
        std::string line = text;
        std::replace(line.begin(), line.end(), '\n', ' ');
        command += " " + sh_quote(sh_quote(line));
    }
    return command + "\"";
}

void DomainManager::setBounceFor(BatchDatabaseHelper &batch, const DomainList &domains,
                                 const std::string &text)
{
    const std::string command = bounceCommand(text);
    RecordList pointers;
    for (const std::string &domain : domains) {
        batch.addChange(tables::aliases, bouncePrefix + domain, command);
        pointers.emplace_back("@" + domain, bouncePrefix + domain + local_host);
    }
    batch.addChanges(tables::virtual_addresses, pointers.begin(), pointers.end());
}

void DomainManager::setBounceFor(const DomainList &domains, const std::string &text)
{
    BatchDatabaseHelper batch(true, true);
    setBounceFor(batch, domains, text);
}

void DomainManager::setBounce(BatchDatabaseHelper &batch, const std::string &domain,
                              const std::string &text)
{
    setBounceFor(batch, DomainList(1, domain), text);
}

void DomainManager::setBounce(const std::string &domain, const std::string &text)
{
    BatchDatabaseHelper batch(true, true);
    setBounce(batch, domain, text);
}

void DomainManager::createDomainAlias(BatchDatabaseHelper &batch, const std::string &domain,
                                      const std::string &alias)
{
    // Read the panel before any change, so that a failure there writes nothing.
    RecordList records;
    {
        PanelLists panel;
        for (const std::string &mailname : panel.list(
                 [&](MYSQL *conn, char ***out) {
                     return get_mailnames_by_domain(conn, out, domain.c_str());
                 },
                 "the mailnames of " + domain)) {
            const std::string target = mailname + "@" + domain;
            records.emplace_back(mailname + "@" + alias, target);
            for (const std::string &name : panel.list(
                     [&](MYSQL *conn, char ***out) {
                         return get_aliases_by_mailname(conn, out, mailname.c_str(),
                                                        domain.c_str());
                     },
                     "the mail aliases of " + target))
                records.emplace_back(name + "@" + alias, target);
        }
    }
    if (DatabaseHelper::hasRecord(tables::virtual_domains, domain))
        records.emplace_back(alias, domain);
    const RecordList standard = standardRecords(alias);
    records.insert(records.begin(), standard.begin(), standard.end());
    // First the link: a name taken by a directory stops the command before
    // any record is written.
    const bool fresh = MaildirManager::getInstance().createDomainAliasLink(domain, alias);
    try {
        batch.addChanges(tables::virtual_addresses, records.begin(), records.end());
    } catch (...) {
        if (fresh)
            dropLinkQuietly(alias);
        throw;
    }
}

void DomainManager::createDomainAlias(const std::string &domain, const std::string &alias)
{
    BatchDatabaseHelper batch(true, true);
    createDomainAlias(batch, domain, alias);
}

void DomainManager::removeDomainAlias(const std::string &alias)
{
    DatabaseHelper::filterRecords(tables::virtual_addresses,
                                  ElementsFilter<NotInDomainFilter>(NotInDomainFilter(alias, false)));
    removeBounceRecord(alias);
    MaildirManager::getInstance().removeDomainAliasLink(alias);
}

void DomainManager::renameDomainAlias(const std::string &domain, const std::string &oldAlias,
                                      const std::string &newAlias)
{
    MaildirManager &storage = MaildirManager::getInstance();
    const bool fresh = storage.createDomainAliasLink(domain, newAlias);
    try {
        moveDomainAddresses(oldAlias, newAlias);
    } catch (...) {
        if (fresh)
            dropLinkQuietly(newAlias);
        throw;
    }
    if (oldAlias != newAlias)
        storage.removeDomainAliasLink(oldAlias);
    moveBounceRecord(oldAlias, newAlias);
}

void DomainManager::removeDomainReferences(const std::string &domain, bool subdomains)
{
    const ElementsFilter<NotInDomainFilter> filter(NotInDomainFilter(domain, subdomains));
    DatabaseHelper::filterRecords(tables::virtual_addresses, filter);
    DatabaseHelper::filterRecords(tables::vmailbox, filter);
}

void DomainManager::renameDomain(const std::string &oldDomain, const std::string &newDomain)
{
    struct Step {
        const char *table; // as the diagnostic names it
        void (*move)(const std::string &, const std::string &);
    };
    static const Step steps[] = {
        {"Postfix Virtual Domains Database", moveDomainDomains},
        {"Postfix Virtual Aliases Database", moveDomainAddresses},
        {"Postfix Virtual Mailboxes Database", moveDomainMailboxes},
        {"Postfix Aliases Database", moveBounceRecord},
    };
    std::size_t done = 0;
    try {
        for (; done < sizeof steps / sizeof steps[0]; ++done)
            steps[done].move(oldDomain, newDomain);
        MaildirManager::getInstance().renameDomainRoot(oldDomain, newDomain);
    } catch (...) {
        while (done-- > 0) {
            try {
                steps[done].move(newDomain, oldDomain);
            } catch (const std::exception &) {
                zarnet::uerr << doubleErrorHead << steps[done].table << doubleErrorTail
                             << std::endl;
            }
        }
        throw;
    }
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
