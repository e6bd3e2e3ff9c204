// The delivery instructions of a mailbox: its ".qmail" file.
//
// readDotQmail opens "<home>/.qmail" with open_regular (a link, FIFO or
// device in its place is a temporary Failure saying so; the owner may be
// replacing it), reads at most 64 KiB and checks every line before anything
// runs: a missing file, or one that neither delivers into a Maildir nor
// forwards (a reset file holds only "| true"), refuses the mailname with
// 5.1.1; a line that needs a shell, an mbox line or a bad forward address
// is a temporary Failure.
//
// carryOut works through the lines in order, in the home: programs (bare
// names are looked up in /usr/bin and /bin) under the .qmail program
// conventions, the quota-enforcing delivery program (its 77 is "5.2.2
// Mailbox is full", permanent; 75 and anything else temporary), plain
// Maildir delivery (maildir.h). A program's 99 ends the work, also for
// the forwards of later lines. Forwards go last, in one run of the mail
// server's sendmail with the original sender: every failure that can
// still be retried comes before a copy leaves. When that run fails after
// the message was stored in a mailbox, the delivery counts as done and the
// failure is logged: a retry would store the message again on every
// attempt. Without a stored copy it is a temporary Failure.
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
              const Recipient &recipient, Spool &message);

const char *const sendmail_path = "/usr/sbin/sendmail";

} // namespace deliver

#endif
