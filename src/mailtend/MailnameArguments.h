// The domain and mailname that every mailname command names.
//
// declareMailnameOptions adds "domain-name" and "mailname" (both mandatory)
// in that order; mailnameArguments reads them after parsing: the domain in
// lower-case ASCII form, the mailname as given. The mailname syntax check
// runs only where the command asks for it; the one-directory-level check of
// both names always runs, since both become path components.
#ifndef MAILTEND_MAILTEND_MAILNAMEARGUMENTS_H
#define MAILTEND_MAILTEND_MAILNAMEARGUMENTS_H

#include "mailtend/ProgramOptionsHelper.h"

#include <string>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

struct MailnameArguments {
    std::string domain;
    std::string mailname;
};

void declareMailnameOptions(ProgramOptionsHelper &helper);

enum class MailnameCheck { Syntax, PathOnly };

MailnameArguments mailnameArguments(const ProgramOptionsHelper &helper, MailnameCheck check);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
