// Commands that change or report server-wide mail settings.
//
// The feature report is PHP source the panel evaluates: one assignment to
// $features per line, "true"/"false" bare and every other value quoted.
//
// Commands that change main.cf then ask the mail server to reload; whether
// that worked (it cannot while the server is stopped) does not change their
// exit status, since the change itself is made.
#ifndef MAILTEND_MAILTEND_SERVEROPTIONSCOMMANDS_H
#define MAILTEND_MAILTEND_SERVEROPTIONSCOMMANDS_H

#include <cstddef>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int printFeatures(int argc, char **argv);
int getMaxLetterSize(int argc, char **argv);
int getMailboxLimit(int argc, char **argv);
int addBadMailFrom(int argc, char **argv);
int removeBadMailFrom(int argc, char **argv);
int setMaxLetterSize(int argc, char **argv);
int setAccountsFormat(int argc, char **argv);
int addWhiteList(int argc, char **argv);
int removeWhiteList(int argc, char **argv);
int updateSPF(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

void print_feature(const char *name, const char *value);
// pairs holds count key/value pairs: key0, value0, key1, value1, ...
void print_feature_array(const char *name, std::size_t count, const char *const *pairs);

#endif
