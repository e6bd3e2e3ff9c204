// Sizes of directory trees and whole mailboxes, for the size report and for
// the space "@attachments" takes from a mailbox quota.
//
// Links are never followed: a link counts as itself. A size is in bytes,
// or, with the block flag, in allocated 512-byte blocks times 512.
#ifndef MAILTEND_MAIL_STORAGE_MAILBOX_SIZE_H
#define MAILTEND_MAIL_STORAGE_MAILBOX_SIZE_H

// The size of a file, or of a directory with everything below it and
// itself; -1 with errno on failure. Entries that vanish meanwhile count
// nothing.
long long get_dir_size(const char *path, int block);

// The size of the mailbox mailname@domain: its "@attachments" plus its
// Maildir usage. -1 when "@attachments" cannot be measured; the other
// failures end the process through messlog2 with status 1.
long long get_mbox_size(const char *mailname, const char *domain, int block);

#endif
