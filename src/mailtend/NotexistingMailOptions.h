// The option group of the domain-alias commands that says what happens to
// mail for names that do not exist: bounce, catch-all or reject.
#ifndef MAILTEND_MAILTEND_NOTEXISTINGMAILOPTIONS_H
#define MAILTEND_MAILTEND_NOTEXISTINGMAILOPTIONS_H

#include "mailtend/ProgramOptionsHelper.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

// Adds "set-catchall", "email", "set-bounce", "phrase", "set-reject", none
// mandatory, after the command's own options.
void formNotexistingMailOptions(ProgramOptionsHelper &helper);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
