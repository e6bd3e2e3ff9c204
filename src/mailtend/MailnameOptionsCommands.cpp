#include "mailtend/MailnameOptionsCommands.h"

#include "mail/storage/MaildirPPManager.h"
#include "mail/handlers/autoresponder.h"
#include "mail/handlers/handlers.h"
#include "mail/storage/mailbox_size.h"
#include "mail/postfix/MailnameManager.h"
#include "mailtend/MailnameArguments.h"
#include "mailtend/ProgramOptionsHelper.h"
#include "utils/idn.h"

#include <cstdint>
#include <cstdio>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

namespace {

struct RedirectArguments {
    MailnameArguments target;
    std::string email;
};

// The redirect commands name the mailname without the syntax check.
RedirectArguments parseRedirect(const char *description, const char *usage, int argc,
                                char **argv)
{
    ProgramOptionsHelper helper(description, usage);
    declareMailnameOptions(helper);
    helper.addOptions()("redirect-email", po::value<std::string>(), "redirect email", true);
    standardOptionsParse(helper, argc, argv);
    RedirectArguments r;
    r.target = mailnameArguments(helper, MailnameCheck::PathOnly);
    r.email = zarnet::idn::emailToAscii(helper.variables["redirect-email"].as<std::string>());
    return r;
}

int autoresponder(const char *description, const char *usage, int action, int argc,
                  char **argv)
{
    ProgramOptionsHelper helper(description, usage);
    declareMailnameOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::PathOnly);
    return autoresponder_action(a.mailname.c_str(), a.domain.c_str(), action) != 0 ? 1 : 0;
}

} // namespace

int getMailboxSize(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "get mailbox size",
        "--get-mailbox-size [--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>");
    helper.addOptions()("in-blocks", "count result in blocks rather than bytes");
    declareMailnameOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::Syntax);

    const long long size = get_mbox_size(a.mailname.c_str(), a.domain.c_str(),
                                         helper.variables.count("in-blocks") ? 1 : 0);
    if (size < 0)
        return 1;
    std::printf("%lld", size);
    // A size the panel did not receive must not look like success.
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}

int setMailboxDiskQuota(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "set mailbox disk quota",
        "--set-mailbox-disk-quota --domain-name=<domain_name> --mailname=<mail_name> "
        "--disk-quota=<quota>");
    declareMailnameOptions(helper);
    helper.addOptions()("disk-quota", po::value<int64_t>(), "disk quota", true);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::Syntax);

    MaildirPPManager::getInstance().setMailboxQuota(
        a.domain, a.mailname, helper.variables["disk-quota"].as<int64_t>());
    return 0;
}

int addRedirect(int argc, char **argv)
{
    const RedirectArguments r = parseRedirect(
        "add a redirect",
        "--add-redirect --domain-name=<domain_name> --mailname=<mail_name> "
        "--redirect-email=<email>",
        argc, argv);
    MailnameManager::addForward(r.target.domain, r.target.mailname, r.email);
    return 0;
}

int removeRedirect(int argc, char **argv)
{
    const RedirectArguments r = parseRedirect(
        "remove a given redirect",
        "--remove-redirect --domain-name=<domain_name> --mailname=<mail_name> "
        "--redirect-email=<email>",
        argc, argv);
    MailnameManager::removeForward(r.target.domain, r.target.mailname, r.email);
    return 0;
}

int addAutoresponder(int argc, char **argv)
{
    return autoresponder("add autoresponder for a given mailname",
                         "--set-autoresponder --domain-name=<domain_name> --mailname=<mail_name>",
                         HANDLER_ACTION_ENABLE, argc, argv);
}

int removeAutoresponder(int argc, char **argv)
{
    return autoresponder("remove autoresponder for a given mailname",
                         "--reset-autoresponder --domain-name=<domain_name> --mailname=<mail_name>",
                         HANDLER_ACTION_DISABLE, argc, argv);
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
