// Commands that change settings of a whole mail domain.
#ifndef MAILTEND_MAILTEND_DOMAINOPTIONSCOMMANDS_H
#define MAILTEND_MAILTEND_DOMAINOPTIONSCOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int setDomainDiskQuota(int argc, char **argv);
int setDomainKey(int argc, char **argv);
int removeDomainKey(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
