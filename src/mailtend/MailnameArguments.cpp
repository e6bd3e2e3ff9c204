#include "mailtend/MailnameArguments.h"

#include "mailtend/CommandNames.h"
#include "mailtend/MailnameValidators.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

void declareMailnameOptions(ProgramOptionsHelper &helper)
{
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true)(
        "mailname", po::value<std::string>(), "mailname", true);
}

MailnameArguments mailnameArguments(const ProgramOptionsHelper &helper, MailnameCheck check)
{
    MailnameArguments args;
    args.domain = storeDomain(helper.variables["domain-name"].as<std::string>());
    args.mailname = helper.variables["mailname"].as<std::string>();
    if (check == MailnameCheck::Syntax)
        mailname_validators::mailValidateExc(args.mailname);
    checkPathComponent("mailname", args.mailname);
    return args;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
