// The value checks of the command front end: one check per kind of value
// (zarnet::validate), run on every option of a checked kind before the
// handler sees it, and the one way a refused value is reported.
//
// A refusal is an option error (optionError): "KIND "VALUE" REASON" on
// zarnet::uerr, the help block on standard output, exit status 1, nothing
// changed. The value is shown with control characters, quotes and
// backslashes escaped, cut after 64 bytes.
#ifndef MAILTEND_MAILTEND_OPTIONCHECKS_H
#define MAILTEND_MAILTEND_OPTIONCHECKS_H

#include "mailtend/Command.h"

#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

// Checks every given option of the command by its Value kind. A domain that
// does not convert to ASCII throws zarnet::idn::IdnaError.
void checkValues(const Args &args, const Options &options);

// Ends the run unless problem is empty.
void refuseValue(const Args &args, const std::string &kind, const std::string &value,
                 const std::string &problem);

// The value as the messages show it.
std::string shownValue(const std::string &value);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
