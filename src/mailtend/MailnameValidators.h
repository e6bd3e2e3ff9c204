// Mailname checks of the command handlers.
//
// mailValidateExc runs mail_validate and returns its non-zero result; a
// rejected name throws std::invalid_argument whose what() is the name itself,
// so the run ends through main before anything is changed.
#ifndef MAILTEND_MAILTEND_MAILNAMEVALIDATORS_H
#define MAILTEND_MAILTEND_MAILNAMEVALIDATORS_H

#include "utils/mail_validate.h"

#include <string>

namespace zarnet::mail::postfix::mailname_validators {

int mailValidateExc(const std::string &name, validation_type type = VALIDATE_MAILNAME);

} // namespace zarnet::mail::postfix::mailname_validators

#endif
