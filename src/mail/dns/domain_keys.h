// DomainKeys signing keys: one file per domain,
// "/etc/domainkeys/<domain in lower case>/default", owned by root with the
// popuser group and mode 0440, so that the signer running as popuser can
// read it and nobody can change it in place.
//
// Domain lists are texts of names separated by any run of blanks, tabs and
// commas. Procedural style: 0 or -1 after a messlog2 report; a domain that
// fails does not stop the others. A missing source key (set_domain_key) and
// a key path that cannot be formed (clone_domain_key) end the process
// through messlog2 with status 1.
#ifndef MAILTEND_MAIL_DNS_DOMAIN_KEYS_H
#define MAILTEND_MAIL_DNS_DOMAIN_KEYS_H

#include <string>
#include <vector>

// The names of a domain list, in order, empty pieces dropped. Throws
// std::bad_alloc only.
std::vector<std::string> split_domain_list(const std::string &list);

// The key file path, newly allocated with malloc (the caller frees it), or
// null for a null domain or a path that does not fit.
char *get_domainkeys_file(const char *domain);
// 1 when the domain's key file exists and is a regular file, else 0.
int domainkeys_enabled(const char *domain);

// Installs a copy of the key file src for every domain of the list. src
// must be a regular file and is read through one descriptor without
// following a link; anything else counts as missing.
int set_domain_key(const char *domains, const char *src);
// The same; when every domain got its copy, src is deleted, but only while
// its name still leads to the file that was read.
int set_domain_key_consume(const char *domains, const char *src);
// Gives every domain of the list the key of source; 0 and nothing done when
// source has no key.
int clone_domain_key(const char *source, const char *domains);
// Removes each listed domain's key directory with everything in it.
int remove_domain_key(const char *domains);

#endif
