// IDNA conversion of domain names and mail addresses (RFC 3490, GNU libidn).
//
// Every domain name that becomes a table key, a path or a database entry goes
// through toAscii first. Conversions use no libidn flags: unassigned code
// points are rejected and STD3 rules are not enforced, so the result may
// still hold characters that are unsafe in paths or shell text.
//
// ToASCII leaves an all-ASCII label exactly as given, case included; only a
// label with non-ASCII characters is lower-cased (by nameprep) and turned
// into its "xn--" form. Callers that need a canonical key must lower-case
// the result themselves.
//
// Class level (zarnet::idn): std::string in and out; a libidn failure throws
// IdnaError carrying libidn's code, a success without a result throws
// std::bad_alloc.
//
// Procedural level: C strings in, malloc'ed results out, owned and freed (with
// free()) by the caller. A failure returns null and leaves the code in
// idn_errno; libidn running out of memory ends the process with exit status 1
// ("Allocation failed"). The _safe variants never return null: any failure
// ends the process with exit status 1 after "NAME(INPUT) failed: TEXT".
// Inputs must not be null.
#ifndef MAILTEND_UTILS_IDN_H
#define MAILTEND_UTILS_IDN_H

#include <exception>
#include <string>

namespace zarnet {
namespace idn {

class IdnaError : public std::exception {
public:
    explicit IdnaError(int code) noexcept : code_(code) {}

    int code() const noexcept { return code_; }
    // The text of idn_strerror for the code; static storage, never null.
    const char *what() const noexcept override;

private:
    int code_;
};

std::string toAscii(const std::string &name);
std::string toUtf8(const std::string &name);

// Converts only what follows the first "@"; the local part is kept byte for
// byte. A text without "@" comes back unchanged.
std::string emailToAscii(const std::string &address);

} // namespace idn
} // namespace zarnet

// libidn code of the last failed procedural conversion; -1 when
// idn_email_toascii found no "@" (its text is then "Unknown error").
extern int idn_errno;

char *idn_toascii(const char *name);
char *idn_toutf8(const char *name);
// Null when the address has no "@" or its domain does not convert.
char *idn_email_toascii(const char *address);

char *idn_toascii_safe(const char *name);
char *idn_toutf8_safe(const char *name);
char *idn_email_toascii_safe(const char *address);

// Converts the host part of "[scheme://][user@]host[rest]", where rest
// starts at the first ":", "/", "?" or "#" after the host. The result lives
// in a static buffer overwritten by the next call (not reentrant); null on
// failure, reported through zarnet_log at level 3.
const char *idn_url_toascii(const char *url);

// Text for a libidn result code; static storage, never null.
const char *idn_strerror(int code);

#endif
