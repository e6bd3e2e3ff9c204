// The lookup tables this system keeps for the mail server, by the names
// handed to the table compiler.
#ifndef MAILTEND_MAIL_POSTFIX_LOOKUP_TABLES_H
#define MAILTEND_MAIL_POSTFIX_LOOKUP_TABLES_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace tables {

constexpr const char virtual_domains[] = "hash:/var/spool/postfix/zarnet/virtual_domains";
constexpr const char virtual_addresses[] = "hash:/var/spool/postfix/zarnet/virtual";
constexpr const char vmailbox[] = "hash:/var/spool/postfix/zarnet/vmailbox";
constexpr const char aliases[] = "hash:/var/spool/postfix/zarnet/aliases";
constexpr const char blacklists[] = "hash:/var/spool/postfix/zarnet/blacklists";
constexpr const char poplock[] = "hash:/var/spool/postfix/zarnet/poplock";

} // namespace tables
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
