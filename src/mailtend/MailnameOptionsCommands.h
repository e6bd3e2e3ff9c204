// Commands on one mailname's quota, size, redirects and autoresponder.
#ifndef MAILTEND_MAILTEND_MAILNAMEOPTIONSCOMMANDS_H
#define MAILTEND_MAILTEND_MAILNAMEOPTIONSCOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int getMailboxSize(int argc, char **argv);
int setMailboxDiskQuota(int argc, char **argv);
int addRedirect(int argc, char **argv);
int removeRedirect(int argc, char **argv);
// Both take lists joined by ", " in --domain-name and --mailname: every
// mailname at every domain.
int addAutoresponder(int argc, char **argv);
int removeAutoresponder(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
