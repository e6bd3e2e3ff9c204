// Where the mail authentication database lives.
//
// The location depends on the server style: 0 keeps it under the panel's own
// tree, 1 under the Postfix spool. The dispatcher selects style 1 before every
// command; until then style 0 applies.
#ifndef MAILTEND_MAIL_MAIL_DATABASE_H
#define MAILTEND_MAIL_MAIL_DATABASE_H

// The current database path; never null.
extern const char *mailAuthDB;

// Sets mailAuthDB for style 0 or 1; any other style leaves it unchanged.
void mailAuthDBSelectStyle(int style);

#endif
