#include "mailtend/MailnameCommands.h"

#include "mail/auth/mail_authenticate.h"
#include "mail/postfix/MailnameManager.h"
#include "mailtend/MailnameArguments.h"
#include "mailtend/ProgramOptionsHelper.h"
#include "utils/dbconnect.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace {

const char password_usage_tail[] =
    "\n        The noncrypted password is transferred in the environment variable ZRN_PASSWORD,"
    "\n        or crypted password is transferred in the environment variable ZRN_CRYPTED_PASSWORD";

// Password flag bits handed to the authentication database.
const int password_encrypted = 1;
const int domain_disabled = 4;

struct EnvPassword {
    const char *password; // null: the environment held none
    int flags;
};

void declareDomainDisabled(ProgramOptionsHelper &helper)
{
    helper.addOptions()("mail-domain-disabled,D", "the domain is disabled (currently unused)");
}

// Takes the password out of the environment; without one the callers store
// none, which removes the user's login.
EnvPassword readEnvPassword(const ProgramOptionsHelper &helper)
{
    EnvPassword p = {nullptr, 0};
    int kind = 0;
    if (get_env_password(&p.password, &kind) == -1)
        p.password = nullptr;
    else if (kind == 1)
        p.flags |= password_encrypted;
    if (helper.variables.count("mail-domain-disabled"))
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

int addMailbox(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "add mailname's mailbox",
        std::string("--add-mailbox --domain-name=<domain_name> --mailname=<mail_name> "
                    "[--mail-domain-disabled|-D]") + password_usage_tail);
    declareMailnameOptions(helper);
    declareDomainDisabled(helper);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    MailnameManager::enableDelivery(a.domain, a.mailname);
    const EnvPassword p = readEnvPassword(helper);
    return set_passwd_for_domains(a.mailname.c_str(), a.domain.c_str(), p.password, p.flags) ==
                   -1
               ? 1
               : 0;
}

int removeMailbox(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "remove mailname's mailbox",
        "--remove-mailbox --domain-name=<domain_name> --mailname=<mail_name>");
    declareMailnameOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    MailnameManager::disableDelivery(a.domain, a.mailname);
    return rm_mails_from_domains(a.mailname.c_str(), a.domain.c_str()) == -1 ? 1 : 0;
}

int setPassword(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "set mailname's password",
        std::string("--set-password --domain-name=<domain_name> --mailname=<mail_name> "
                    "[--mail-domain-disabled|-D]") + password_usage_tail);
    declareMailnameOptions(helper);
    declareDomainDisabled(helper);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::Syntax);
    if (!panelReachable())
        return 1;

    const EnvPassword p = readEnvPassword(helper);
    return set_mass_postbox_passwd(a.mailname.c_str(), a.domain.c_str(), p.password, p.flags) ==
                   -1
               ? 1
               : 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
