// The three help texts of the tool. Each usage function prints its text to
// the given stream and ends the process with the given status.
#ifndef MAILTEND_MAILTEND_USAGE_H
#define MAILTEND_MAILTEND_USAGE_H

#include <ostream>

namespace zarnet::mail::postfix::mailtend_commands {

[[noreturn]] void usageShort(int status, std::ostream &os);
[[noreturn]] void usageCommands(int status, std::ostream &os);
[[noreturn]] void usageLegacy(int status, std::ostream &os);

// Text writers behind the usage functions, so the texts can be checked
// without ending the process.
void writeUsageShort(std::ostream &os);
void writeUsageCommands(std::ostream &os);
void writeUsageLegacy(std::ostream &os);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
