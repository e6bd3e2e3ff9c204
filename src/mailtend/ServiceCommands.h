// The obsolete one-word service commands: no options are parsed and further
// arguments are ignored. Status commands print one status line and always
// exit 0; the others exit with the status of what they ran.
#ifndef MAILTEND_MAILTEND_SERVICECOMMANDS_H
#define MAILTEND_MAILTEND_SERVICECOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int statusMTA(int argc, char **argv);
int startMTA(int argc, char **argv);
int stopMTA(int argc, char **argv);
int startIMAP(int argc, char **argv);
int stopIMAP(int argc, char **argv);
int restartIMAP(int argc, char **argv);
int statusIMAP(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
