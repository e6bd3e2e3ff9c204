#include "mailtend/commands.h"

#include "mail/handlers/autoresponder.h"
#include "mail/handlers/handlers.h"
#include "mail/postfix/MailnameManager.h"
#include "mail/storage/MaildirPPManager.h"
#include "mail/storage/mailbox_size.h"
#include "mailtend/MailnameArguments.h"
#include "utils/idn.h"

#include <cstdint>
#include <cstdio>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

typedef void (*ForwardChange)(const std::string &domain, const std::string &mailname,
                              const std::string &email);

// The redirect commands name the mailname without the syntax check.
int changeRedirect(const Args &args, ForwardChange change)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    change(a.domain, a.mailname, zarnet::idn::emailToAscii(args.text("redirect-email")));
    return 0;
}

int autoresponder(const Args &args, int action)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    return autoresponder_action(a.mailname.c_str(), a.domain.c_str(), action) != 0 ? 1 : 0;
}

} // namespace

int getMailboxSize(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    const long long size =
        get_mbox_size(a.mailname.c_str(), a.domain.c_str(), args.has("in-blocks") ? 1 : 0);
    if (size < 0)
        return 1;
    std::printf("%lld", size);
    // A size the panel did not receive must not look like success.
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}

int setMailboxDiskQuota(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::Syntax);
    MaildirPPManager::getInstance().setMailboxQuota(a.domain, a.mailname,
                                                    args.get<int64_t>("disk-quota"));
    return 0;
}

int addRedirect(const Args &args)
{
    return changeRedirect(args, MailnameManager::addForward);
}

int removeRedirect(const Args &args)
{
    return changeRedirect(args, MailnameManager::removeForward);
}

// Both take lists joined by ", " in --domain-name and --mailname: every
// mailname at every domain.
int addAutoresponder(const Args &args)
{
    return autoresponder(args, HANDLER_ACTION_ENABLE);
}

int removeAutoresponder(const Args &args)
{
    return autoresponder(args, HANDLER_ACTION_DISABLE);
}

} // namespace zarnet::mail::postfix::mailtend_commands
