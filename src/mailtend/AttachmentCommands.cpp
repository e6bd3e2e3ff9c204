#include "mailtend/commands.h"

#include "mail/storage/attachments.h"
#include "mailtend/CommandNames.h"
#include "mailtend/MailnameArguments.h"

#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

std::string attachmentName(const Args &args)
{
    const std::string &name = args.text("attachment-file-name");
    checkPathComponent("attachment file name", name);
    return name;
}

} // namespace

int listAttachments(const Args &args)
{
    const bool all = args.has("mail-all");
    const bool named = args.has("mailname");
    if (all && named)
        optionError(args, "you should not use --mailname and --mail-all together");
    if (!all && !named)
        optionError(args, "neither --mailname nor --mail-all are specified");

    const std::string domain = storeDomain(args.text("domain-name"));
    const int in_blocks = args.has("in-blocks");
    const int fullname = args.has("fullname");
    if (all)
        return list_all_attachments(domain.c_str(), in_blocks, fullname) != 0 ? 1 : 0;
    const std::string &mailname = args.text("mailname");
    // An empty mailname is the listing's own error to report.
    if (!mailname.empty())
        checkPathComponent("mailname", mailname);
    return list_attachments(mailname.c_str(), domain.c_str(), in_blocks, fullname) != 0 ? 1 : 0;
}

int addAttachment(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    const std::string name = attachmentName(args);
    const int failed = add_attachment(a.mailname.c_str(), a.domain.c_str(),
                                      args.text("file-name").c_str(), name.c_str());
    return failed != 0 ? 1 : 0;
}

int removeAttachment(const Args &args)
{
    const MailnameArguments a = mailnameArguments(args, MailnameCheck::PathOnly);
    const std::string name = attachmentName(args);
    return remove_attachment(a.mailname.c_str(), a.domain.c_str(), name.c_str()) != 0 ? 1 : 0;
}

} // namespace zarnet::mail::postfix::mailtend_commands
