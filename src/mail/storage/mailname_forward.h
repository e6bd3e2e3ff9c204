// Forwarding lines ("&" and an address) of a ".qmail" delivery file.
//
// The address's domain is stored in its ASCII (IDNA) form, the local part as
// given; an address holding a control character is refused, as it would
// split into lines of its own, and one line may run a program. Each address
// occurs once: adding one that is present moves it to the top. The file must
// exist; it is edited through file_str, a symbolic link is refused (ELOOP)
// and ownership is set as for every change of the file (mailname_delivery.h).
//
// Both return 0, or -1 after reporting through messlog2 (status 0) with
// errno saying why; a failed edit leaves the previous file in place.
#ifndef MAILTEND_MAIL_STORAGE_MAILNAME_FORWARD_H
#define MAILTEND_MAIL_STORAGE_MAILNAME_FORWARD_H

int dotqmail_add_forward(const char *path, const char *address);
int dotqmail_remove_forward(const char *path, const char *address);

#endif
