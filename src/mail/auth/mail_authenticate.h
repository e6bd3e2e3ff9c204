// Records of the mail authentication database, the password handed over in
// the environment, and the spreading of a change over the domain aliases and
// mail aliases the panel lists.
//
// Every change runs in a transaction on the database at mailAuthDB: its
// own, opened and committed before the function returns, or the one in
// progress (a spreading function's), which it joins; while a MailAuthCommand
// lives it is kept for that instead. Either all rows of a call change or
// none. Bound parameters only; statements are finalised and handles closed
// before the return of 0, or -1 after one zarnet_log report at level 3 per
// failing layer (a MailAuthCommand's handle lives as long as it).
// Names are NUL-terminated: mailname = local part, domain = ASCII domain
// name.
#ifndef MAILTEND_MAIL_AUTH_MAIL_AUTHENTICATE_H
#define MAILTEND_MAIL_AUTH_MAIL_AUTHENTICATE_H

#include <sqlite3.h>

// Password flags of mailAuthSet and mailAuthClone; the walks hand the same
// bits to their callback.
enum {
    MAIL_AUTH_ENCRYPTED = 1,       // stored in cmusaslsecretPLAIN, else userPassword
    MAIL_AUTH_USER_DISABLED = 2,   // user status 1
    MAIL_AUTH_DOMAIN_DISABLED = 4, // status 1 of a domain row created by the store
};

// getDomainId flag: look the domain up, never create it.
const unsigned char MAIL_AUTH_NO_CREATE = 8;

// The id of domain's row in the database open in *db. A missing row is
// created (status 1 when flags is non-zero) unless MAIL_AUTH_NO_CREATE is
// set, when -1 is returned without a report. On a database failure the
// handle is closed, *db becomes null and -1 is returned.
sqlite3_int64 getDomainId(const char *domain, sqlite3 **db, unsigned char flags);

// Stores the user, replacing its row (and its id); creates the domain.
int mailAuthSet(const char *mailname, const char *domain, const char *password, int flags);
// Removing from a domain without a row succeeds.
int mailAuthRemove(const char *mailname, const char *domain);
int mailAuthRename(const char *old_mailname, const char *new_mailname, const char *domain);
// Stores the source user's password, status and domain status under the
// target name; a missing source user or domain gives 0 and writes nothing.
int mailAuthClone(const char *src_mailname, const char *src_domain, const char *dst_mailname,
                  const char *dst_domain);

int setDomainStatus(const char *domain, int status);
int mailAuthEnableDomain(const char *domain);
int mailAuthDisableDomain(const char *domain);
int mailAuthRenameDomain(const char *old_domain, const char *new_domain);
// The domain's users go with it.
int mailAuthRemoveDomain(const char *domain);

// Read-only walks. The callback gets "mailname@domain", the password (the
// encrypted one when stored, else the plain one) and the flag bits above.
typedef void (*mailAuthCallback)(const char *address, const char *password, int flags,
                                 void *data);
// One full address; no such user, or one without any password, is -1.
int mailAuthCheck(const char *address, mailAuthCallback callback, void *data);
// The mailname in every domain.
int mailAuthCheckShort(const char *mailname, mailAuthCallback callback, void *data);
// Every user, ordered by domain and mailname.
int mailAuthIterateAll(mailAuthCallback callback, void *data);

// The password the panel put in the environment: ZRN_PASSWORD (kind 0,
// plain) before ZRN_CRYPTED_PASSWORD (kind 1). The variable used is removed;
// the text stays valid for the process. -1 when neither holds a value.
int get_env_password(const char **password, int *kind);
// ZRN_PASSWORD (removed), kept in a process-wide buffer; "" when unset.
const char *get_env_noncrypted_password();
// An MD5-crypt form of ZRN_PASSWORD, else ZRN_CRYPTED_PASSWORD as it is;
// both variables are removed. Kept in a process-wide buffer; "" when crypt
// fails.
const char *get_env_crypted_password();

// Spreading functions: -1 on failure (stopping at the first failing item),
// 0 when a panel list came back empty, 1 when a list was walked. Each reads
// the panel's lists first, then changes every row in one transaction: a
// failure leaves the database as it was.

// Empty or null password: removes the user; otherwise stores it. 0 or -1.
int set_postbox_passwd(const char *mailname, const char *domain, const char *password, int flags);
// In the domain and each of its domain aliases.
int set_passwd_for_domains(const char *mailname, const char *domain, const char *password,
                           int flags);
// For the mailname and each of its mail aliases, in the domain and its aliases.
int set_mass_postbox_passwd(const char *mailname, const char *domain, const char *password,
                            int flags);
int rm_mname_from_domains(const char *mailname, const char *domain);
// The mailname and its mail aliases, from the domain and its aliases.
int rm_mails_from_domains(const char *mailname, const char *domain);
// action (mailAuthRemoveDomain, mailAuthEnableDomain or mailAuthDisableDomain)
// on the domain and each domain alias, joining the transaction; action_text
// names it in reports.
int domain_auth_action(const char *domain, int (*action)(const char *domain),
                       const char *action_text);
// Clones every mailname of the domain, and its mail aliases, into the alias.
int add_domain_auth_alias(const char *domain, const char *alias);
// Removes the alias's domain row and its mail aliases' records.
int rm_domain_auth_alias(const char *alias);

// All changes a command makes, stored in one transaction by commit() after
// its other steps succeeded. While one lives the functions above keep their
// changes for it (a spreading function still reads its panel lists at once).
// check() tries them in a transaction that it rolls back, so a database that
// cannot take them (unreadable, locked beyond the wait, a row refused) fails
// the command before it changes anything else. passwd.db's write lock is held
// only while such a transaction runs: never while the command waits for
// another lock or runs a program. One handle serves both transactions. A
// failure drops the changes and fails later calls; the destructor drops what
// commit() did not store. The walks do not see kept changes. One at a time.
class MailAuthCommand {
public:
    MailAuthCommand();
    ~MailAuthCommand();
    MailAuthCommand(const MailAuthCommand &) = delete;
    MailAuthCommand &operator=(const MailAuthCommand &) = delete;
    // 0 when the changes kept so far would be stored (or there are none),
    // else -1 after a report; nothing is stored.
    int check();
    // 0 when every change is stored (or none was asked), else -1; a failed
    // commit is reported and leaves nothing stored. The rows are those the
    // changes give at commit time.
    int commit();
};

#endif
