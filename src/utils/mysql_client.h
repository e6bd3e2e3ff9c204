// The panel database's client library, loaded on the first connection.
//
// Most commands never query the panel; linking the client would make every
// one of them pay for loading it and its TLS and compression libraries at
// start-up. The program is therefore not linked with it: this module defines
// the client functions the program calls (as <mysql.h> declares them), and
// each forwards to the library that mysql_client_load opened.
//
// mysql_client_load opens mysql_client_soname once per process and resolves
// every function; the outcome, success or failure, then holds for the
// process. On failure it stores "Unable to load MySQL client library: " and
// the loader's text (which names the library, and the symbol when one is
// missing). mysql_init calls it and returns null when it fails; every other
// function takes a handle or result that only a loaded library could have
// made, and aborts the process if called without one; mysql_close and
// mysql_free_result ignore null, as the library does.
#ifndef MAILTEND_UTILS_MYSQL_CLIENT_H
#define MAILTEND_UTILS_MYSQL_CLIENT_H

#include <string>

inline constexpr const char *mysql_client_soname = "libmariadb.so.3";

// true when the client functions are ready; otherwise false and, when error
// is given, the reason there.
bool mysql_client_load(std::string *error = nullptr);

// Opens soname as mysql_client_load would, resolves every function and
// closes it again: "" when all resolved, else the text mysql_client_load
// would store. For checking the failure paths without spoiling the process's
// own load.
std::string mysql_client_probe(const char *soname);

#endif
