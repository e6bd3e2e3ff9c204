// Quoting of text that ends up inside a shell command line.
//
// shell_escape_chars marks each 7-bit character: '-' is copied as is, '*' is
// preceded by a backslash, 'n' (only the line feed) is enclosed in single
// quotation marks. Bytes 128-255 are outside the table and always copied
// unchanged, so UTF-8 text keeps its bytes; they never need quoting.
//
// The characters the table leaves alone include "!", "{", "}", "=", "%" and
// control characters other than tab and line feed: the quoting is meant for
// words handed to a non-interactive sh, not for arbitrary input.
#ifndef MAILTEND_UTILS_SH_QUOTING_H
#define MAILTEND_UTILS_SH_QUOTING_H

#include <string>

extern const char shell_escape_chars[128];

// 1 when arg is null, empty or made only of characters that need no quoting;
// 0 as soon as one would need it.
int check_shell_arg_nothrow(const char *arg);

namespace zarnet {

// Returns text quoted for the shell; an empty text gives an empty result.
std::string sh_quote(const std::string &text);

// Throws std::runtime_error("Internal error: bad escape_chars value") when
// the argument would need quoting.
void check_shell_arg(const std::string &arg);

} // namespace zarnet

#endif
