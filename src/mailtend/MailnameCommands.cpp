#include "mailtend/commands.h"

#include "mail/auth/mail_authenticate.h"
#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"
#include "mail/panel/panel_queries.h"
#include "mail/postfix/MailnameManager.h"
#include "mailtend/CommandNames.h"
#include "mailtend/MailnameArguments.h"
#include "mailtend/MailnameValidators.h"
#include "utils/UtilityErrorStream.h"
#include "utils/dbconnect.h"
#include "utils/liblog.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

// Password flag bits handed to the authentication database.
const int password_encrypted = 1;
const int domain_disabled = 4;

struct EnvPassword {
    const char *password; // null: the environment held none
    int flags;
};

// Takes the password out of the environment; without one the callers store
// none, which removes the user's login.
EnvPassword readEnvPassword(const Args &args)
{
    EnvPassword p = {nullptr, 0};
    int kind = 0;
    if (get_env_password(&p.password, &kind) == -1)
        p.password = nullptr;
    else if (kind == 1)
        p.flags |= password_encrypted;
    if (args.has("mail-domain-disabled"))
        p.flags |= domain_disabled;
    return p;
}

// The password is spread over the panel's lists of domain aliases and mail
// aliases; when the panel cannot be reached the command must change nothing
// rather than leave the mailbox set up in some domains only.
bool panelReachable()
{
    return db_shared() != nullptr;
}

typedef std::vector<std::string> Names;

Names takeList(char **list)
{
    Names names;
    for (char **p = list; p != nullptr && *p != nullptr; ++p)
        names.emplace_back(*p);
    free_array(list);
    return names;
}

// The panel's lists; false after the ERROR line.
bool domainAliases(const std::string &domain, Names &out)
{
    char **list = nullptr;
    if (get_domaliases_by_domain(nullptr, &list, domain.c_str()) != 0) {
        uerr << "ERROR: unable get domain aliases for domain " << domain << std::endl;
        return false;
    }
    out = takeList(list);
    return true;
}

bool mailAliases(const std::string &mailname, const std::string &domain, Names &out)
{
    char **list = nullptr;
    if (get_aliases_by_mailname(nullptr, &list, mailname.c_str(), domain.c_str()) != 0) {
        uerr << "ERROR: unable get mail aliases for mailname " << mailname << std::endl;
        return false;
    }
    out = takeList(list);
    return true;
}

std::string at(const std::string &local, const std::string &domain)
{
    return local + "@" + domain;
}

// A mailname option that names a home: syntax and one directory level.
std::string checkedMailname(const Args &args, const char *option)
{
    const std::string name = args.text(option);
    mailname_validators::mailValidateExc(name);
    checkPathComponent("mailname", name);
    return name;
}

void removeHandlersOf(const std::string &address)
{
    if (mass_control_handler_by_mailname(address.c_str(), nullptr, HANDLER_ACTION_REMOVE) != 0)
        uerr << "ERROR: unable to remove mail handler for " << address << std::endl;
}

} // namespace

int commitLogins(MailAuthCommand &auth, const char *what, const std::string &address)
{
    if (auth.commit() == 0)
        return 0;
    zarnet_log(3, "The %s of %s was done, but its logins were not changed", what,
               address.c_str());
    return 1;
}

int addMailname(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    if (args.has("disk-quota"))
        MailnameManager::createMailname(a.domain, a.mailname, args.get<int64_t>("disk-quota"));
    else
        MailnameManager::createMailname(a.domain, a.mailname);
    return 0;
}

// The panel's lists are read before anything changes, so a panel that
// cannot answer leaves the mailname whole.
int removeMailname(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    Names domainAliasList, mailAliasList;
    if (!domainAliases(a.domain, domainAliasList) ||
        !mailAliases(a.mailname, a.domain, mailAliasList))
        return 1;

    MailAuthCommand auth;
    if (rm_mails_from_domains(a.mailname.c_str(), a.domain.c_str()) == -1 || auth.check() != 0)
        return 1;
    MailnameManager::removeMailname(a.domain, a.mailname, MailnameManager::RemoveHome,
                                    mailAliasList);
    const std::string address = at(a.mailname, a.domain);
    if (commitLogins(auth, "removal", address) != 0)
        return 1;

    if (mass_control_handler_by_mailname(address.c_str(), nullptr, HANDLER_ACTION_REMOVE) != 0)
        uerr << "WARNING: unable to remove some of mail handlers for " << address << std::endl;
    for (const std::string &alias : domainAliasList)
        removeHandlersOf(at(a.mailname, alias));
    for (const std::string &local : mailAliasList)
        removeHandlersOf(at(local, a.domain));
    for (const std::string &local : mailAliasList)
        for (const std::string &alias : domainAliasList)
            removeHandlersOf(at(local, alias));
    return 0;
}

// With a password the logins are renamed in the domain and its domain
// aliases; without one the old name's logins are removed. The records of
// the domain aliases move with the mailname either way.
int renameMailname(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    const std::string oldName = checkedMailname(args, "old-mailname");
    const std::string newName = checkedMailname(args, "new-mailname");
    Names domainAliasList;
    if (!domainAliases(domain, domainAliasList))
        return 1;

    const EnvPassword p = readEnvPassword(args);
    MailAuthCommand auth;
    if (p.password == nullptr || *p.password == '\0') {
        if (rm_mname_from_domains(oldName.c_str(), domain.c_str()) == -1)
            return 1;
    } else {
        if (mailAuthRename(oldName.c_str(), newName.c_str(), domain.c_str()) == -1)
            return 1;
        for (const std::string &alias : domainAliasList)
            if (mailAuthRename(oldName.c_str(), newName.c_str(), alias.c_str()) == -1)
                return 1;
    }
    if (auth.check() != 0)
        return 1;
    MailnameManager::renameMailname(domain, oldName, newName);
    const std::string from = at(oldName, domain), to = at(newName, domain);
    if (commitLogins(auth, "rename", from) != 0)
        return 1;

    if (mass_control_handler_by_mailname(from.c_str(), to.c_str(), HANDLER_ACTION_REASSIGN) != 0)
        uerr << "WARNING: unable to re-assign some of mail handlers from " << from << " to "
             << to << std::endl;
    return 0;
}

// The alias gets the mailname's login in the domain and each domain alias.
int addAlias(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    const std::string alias = args.text("alias");
    Names domainAliasList;
    if (!domainAliases(a.domain, domainAliasList))
        return 1;

    MailAuthCommand auth;
    if (mailAuthClone(a.mailname.c_str(), a.domain.c_str(), alias.c_str(), a.domain.c_str()) == -1)
        return 1;
    for (const std::string &domainAlias : domainAliasList)
        if (mailAuthClone(alias.c_str(), a.domain.c_str(), alias.c_str(), domainAlias.c_str()) ==
            -1)
            return 1;
    if (auth.check() != 0)
        return 1;
    MailnameManager::createMailAlias(a.domain, a.mailname, alias);
    const std::string address = at(alias, a.domain);
    if (commitLogins(auth, "alias", address) != 0)
        return 1;

    if (mass_control_handler_by_mailname(at(a.mailname, a.domain).c_str(), address.c_str(),
                                         HANDLER_ACTION_CLONE) != 0)
        uerr << "WARNING: unable to set all mail handlers for " << address << std::endl;
    return 0;
}

int removeAlias(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    const std::string alias = args.text("alias");

    MailAuthCommand auth;
    if (rm_mname_from_domains(alias.c_str(), a.domain.c_str()) == -1 || auth.check() != 0)
        return 1;
    MailnameManager::removeMailAlias(a.domain, a.mailname, alias);
    const std::string address = at(alias, a.domain);
    if (commitLogins(auth, "alias removal", address) != 0)
        return 1;

    if (mass_control_handler_by_mailname(address.c_str(), nullptr, HANDLER_ACTION_REMOVE) != 0)
        uerr << "WARNING: unable to properly remove all mail handlers for " << address
             << std::endl;
    return 0;
}

// The mailbox commands try the logins' change first and store it after the
// delivery file is edited: a failure of either (the edit throws) leaves both
// as they were. Only a failed commit after the edit can split them, and then
// the message says what stayed done.
int addMailbox(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    const EnvPassword p = readEnvPassword(args);
    MailAuthCommand auth;
    if (set_passwd_for_domains(a.mailname.c_str(), a.domain.c_str(), p.password, p.flags) == -1 ||
        auth.check() != 0)
        return 1;
    MailnameManager::enableDelivery(a.domain, a.mailname);
    if (auth.commit() == 0)
        return 0;
    zarnet_log(3, "Mail delivery for %s@%s was switched on, but its logins were not stored",
               a.mailname.c_str(), a.domain.c_str());
    return 1;
}

int removeMailbox(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    MailAuthCommand auth;
    if (rm_mails_from_domains(a.mailname.c_str(), a.domain.c_str()) == -1 || auth.check() != 0)
        return 1;
    MailnameManager::disableDelivery(a.domain, a.mailname);
    if (auth.commit() == 0)
        return 0;
    zarnet_log(3, "Mail delivery for %s@%s was switched off, but its logins were not removed",
               a.mailname.c_str(), a.domain.c_str());
    return 1;
}

int setPassword(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    const EnvPassword p = readEnvPassword(args);
    const int stored =
        set_mass_postbox_passwd(a.mailname.c_str(), a.domain.c_str(), p.password, p.flags);
    return stored == -1 ? 1 : 0;
}

} // namespace zarnet::mail::postfix::mailtend_commands
