#include "mailtend/commands.h"

#include "mail/auth/mail_authenticate.h"
#include "mail/postfix/MailnameManager.h"
#include "mailtend/MailnameArguments.h"
#include "utils/dbconnect.h"
#include "utils/liblog.h"

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
    MYSQL *conn = db_connect();
    if (conn == nullptr)
        return false;
    mysql_close(conn);
    return true;
}

} // namespace

// The mailbox commands change the logins first, in a transaction left open
// while the delivery file is edited: a failure of either (the edit throws)
// leaves both as they were. Only a failed commit after the edit can split
// them, and then the message says what stayed done.
int addMailbox(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    const EnvPassword p = readEnvPassword(args);
    MailAuthCommand auth;
    if (set_passwd_for_domains(a.mailname.c_str(), a.domain.c_str(), p.password, p.flags) == -1)
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
    if (rm_mails_from_domains(a.mailname.c_str(), a.domain.c_str()) == -1)
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
