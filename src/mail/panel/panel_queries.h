// The panel's lists of domain aliases, mailnames and mail aliases.
//
// Every name reaches the query escaped by the client library on the open
// connection: names come from the command line and may hold quotes
// ("o'brien" is a valid local part). conn may be null: the process's shared
// connection (db_shared) is then used.
// Each returns 0 and stores a null-terminated array in *out (null when no
// row matched; release with free_array), or -1 after logging its message.
#ifndef MAILTEND_MAIL_PANEL_PANEL_QUERIES_H
#define MAILTEND_MAIL_PANEL_PANEL_QUERIES_H

#include <mysql.h>

#include <cstddef>

int get_domaliases_by_domain(MYSQL *conn, char ***out, const char *domain);
int get_mailnames_by_domain(MYSQL *conn, char ***out, const char *domain);
int get_aliases_by_mailname(MYSQL *conn, char ***out, const char *mailname,
                            const char *domain);
// The domain owning a domain alias (at most one element).
int get_domain_by_domainalias(MYSQL *conn, char ***out, const char *alias);

// Copies the value of limit `name` of the domain with panel id `dom_id` into
// out (size bytes, at least 1). 0 on success; -1 when the database fails.
// No such limit leaves out empty and returns 0.
int get_dom_Limit(const char *dom_id, const char *name, char *out, size_t size);

#endif
