// Accounts: the mailbox owner popuser and group memberships, added through
// the system's own account tools by argument vector. Existing accounts and
// their ids are used as they are. Failures throw (SystemError for lookups,
// std::runtime_error for a tool that failed).
#ifndef MAILTEND_TOOLS_SETUP_ACCOUNTS_H
#define MAILTEND_TOOLS_SETUP_ACCOUNTS_H

#include <sys/types.h>

#include <string>

namespace zarnet {
namespace setup {

// Group popuser and the system account popuser (that group, home the
// mail-names root, no login shell), each when missing.
void ensurePopuserAccount(const std::string &home);
// user in the group gid, as its primary group or a supplementary one.
void ensureGroupMember(const std::string &user, gid_t gid);

} // namespace setup
} // namespace zarnet

#endif
