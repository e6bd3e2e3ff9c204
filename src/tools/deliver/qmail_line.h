// What one line of a .qmail file asks for (pure: no file, no process).
//
// Lines as the mail store writes them and as a mailbox owner may add them:
//   "# ..."            comment; an empty line is ignored too
//   "| program args"   a program; the words are split at blanks, never by a
//                      shell, so a line that needs one (quotes, "$", ";",
//                      redirections, globbing, ...) is Unrunnable
//   "| /usr/bin/deliverquota ./Maildir"  the quota-enforcing Maildir delivery
//   "./Maildir/" (any path ending in "/")  plain Maildir delivery
//   "&address" (or a line starting with a letter or digit)  a forward
//   any other path     an mbox file: Unsupported
// A trailing carriage return and blanks are dropped first.
#ifndef MAILTEND_TOOLS_DELIVER_QMAIL_LINE_H
#define MAILTEND_TOOLS_DELIVER_QMAIL_LINE_H

#include <string>
#include <vector>

namespace deliver {

struct QmailLine {
    enum Kind { Ignore, Program, QuotaMaildir, Maildir, Forward, Unrunnable, Unsupported };
    Kind kind = Ignore;
    std::vector<std::string> words; // Program, QuotaMaildir: the program and its arguments
    std::string target;             // Maildir: the directory; Forward: the address
};

QmailLine classifyQmailLine(const std::string &line);

const char *const deliverquota_path = "/usr/bin/deliverquota";

} // namespace deliver

#endif
