// The mail authentication database: where it lives, its schema, creation,
// ownership and server-style detection.
//
// The location depends on the server style: 0 keeps it under the panel's own
// tree, 1 under the Postfix spool. The dispatcher selects style 1 before every
// command; until then style 0 applies.
//
// Procedural style: 0 (or the detected style) on success, -1 on failure after
// a zarnet_log report; nothing throws. The mail servers keep the file open, so
// it is only ever changed in place; mailAuthDBInit alone deletes it.
#ifndef MAILTEND_MAIL_AUTH_MAIL_DATABASE_H
#define MAILTEND_MAIL_AUTH_MAIL_DATABASE_H

#include <sqlite3.h>
#include <sys/types.h>

// The current database path; never null.
extern const char *mailAuthDB;

// Sets mailAuthDB for style 0 or 1; any other style leaves it unchanged.
void mailAuthDBSelectStyle(int style);

// Deletes the database at mailAuthDB (creating its directory chain, mode
// 0755) and creates it again with the schema and no rows.
int mailAuthDBInit();

// Owner, group and modes of the database directory and of the file.
int mailAuthDBSetAccess(uid_t owner, gid_t group, mode_t dir_mode, mode_t file_mode);

// Selects the style, re-creates the database and sets the style's access:
// style 1 belongs to the "postfix" account with 0770/0460, others to root
// with 0750/0600.
int mailAuthDBInitStyle(int style);

// 1 for a Postfix server, 0 for qmail, -1 when the program's own feature
// report ("<PRODUCT_ROOT_D>/admin/sbin/mailtend --features") does not tell.
int mailAuthDBDetectStyle();

// Test hook: points mailAuthDB at path (copied); null restores style 0.
// Production code never calls it.
void mailAuthDBSetPathForTesting(const char *path);

// Database calls shared with the record functions. Each repeats its call
// while SQLite answers busy (and, except for close, locked), pausing 10
// microseconds more after each attempt, for at most 5 seconds: then it logs
// at level 3 "Mail authentication database <path> stayed locked for 5
// seconds, giving up" and returns SQLite's busy answer. A failed pause ends
// the loop with SQLITE_ERROR.

// sqlite3_exec without callback; *errmsg as sqlite3_exec leaves it (null or
// sqlite3_malloc'ed text of the last attempt; errmsg may be null). A
// transaction the script itself opened is rolled back before a repeat; one
// the caller holds is kept.
int mailAuthDBExec(sqlite3 *db, const char *sql, char **errmsg);
// sqlite3_prepare_v2 of the whole text (reading the schema can be busy).
int mailAuthDBPrepare(sqlite3 *db, const char *sql, sqlite3_stmt **stmt);
// sqlite3_step, resetting the statement before each repeat.
int mailAuthDBStep(sqlite3_stmt *stmt);
// sqlite3_close; a null handle is SQLITE_OK.
int mailAuthDBClose(sqlite3 *db);

// Opens mailAuthDB with the given sqlite3_open_v2 flags and the 50 ms busy
// timeout. On failure logs at level 3 format (which takes the path and the
// error text, "general DB errror" without a handle) and returns null.
sqlite3 *mailAuthDBOpen(int flags, const char *format);

#endif
