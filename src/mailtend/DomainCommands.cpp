#include "mailtend/commands.h"

#include "mail/auth/mail_authenticate.h"
#include "mail/dns/domain_keys.h"
#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"
#include "mail/postfix/DomainManager.h"
#include "mail/postfix/ServiceManager.h"
#include "mail/postfix/lookup_tables.h"
#include "mailtend/CommandNames.h"
#include "utils/UtilityErrorStream.h"
#include "utils/liblog.h"

#include <csignal>
#include <cstdint>
#include <exception>
#include <ostream>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

// The address-rewriting daemon, which tells which domains the server takes
// mail for, keeps its tables open and serves long-lived clients, so it looks
// for changed tables only when a new client comes; an interrupt ends it and
// the master starts a fresh one, with the new tables, at the next request.
// Found as the master's child by name, so no configuration run is needed to
// learn where the installed Postfix keeps it. Best effort: it notices
// changed tables on its own too, only later.
void interruptRewriteDaemon()
{
    try {
        ServiceManager::signalServerProcesses("trivial-rewrite", SIGINT);
    } catch (const std::exception &) {
    }
}

// Domain status change in the authentication database, then in the tables,
// then for the domain's handlers (whose result does not count). The
// rewriting daemon is told as for a new domain: a disabled domain must be
// refused at once too.
int changeDomainStatus(const Args &args, int (*authAction)(const char *), const char *actionText,
                       void (*tableAction)(const std::string &), int handlerAction)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    // A table change that fails takes the login status change back with it.
    MailAuthCommand auth;
    if (domain_auth_action(domain.c_str(), authAction, actionText) == -1 || auth.check() != 0)
        return 1;
    tableAction(domain);
    if (commitLogins(auth, "status change", domain) != 0)
        return 1;
    interruptRewriteDaemon();
    mass_control_handler_by_mailname(domain.c_str(), nullptr, handlerAction);
    return 0;
}

void enableInTables(const std::string &domain) { DomainManager::enableDomain(domain); }

void removeCatchallOf(const Args &args)
{
    DomainManager::removeCatchall(storeDomain(args.text("domain-name")));
}

} // namespace

int processNotexistingMailnamesOptions(const Args &args, const std::string &alias)
{
    if (args.has("set-bounce")) {
        BatchDatabaseHelper batch(true, true);
        DomainManager::setBounceFor(batch, DomainList(1, alias),
                                    args.has("phrase") ? args.text("phrase") : std::string());
        return 0;
    }
    if (args.has("set-catchall")) {
        const std::string email = args.has("email") ? asciiAddress(args.text("email")) : "";
        if (email.empty())
            throw MissingMandatoryOption("email");
        BatchDatabaseHelper batch(true, true);
        DomainManager::createCatchallFor(batch, DomainList(1, alias), email);
        return 0;
    }
    // Without an "@" record mail to unknown names is rejected; a renamed
    // alias brings the one it had under its old name, so it goes.
    if (args.has("set-reject")) {
        BatchDatabaseHelper batch(true, true);
        batch.removeChanges(tables::virtual_addresses, KeyList(1, "@" + alias));
        return 0;
    }
    zarnet_log(3, "Action for notexisting mail names is not specified "
                  "(--set-bounce/--set-catchall/--set-reject)");
    return 1;
}

int addDomain(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    if (args.has("disk-quota"))
        DomainManager::createDomain(domain, args.get<int64_t>("disk-quota"), false);
    else
        DomainManager::createDomain(domain, false);
    interruptRewriteDaemon();
    return 0;
}

int removeDomain(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    // Not one transaction with the removal: the store may take long to
    // delete, and other commands must not wait on passwd.db meanwhile. A
    // retry after a failed removal finds the logins gone and goes on.
    if (domain_auth_action(domain.c_str(), mailAuthRemoveDomain, "remove auth record") == -1)
        return 1;
    DomainManager::removeDomain(domain, removeStorage);
    interruptRewriteDaemon();
    if (mass_control_handler_by_mailname(domain.c_str(), nullptr, HANDLER_ACTION_REMOVE) != 0)
        zarnet::uerr << "WARNING: unable to properly remove all mail handlers for " << domain
                     << std::endl;
    return 0;
}

int enableDomain(const Args &args)
{
    return changeDomainStatus(args, mailAuthEnableDomain, "enable auth records", enableInTables,
                              HANDLER_ACTION_ENABLE);
}

int disableDomain(const Args &args)
{
    return changeDomainStatus(args, mailAuthDisableDomain, "disable auth records",
                              DomainManager::disableDomain, HANDLER_ACTION_DISABLE);
}

int setBounce(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    DomainManager::setBounce(domain, args.has("phrase") ? args.text("phrase") : std::string());
    return 0;
}

int setCatchAll(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    DomainManager::createCatchall(domain, asciiAddress(args.text("email")));
    return 0;
}

int setReject(const Args &args)
{
    removeCatchallOf(args);
    return 0;
}

int removeReject(const Args &args)
{
    removeCatchallOf(args);
    return 0;
}

int addDomainAlias(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    const std::string alias = storeDomain(args.text("domain-alias-name"));
    DomainManager::createDomainAlias(domain, alias);
    interruptRewriteDaemon();
    if (mass_control_handler_by_mailname(domain.c_str(), alias.c_str(), HANDLER_ACTION_CLONE) != 0)
        zarnet::uerr << "WARNING: unable to clone all mail handlers for " << alias << std::endl;
    if (clone_domain_key(domain.c_str(), alias.c_str()) != 0)
        zarnet::uerr << "WARNING: cannot clone domain key for " << alias << std::endl;
    if (add_domain_auth_alias(domain.c_str(), alias.c_str()) == -1)
        return 1;
    return processNotexistingMailnamesOptions(args, alias);
}

int removeDomainAlias(const Args &args)
{
    const std::string alias = storeDomain(args.text("domain-alias-name"));
    DomainManager::removeDomainAlias(alias);
    interruptRewriteDaemon();
    if (mass_control_handler_by_mailname(alias.c_str(), nullptr, HANDLER_ACTION_REMOVE) != 0)
        zarnet::uerr << "WARNING: unable to properly remove mail handlers for " << alias
                     << std::endl;
    remove_domain_key(alias.c_str());
    return rm_domain_auth_alias(alias.c_str()) == -1 ? 1 : 0;
}

int renameDomainAlias(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    const std::string from = storeDomain(args.text("old-domain-alias-name"));
    const std::string to = storeDomain(args.text("new-domain-alias-name"));
    DomainManager::renameDomainAlias(domain, from, to);
    interruptRewriteDaemon();
    if (mass_control_handler_by_mailname(from.c_str(), to.c_str(), HANDLER_ACTION_REASSIGN) != 0)
        zarnet::uerr << "WARNING: unable to properly re-assign mail handlers from " << from
                     << " to " << to << std::endl;
    if (clone_domain_key(from.c_str(), to.c_str()) != 0)
        zarnet::uerr << "WARNING: cannot create domainkey for " << to << '\n';
    remove_domain_key(from.c_str());
    // The new name's logins and the old name's removal are stored together.
    MailAuthCommand auth;
    if (add_domain_auth_alias(domain.c_str(), to.c_str()) == -1 ||
        rm_domain_auth_alias(from.c_str()) == -1 || auth.commit() != 0)
        return 1;
    // The command has no "domain-alias-name": its bounce or catch-all goes to
    // the alias under its new name.
    return processNotexistingMailnamesOptions(args, to);
}

} // namespace zarnet::mail::postfix::mailtend_commands
