// Acceptance checks for names and values that reach tables, paths and
// configuration files.
//
// mail_validate returns 1 when the name is acceptable for the given check
// type and 0 when it is not; an unknown type is logged (level 6) and gives 0.
// A null name is never acceptable. Nothing is owned or kept.
//
// The zarnet::validate functions check one kind of value each. They return
// the empty string for an acceptable value, else the reason it was refused:
// a short phrase ("empty label") that callers put after the value in their
// message. They keep no state, read no files and never throw, except
// domainName, which throws zarnet::idn::IdnaError when a non-ASCII name does
// not convert.
#ifndef MAILTEND_UTILS_MAIL_VALIDATE_H
#define MAILTEND_UTILS_MAIL_VALIDATE_H

#include <cstddef>
#include <cstdint>
#include <string>

typedef int validation_type;

// The mailname check: the name must not contain "..", which would let it
// climb out of the domain directory.
const validation_type VALIDATE_MAILNAME = 0;

int mail_validate(const char *name, validation_type type);

namespace zarnet::validate {

const std::size_t max_label = 63;
const std::size_t max_domain = 253;
const std::size_t max_local_part = 64;
const std::size_t max_address = 254;
// Postfix bounces mail to itself: a limit below what every server must
// accept would lose those notices and most mail.
const int64_t min_letter_size = 65536;

// A host name in ASCII: dot-separated labels of letters, digits and
// hyphens, no label empty, longer than max_label or with a hyphen at either
// end, max_domain characters in all.
std::string hostName(const std::string &ascii);

// A domain as the panel gives it: an all-ASCII name is checked as it stands;
// any other name is converted to its ASCII form first, which must then be
// a host name. No control character passes either way.
std::string domainName(const std::string &name);

// A mailname: the local part of the mail addresses of one mailbox. Letters,
// digits, the other characters a dot-atom allows and UTF-8 text, at most
// max_local_part bytes; no "@", blank or control character, and no first
// character that a delivery file reads as a program, file or comment line.
// Dots and slashes are left to the path checks of the mailname commands,
// and an empty name to the commands themselves.
std::string mailname(const std::string &name);

// A mail address: a non-empty mailname, one "@" and a domain (domainName),
// max_address characters in all; the local part must not begin with ".".
std::string mailAddress(const std::string &address);

// One line of free text, at most max bytes: no control character.
std::string lineText(const std::string &text, std::size_t max);

// A plain IPv4 or IPv6 address as text: no brackets, prefix or blanks.
std::string ipAddress(const std::string &text);

// The network address/prefix. The prefix must fit the family. A network to
// be trusted as a relay client must also have no host bits set (the reason
// names the network that was probably meant) and be no wider than the
// widest private range of its family (/8 for IPv4, fc00::/7 for IPv6).
std::string network(const std::string &address, unsigned prefix, bool trusted);

// A message size limit for Postfix: 0 (no limit) or at least
// min_letter_size, and not above a non-zero mailbox size limit: local
// delivery refuses to run with a smaller mailbox limit.
std::string letterSize(int64_t size, int64_t mailboxLimit);

} // namespace zarnet::validate

#endif
