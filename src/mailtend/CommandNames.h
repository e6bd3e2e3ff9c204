// Names as the command handlers hand them to the lower layers.
//
// A domain becomes its IDNA ASCII form in lower case: the conversion leaves
// all-ASCII labels exactly as typed, but table keys and directory names
// must not depend on how the panel capitalised a name. Conversion failures
// throw zarnet::idn::IdnaError.
#ifndef MAILTEND_MAILTEND_COMMANDNAMES_H
#define MAILTEND_MAILTEND_COMMANDNAMES_H

#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

std::string asciiDomain(const std::string &name);
// The domain part of an address (after its first "@") as asciiDomain gives
// it; the local part stays as given, and so does text without "@".
std::string asciiAddress(const std::string &address);

// A name that becomes one directory level of the mail store (a domain or a
// mailname) must stay one level: empty names, names holding "/" or a NUL,
// and "." and ".." throw std::invalid_argument naming the kind and the name.
// Commands that skip the mailname syntax check still run this one.
void checkPathComponent(const char *kind, const std::string &name);

// asciiDomain followed by the one-directory-level check: the form of a
// domain that will name a table key or a directory.
std::string storeDomain(const std::string &name);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
