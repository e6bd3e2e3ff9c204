// The delivery instructions of a mailbox: its ".qmail" file.
//
// readDotQmail opens "<home>/.qmail" with open_regular (a link, FIFO or
// device in its place is a temporary Failure saying so; the owner may be
// replacing it), reads at most 64 KiB and checks every line before anything
// runs. A home that is a directory without the file, or a file that
// neither delivers into a Maildir nor forwards (a reset file holds only
// "| true"), refuses the mailname with 5.1.1; a missing home or any other
// error on the way is temporary (the volume may not be mounted). A line
// that needs a shell, an mbox line, a bad forward address, a Maildir
// outside the home (absolute or with "..") or a program named by a
// relative path is a temporary Failure.
//
// carryOut works through the lines in order, in the home: programs (bare
// names are looked up in /usr/bin and /bin) under the .qmail program
// conventions, the quota-enforcing delivery program (its 77 is "5.2.2
// Mailbox is full", permanent; 75 and anything else temporary), plain
// Maildir delivery (maildir.h). Forwards go in one run of the mail
// server's sendmail with the original sender just before the first copy
// is stored (without a Maildir line: after the last program), so its
// failure is a temporary Failure while nothing is stored; a later
// temporary failure forwards again on the retry, a duplicate rather than
// a loss. A program's 99 ends the work; forwards not sent yet go out only
// for the lines before it. Once a copy is stored nothing fails the run:
// a later line's failure is written to standard error and the remaining
// lines still run, since a retry would store the message again and a
// bounce would deny a delivery that happened.
#ifndef MAILTEND_TOOLS_DELIVER_DOT_QMAIL_H
#define MAILTEND_TOOLS_DELIVER_DOT_QMAIL_H

#include "tools/deliver/qmail_line.h"
#include "tools/deliver/recipient.h"
#include "tools/deliver/spool.h"

#include <string>
#include <vector>

namespace deliver {

std::vector<QmailLine> readDotQmail(const Recipient &recipient);

void carryOut(const std::vector<QmailLine> &lines, const std::string &sender,
              const Recipient &recipient, const Spool &message);

const char *const sendmail_path = "/usr/sbin/sendmail";

} // namespace deliver

#endif
