// mailtend-setup: the steps that turn a stock Postfix + Courier server into
// one driven by the tool's files. Each step looks first and changes only
// what differs, so a second run changes nothing and prints nothing. Every
// change is reported on standard output as one line "<place>: <change>":
//
//     account: added group popuser
//     account: added user popuser
//     account: added postfix to group courier
//     directory: created /var/qmail/mailnames
//     directory: /var/qmail/mailnames now root:popuser 0750
//     link: created /etc/courier-imap -> courier
//     file: created /etc/zrn/zrn.conf
//     table: created hash:/var/spool/postfix/zarnet/virtual
//     database: created /var/spool/postfix/zarnet/passwd.db
//     /etc/courier/authdaemonrc: authmodulelist="authsqlite"
//     /etc/courier/authdaemonrc: authmodulelist (repeated setting removed)
//     master.cf: added zarnet unix pipe
//     master.cf: smtp inet chroot = n
//     main.cf: virtual_transport = zarnet
//
// A step that cannot be done throws (std::exception with a message naming
// what failed); what earlier steps did stays done, and each file is replaced
// atomically, so a failed step leaves its file as it found it. Operator
// settings are kept: list parameters get elements added, settings files
// keep every line the tool does not own.
#ifndef MAILTEND_TOOLS_SETUP_SETUP_STEPS_H
#define MAILTEND_TOOLS_SETUP_SETUP_STEPS_H

#include <sys/types.h>

#include <string>

namespace zarnet {
namespace setup {

// What the later steps need from the first ones.
struct MailIds {
    uid_t popuserUid = 0;
    gid_t popuserGid = 0;
    std::string mailnamesRoot; // ZARNET_MAILNAMES_D, checked
};

// One report line on standard output, written at once.
void report(const std::string &place, const std::string &change);

// The mailbox owner's account and the tool's directories and runtime
// configuration file.
MailIds setUpAccountsAndDirectories();
// The empty lookup tables, the refused-clients table and passwd.db.
void setUpTables();
// SMTP authentication through the authentication daemon.
void setUpSasl();
// Courier's authentication on passwd.db.
void setUpCourierAuth(const MailIds &ids);
// The delivery transport and the unchrooted smtp service.
void setUpMasterCf();
// The parameters that route mail into the tool's tables and Maildirs.
void setUpMainCf(const MailIds &ids);

} // namespace setup
} // namespace zarnet

#endif
