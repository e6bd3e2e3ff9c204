// Commands on one mailname's mailbox and password.
//
// Passwords come only from the environment (ZRN_PASSWORD, else
// ZRN_CRYPTED_PASSWORD); the variable used is removed once read.
#ifndef MAILTEND_MAILTEND_MAILNAMECOMMANDS_H
#define MAILTEND_MAILTEND_MAILNAMECOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int addMailbox(int argc, char **argv);
int removeMailbox(int argc, char **argv);
int setPassword(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
