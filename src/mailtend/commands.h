// The command handlers, one source file per command family; the command
// table (command_table.cpp) declares each command's words, texts and
// options and names its handler here.
//
// A handler gets the values standardOptionsParse accepted and returns the
// exit status. It converts names before any change (a conversion failure
// throws and ends the run through main), then calls the lower layers in
// order; failures it reports itself return 1.
#ifndef MAILTEND_MAILTEND_COMMANDS_H
#define MAILTEND_MAILTEND_COMMANDS_H

#include "mailtend/Command.h"

#include <cstddef>
#include <string>

class MailAuthCommand;

namespace zarnet::mail::postfix::mailtend_commands {

// The logins were changed in a transaction left open while the tables and
// the store changed; only its commit can fail after those, and then the
// output says what was left done: "The WHAT of SUBJECT was done, but its
// logins were not changed". 0, or 1 after that report.
int commitLogins(MailAuthCommand &auth, const char *what, const std::string &subject);

// MailnameCommands.cpp: one mailname, its aliases, its mailbox and password.
// Passwords come only from the environment (ZRN_PASSWORD, else
// ZRN_CRYPTED_PASSWORD); the variable used is removed once read. Login
// changes of one command commit together, after its other changes.
int addMailname(const Args &args);
int removeMailname(const Args &args);
int renameMailname(const Args &args);
int addAlias(const Args &args);
int removeAlias(const Args &args);
int addMailbox(const Args &args);
int removeMailbox(const Args &args);
int setPassword(const Args &args);

// MailnameOptionsCommands.cpp: one mailname's quota, size, redirects and
// autoresponder.
int getMailboxSize(const Args &args);
int setMailboxDiskQuota(const Args &args);
int addRedirect(const Args &args);
int removeRedirect(const Args &args);
int addAutoresponder(const Args &args);
int removeAutoresponder(const Args &args);

// DomainCommands.cpp: mail domains and domain aliases. A domain's logins
// change first; when that fails the command exits 1 and nothing else
// changes. Handler and DomainKey failures are warnings and do not change the
// exit status. The alias commands end with the not-existing-mail group.
int addDomain(const Args &args);
int removeDomain(const Args &args);
int enableDomain(const Args &args);
int disableDomain(const Args &args);
int setBounce(const Args &args);
int setCatchAll(const Args &args);
int setReject(const Args &args);
int removeReject(const Args &args);
int addDomainAlias(const Args &args);
int removeDomainAlias(const Args &args);
int renameDomainAlias(const Args &args);
// Applies the group's bounce or catch-all (MissingMandatoryOption without an
// address) to alias, or for reject drops the alias's "@" record: 0. Without
// any of the three switches it logs why and returns 1.
int processNotexistingMailnamesOptions(const Args &args, const std::string &alias);

// DomainOptionsCommands.cpp: settings of a whole mail domain.
int setDomainDiskQuota(const Args &args);
int setDomainKey(const Args &args);
int removeDomainKey(const Args &args);

// ServerOptionsCommands.cpp: server-wide settings. Commands that change
// main.cf then ask the mail server to reload; whether that worked (it cannot
// while the server is stopped) does not change their exit status.
// A letter size or relay network that would stop the server taking mail or
// open it as a relay is an option error (zarnet::validate::letterSize and
// network; a size needing more room than the queue file system has free).
// A DNS black-list zone that is not a host name of at least two labels is
// an option error too.
int printFeatures(const Args &args);
int getMaxLetterSize(const Args &args);
int getMailboxLimit(const Args &args);
int addBadMailFrom(const Args &args);
int removeBadMailFrom(const Args &args);
int setMaxLetterSize(const Args &args);
int setAccountsFormat(const Args &args);
int addWhiteList(const Args &args);
int removeWhiteList(const Args &args);
int setMailParams(const Args &args);
int setMapsProtection(const Args &args);
int updateSPF(const Args &args);

// AttachmentCommands.cpp: the attachment files of a mailname.
int listAttachments(const Args &args);
int addAttachment(const Args &args);
int removeAttachment(const Args &args);

// HandlerCommands.cpp: the mail-handler store. Every command names a handler
// by its template ("handler-name"), type, hook and, except for global
// handlers, its type name (an address or a domain, converted to ASCII with
// the domain in lower case). An unknown type or hook, a type name missing (or
// given for a global handler) or not an address (a domain for the domain
// types), a priority that is not a decimal number of at most nine digits, a
// template of other characters than letters, digits, ".", "_" and "-" and an
// executable that is not an absolute path to an executable file (a missing
// one is the store's to report) are option errors. Success prints nothing and exits 0; a store failure exits 1
// after the store's own message. "--check-handler" answers with its exit
// status alone: 0 the handler exists, 1 it does not.
int addHandler(const Args &args);
int updateHandler(const Args &args);
int removeHandler(const Args &args);
int disableHandler(const Args &args);
int enableHandler(const Args &args);
int checkHandler(const Args &args);

// ServiceCommands.cpp: the mail services. The component commands act on
// the selected "mail-component"s (all when none is given) group by group:
// the mail server, its listening services in master.cf, the POP3/IMAP
// servers; a failing group makes the exit status 1 and the next group still
// runs. A failure to start, stop or restart the mail server is reported as
// main reports it; other exceptions end the run through main. A change of
// the listening services is reloaded into a running server. The status
// command prints "NAME is running|stopped" lines and exits 0.
int startService(const Args &args);
int stopService(const Args &args);
int restartService(const Args &args);
int reloadService(const Args &args);
int statusService(const Args &args);
// The obsolete one-word service commands. Status commands print one status
// line and always exit 0; the module commands exit 0 and the others with the
// status of what they ran.
int startSMTPD(const Args &args);
int stopSMTPD(const Args &args);
int restartSMTPD(const Args &args);
int enableSubmission(const Args &args);
int disableSubmission(const Args &args);
int statusMTA(const Args &args);
int startMTA(const Args &args);
int stopMTA(const Args &args);
int startIMAP(const Args &args);
int stopIMAP(const Args &args);
int restartIMAP(const Args &args);
int statusIMAP(const Args &args);

} // namespace zarnet::mail::postfix::mailtend_commands

// usage.cpp: the help commands print their text and exit 0.
int usageShortCmd(const zarnet::mail::postfix::mailtend_commands::Args &args);
int usageCommandsCmd(const zarnet::mail::postfix::mailtend_commands::Args &args);
int usageLegacyCmd(const zarnet::mail::postfix::mailtend_commands::Args &args);

// ServerOptionsCommands.cpp: one line of the feature report, PHP source the
// panel evaluates: "true"/"false" bare, every other value quoted.
void print_feature(const char *name, const char *value);
// pairs holds count key/value pairs: key0, value0, key1, value1, ...
void print_feature_array(const char *name, std::size_t count, const char *const *pairs);

#endif
