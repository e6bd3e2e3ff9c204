// The one table of commands: it drives dispatch, "--help-commands" and
// "--help-legacy".
//
// Each entry is the command text as printed (obsolete commands show their
// short switch and long word joined by ", "; both are command words), the
// syntax text, the description, and the handler. An entry whose handler is
// not built yet has a null handler: it is listed in the help texts but its
// words are not commands.
#ifndef MAILTEND_MAILTEND_COMMAND_TABLE_H
#define MAILTEND_MAILTEND_COMMAND_TABLE_H

#include <cstddef>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

typedef int (*CommandHandler)(int argc, char **argv);

struct CommandEntry {
    const char *command;
    const char *syntax;
    const char *description;
    CommandHandler handler;
};

extern const CommandEntry command_table[];
extern const std::size_t command_table_size;

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
