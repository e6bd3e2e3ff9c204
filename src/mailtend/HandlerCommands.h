// Commands on the mail-handler store.
//
// Every command names a handler by its template ("handler-name"), type,
// hook and, except for global handlers, its type name (an address or a
// domain, converted to ASCII with the domain in lower case). An unknown
// type or hook, a type name missing (or given for a global handler) and a
// priority that is not a decimal number are refused before anything
// changes: the message on zarnet::uerr, the help block, exit status 1.
// Success prints nothing and exits 0; a store failure exits 1 after the
// store's own message. "--check-handler" answers with its exit status
// alone: 0 the handler exists, 1 it does not.
#ifndef MAILTEND_MAILTEND_HANDLERCOMMANDS_H
#define MAILTEND_MAILTEND_HANDLERCOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int addHandler(int argc, char **argv);
int updateHandler(int argc, char **argv);
int removeHandler(int argc, char **argv);
int disableHandler(int argc, char **argv);
int enableHandler(int argc, char **argv);
int checkHandler(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
