#include "mailtend/MailnameArguments.h"

#include "mailtend/CommandNames.h"
#include "mailtend/MailnameValidators.h"

namespace zarnet::mail::postfix::mailtend_commands {

MailnameArguments mailnameArguments(const ProgramOptionsHelper &args, MailnameCheck check)
{
    MailnameArguments names;
    names.domain = storeDomain(args.text("domain-name"));
    names.mailname = args.text("mailname");
    if (check == MailnameCheck::Syntax)
        mailname_validators::mailValidateExc(names.mailname);
    checkPathComponent("mailname", names.mailname);
    return names;
}

} // namespace zarnet::mail::postfix::mailtend_commands
