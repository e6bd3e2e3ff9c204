// The ".qmail" delivery file of a mailname home: its path, its reset and the
// switch for delivery into the Maildir.
//
// The local delivery agent reads the file while it is edited, so it is only
// ever replaced whole: the reset writes a temporary file beside it and
// renames it into place, the other edits go through file_str. After every
// successful change the file belongs to "popuser" and its group with mode
// 0600, set on a descriptor that never follows a symbolic link. The edits
// refuse a ".qmail" that is a symbolic link (errno ELOOP) or not a regular
// file (EINVAL; a FIFO would stall the edit): the home belongs to the mailbox
// owner, and root must not edit or give away what such a link points at.
// The reset replaces either by a file of its own.
//
// Every function returns 0 on success and -1 on failure after reporting
// through messlog2 (status 0), with errno saying why. A failed edit leaves
// the previous file in place.
#ifndef MAILTEND_MAIL_STORAGE_MAILNAME_DELIVERY_H
#define MAILTEND_MAIL_STORAGE_MAILNAME_DELIVERY_H

#include <cstddef>

// The size of the buffers callers give the path functions.
constexpr size_t DOTQMAIL_PATH_SIZE = 4096;

// "ROOT/DOMAIN/MAILNAME/.qmail" and "ROOT/DOMAIN/MAILNAME", ROOT being the
// mail-names root and DOMAIN the lower-cased ASCII form of domain. The
// mailname must begin with a letter, a digit, "_" or "-"; neither name may
// contain "/". On failure buf holds "" (when size allows).
int get_dotqmail_path(char *buf, size_t size, const char *mailname, const char *domain);
int get_mailhome_path(char *buf, size_t size, const char *mailname, const char *domain);

// Replaces the file by one holding the single line "| true".
int dotqmail_reset(const char *path);
// Puts "| /usr/bin/deliverquota ./Maildir" once, as the first line, and
// drops plain "./Maildir/" delivery. The file must exist.
int dotqmail_add_delivery(const char *path);
// Drops both Maildir delivery lines. The file must exist.
int dotqmail_remove_delivery(const char *path);

// The same on the file of mailname at domain.
int add_mailname_delivery(const char *mailname, const char *domain);
int remove_mailname_delivery(const char *mailname, const char *domain);

// For the edits of this file: -1 with errno ELOOP, and nothing reported,
// when path is a symbolic link; -1 with errno EINVAL after "Unable to open
// file PATH: not a regular file" when it is a FIFO or anything else that is
// not a regular file; 0 otherwise, a missing path included.
int dotqmail_refuse_special(const char *path);
// Gives the file at path to popuser, its group and mode 0600; refuses
// anything but a regular file with a single link.
int dotqmail_set_owner(const char *path);
// The same on an open descriptor; path names it in messages.
int dotqmail_set_owner_fd(int fd, const char *path);

// Report through messlog2 (status 0) and return -1 leaving errno = code.
// dotqmail_fail shows code's text after the message (when code is not 0);
// dotqmail_refuse, for failures that are no system call's, does not.
int dotqmail_fail(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));
int dotqmail_refuse(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));

#endif
