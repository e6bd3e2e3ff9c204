#include "mailtend/AttachmentCommands.h"

#include "mail/storage/attachments.h"
#include "mailtend/CommandNames.h"
#include "mailtend/MailnameArguments.h"
#include "mailtend/ProgramOptionsHelper.h"

#include <iostream>
#include <string>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

namespace {

std::string attachmentName(const ProgramOptionsHelper &helper)
{
    const std::string name = helper.variables["attachment-file-name"].as<std::string>();
    checkPathComponent("attachment file name", name);
    return name;
}

} // namespace

int listAttachments(int argc, char **argv)
{
    ProgramOptionsHelper helper("list attachments",
                                "--list-attachments [--in-blocks] [--fullname] "
                                "--domain-name=<domain_name> (--mailname=<mail_name>|--mail-all)");
    helper.addOptions()("in-blocks", "report in blocks rather than bytes (false by default)")(
        "fullname", "report full attachment paths (false by default)")(
        "domain-name", po::value<std::string>(), "domain name", true)(
        "mail-all", "report attachments for all mailnames (false by default)")(
        "mailname", po::value<std::string>(), "mailname");
    standardOptionsParse(helper, argc, argv);
    const po::variables_map &vm = helper.variables;
    const bool all = vm.count("mail-all") != 0;
    const bool named = vm.count("mailname") != 0;
    if (all && named)
        optionError(helper, "you should not use --mailname and --mail-all together");
    if (!all && !named)
        optionError(helper, "neither --mailname nor --mail-all are specified");

    const std::string domain = storeDomain(vm["domain-name"].as<std::string>());
    const int in_blocks = vm.count("in-blocks") != 0;
    const int fullname = vm.count("fullname") != 0;
    int result;
    if (all) {
        result = list_all_attachments(domain.c_str(), in_blocks, fullname);
    } else {
        const std::string mailname = vm["mailname"].as<std::string>();
        // An empty mailname is the listing's own error to report.
        if (!mailname.empty())
            checkPathComponent("mailname", mailname);
        result = list_attachments(mailname.c_str(), domain.c_str(), in_blocks, fullname);
    }
    return result != 0 ? 1 : 0;
}

int addAttachment(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "add an attachment",
        "--add-attachment --domain-name=<domain_name> --mailname=<mail_name> "
        "--file-name=<full_file_name> --attachment-file-name=<attachment_file_name>");
    declareMailnameOptions(helper);
    helper.addOptions()("file-name", po::value<std::string>(), "uploaded file name", true)(
        "attachment-file-name", po::value<std::string>(), "attachment file name", true);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::PathOnly);
    const std::string name = attachmentName(helper);
    return add_attachment(a.mailname.c_str(), a.domain.c_str(),
                          helper.variables["file-name"].as<std::string>().c_str(),
                          name.c_str()) != 0
               ? 1
               : 0;
}

int removeAttachment(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "remove an attachment",
        "--remove-attachment --domain-name=<domain_name> --mailname=<mail_name> "
        "--attachment-file-name=<attachment_file_name>");
    declareMailnameOptions(helper);
    helper.addOptions()("attachment-file-name", po::value<std::string>(), "attachment file name",
                        true);
    standardOptionsParse(helper, argc, argv);
    const MailnameArguments a = mailnameArguments(helper, MailnameCheck::PathOnly);
    const std::string name = attachmentName(helper);
    return remove_attachment(a.mailname.c_str(), a.domain.c_str(), name.c_str()) != 0 ? 1 : 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
