// The one table of commands: it drives dispatch, "--help-commands" and
// "--help-legacy", in this order. Each entry declares its command once
// (Command.h); an entry whose handler is not built yet lists the command
// but its words are not commands.
#ifndef MAILTEND_MAILTEND_COMMAND_TABLE_H
#define MAILTEND_MAILTEND_COMMAND_TABLE_H

#include "mailtend/Command.h"

#include <cstddef>

namespace zarnet::mail::postfix::mailtend_commands {

extern const Command command_table[];
extern const std::size_t command_table_size;

// The option group of the domain-alias commands that says what happens to
// mail for names that do not exist: bounce, catch-all or reject; it follows
// the command's own options. A function, so that option sets outside this
// file can use it during their own initialisation.
const Options &formNotexistingMailOptions();

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
