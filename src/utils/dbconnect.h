// Procedural access to the control panel's MySQL database.
//
// The connection uses the panel administrator's credentials: user "admin",
// database "zrn" on "localhost", the password from the first line of
// "/etc/zrn/.zrn.shadow". Lists come back as null-terminated arrays of
// malloc'ed strings that the caller releases with free_array; a query that
// matched no row leaves the array null. Failures return null or -1 and are
// reported through zarnet_log at level 3 (db_connect: messlog2).
#ifndef MAILTEND_UTILS_DBCONNECT_H
#define MAILTEND_UTILS_DBCONNECT_H

#include <mysql.h>

#include <string>

// Opens a connection and sends "SET NAMES utf8"; connecting, reading and
// writing time out after a few seconds, so a stalled server is a failure
// rather than a hang. The first call loads the client library
// (utils/mysql_client.h); not finding it is a failure like any other step's.
// On failure returns null and, when error is given, stores the failing
// step's text there.
MYSQL *db_connect_nothrow(std::string *error = nullptr);

// As db_connect_nothrow, reporting a failure's text through messlog2.
MYSQL *db_connect();

// The process's connection: opened as db_connect_nothrow (or db_connect,
// with its report) opens one by the first call that finds none, then handed
// to every caller, which never closes it; closed at exit. A failed open is
// tried again by the next call. A forked child opens its own.
MYSQL *db_shared_nothrow(std::string *error = nullptr);
MYSQL *db_shared();

// Runs query on conn (or on the shared connection when conn is null) and
// appends every row's first column to *out. A NULL column is appended as the
// empty string. 0 on success, -1 on failure. The text is sent as is: every
// value in it must already be escaped on conn.
int exec_mysql_query(MYSQL *conn, const char *query, char ***out);

// Appends a copy of text to array (null: a new array); the result stays
// null-terminated. Returns the new array, or null on allocation failure (the
// old array is then still valid and owned by the caller).
char **string_to_mas(char **array, const char *text);

// Frees every string and the array; null is ignored.
void free_array(char **array);

#endif
