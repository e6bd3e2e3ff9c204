// The files a mailname attaches to its outgoing mail: the directory
// "@attachments" in the mailname's home under the mail-names root.
//
// Domains are converted to their ASCII form (lower case) here; mailnames
// and attachment names are used as given, so callers check that they are
// single path components. "@attachments" belongs to the mailbox's owner:
// it is never followed when it is a symbolic link, and an attachment that
// is a symbolic link is replaced, not written through.
//
// Procedural style: 0, or -1 after a messlog2 report. The listings end the
// process with status 1 on a domain that does not convert or an empty
// mailname.
#ifndef MAILTEND_MAIL_STORAGE_ATTACHMENTS_H
#define MAILTEND_MAIL_STORAGE_ATTACHMENTS_H

// One line per file, sorted by name: the name (or with fullname its full
// path), a tab and its size in bytes (with in_blocks its allocated 512-byte
// blocks times 512). Nothing is printed when the directory cannot be read.
int list_attachments(const char *mailname, const char *domain, int in_blocks, int fullname);
// list_attachments for every mailname directory of the domain, in name
// order; one that fails does not stop the others, and makes the result -1.
int list_all_attachments(const char *domain, int in_blocks, int fullname);

// Copies source in as the attachment name, mode 0644. source must be a
// regular file, opened without following a link or waiting on a FIFO.
int add_attachment(const char *mailname, const char *domain, const char *source,
                   const char *name);
int remove_attachment(const char *mailname, const char *domain, const char *name);

#endif
