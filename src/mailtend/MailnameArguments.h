// The domain and mailname that every mailname command names.
//
// mailnameArguments reads the parsed "domain-name" and "mailname" (the
// command table's mailname group): the domain in lower-case ASCII form, the
// mailname as given. The mailname syntax check
// runs only where the command asks for it; the one-directory-level check of
// both names always runs, since both become path components.
#ifndef MAILTEND_MAILTEND_MAILNAMEARGUMENTS_H
#define MAILTEND_MAILTEND_MAILNAMEARGUMENTS_H

#include "mailtend/ProgramOptionsHelper.h"

#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

struct MailnameArguments {
    std::string domain;
    std::string mailname;
};

enum class MailnameCheck { Syntax, PathOnly };

MailnameArguments mailnameArguments(const ProgramOptionsHelper &args, MailnameCheck check);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
