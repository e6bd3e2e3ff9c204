// Maildir++ quotas: the "maildirsize" file that the delivery agent and the
// IMAP/POP server read, mailbox usage counting, and quotas applied per
// mailbox, per domain default and from the panel's database.
//
// "maildirsize" holds the quota line "%lldS,%lluC" and one usage line
// "%12lld%12llu" (bytes, messages); it is owned by the given ids (popuser:
// a file of root's is ignored by the delivery agent) with mode 0644, and is
// replaced atomically through a uniquely named file under "tmp". Nothing is
// locked: a delivery noticed during the count makes the file look stale
// (older than the agent's recount age), so the agent recounts.
//
// Procedural style: 1 on success, 0 on failure after a messlog2 report
// (status 0). Quotas are byte counts; a negative quota means no limit and is
// written as 0, and a quota of 0 (deliver nothing) is written as 1.
#ifndef MAILTEND_MAIL_STORAGE_MAILDIRPP_QUOTA_H
#define MAILTEND_MAIL_STORAGE_MAILDIRPP_QUOTA_H

#include <mysql.h>

#include <sys/types.h>

#include <ctime>

// Writes maildir/maildirsize with the quota as given and a fresh count. The
// working directory is restored on every way out, errno is kept as it was
// at a failure, and a failure leaves the old file untouched and no
// temporary file behind. The mailbox's owner controls the Maildir, so
// neither its last component nor its "tmp" may be a symbolic link (nor, for
// the count, any folder it reads).
int write_maildirpp_maildirsize(const char *maildir, uid_t uid, gid_t gid,
                                long long quota_bytes, unsigned long long quota_count);

// Maps the quota (negative to 0, 0 to 1) and writes with popuser's ids.
int store_maildirpp_quota_raw(const char *maildir, long long quota);

// The mailbox's quota less the size of its "@attachments".
int store_mbox_quota(const char *domain, const char *mailname, long long quota);
// The mailbox falls back to the domain's "mbox_quota" limit from the panel.
int rm_mbox_quota(const char *domain, const char *mailname);
// Writes quota to every mailbox of the domain whose panel quota is -1 (or
// unreadable); stops at the first mailbox that fails.
int store_default_mbox_quota(const char *domain, long long quota);
int rm_default_mbox_quota(const char *domain);
int store_domain_quota(const char *domain, long long quota);
int rm_domain_quota(const char *domain);

// Usage from maildir/maildirsize, or by counting when that file is missing,
// longer than 5120 bytes or malformed. 1 / 0. A Maildir that is a symbolic
// link is refused.
int get_maildirpp_usage(const char *maildir, long long *bytes, unsigned long long *count);

// Counts the Maildir in the current directory: "new" and "cur", then those
// of every folder but ".Trash". A message's size comes from ",S=<n>" in its
// name when that ends at ":" or at the end of the name, else from the file.
// *newest is raised to the newest modification time of the directories
// counted. 1 / 0.
int get_maildirpp_messages_usage(long long *bytes, unsigned long long *count,
                                 struct timespec *newest);

// The ASCII form of name escaped for a quoted MySQL string, malloc'ed for
// the caller to free; null after a report on failure.
char *mysql_escape_mail_entity(MYSQL *conn, const char *name);

// Test seams. pause stands for the 2-second wait between attempts to create
// the temporary file; after_count runs between the count and the check for
// deliveries made during it. A null set (or null member) restores the real
// behaviour. Production code never calls this.
struct maildirpp_test_hooks {
    void (*pause)(unsigned seconds);
    void (*after_count)();
};
void maildirpp_set_test_hooks_for_testing(const maildirpp_test_hooks *hooks);

#endif
