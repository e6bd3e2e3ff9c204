// The header block of a message and the autoresponder's decision on it
// (pure: no file, no process).
//
// parseHeaders reads up to the first empty line, unfolds continuation
// lines and keeps (name, value) pairs in order; names compare
// case-insensitively. A reply is owed only when all of these hold:
//   - the sender is not empty, is a plain mail address, and its local part
//     is not that of a mail system or list robot (mailer-daemon,
//     postmaster, noreply, owner-..., ...-request, ...);
//   - "Auto-Submitted" is absent or "no"; "Precedence" is not bulk, list or
//     junk; there is no "List-Id" or "List-Unsubscribe";
//   - "To" or "Cc" names the recipient, or the original recipient the mail
//     server recorded in the first "X-Original-To" (mail to an alias).
// Bcc'd copies and list traffic thus get no answer.
#ifndef MAILTEND_TOOLS_AUTORESPONDER_HEADERS_H
#define MAILTEND_TOOLS_AUTORESPONDER_HEADERS_H

#include <string>
#include <utility>
#include <vector>

namespace autoresponder {

typedef std::vector<std::pair<std::string, std::string>> Headers;

Headers parseHeaders(const std::string &text);
// The first header of that name, blanks trimmed; empty when there is none.
std::string header(const Headers &headers, const std::string &name);

bool replyOwed(const Headers &headers, const std::string &sender, const std::string &recipient);

// Header text safe to copy into the reply: control characters dropped, at
// most max bytes.
std::string clean(const std::string &value, std::size_t max);

} // namespace autoresponder

#endif
