// mailtend-deliver SENDER RECIPIENT: local delivery of one message.
//
// The mail server's pipe transport runs it as popuser, one recipient per
// run, with the message on standard input and SENDER empty for the null
// sender. Order of the work, so that nothing is done before the mailname is
// known to take mail and every retryable failure comes before a copy
// leaves: check the recipient, spool the message, read and check the
// mailbox's .qmail, run the before-local handlers, then carry out the
// .qmail lines (dot_qmail.h).
//
// Exit 0: delivered (or taken by a handler). Otherwise one line beginning
// with an enhanced status code goes to standard output: EX_TEMPFAIL with
// 4.3.0 for anything the server should retry (a bad store, an I/O error, a
// program that crashed or hung), EX_NOUSER with 5.1.x for an address that
// takes no mail, EX_UNAVAILABLE for a full mailbox (5.2.2) or a refusal by a
// handler or .qmail program. Nothing unexpected ends in a silent loss.
#include "tools/deliver/before_local.h"
#include "tools/deliver/dot_qmail.h"
#include "tools/deliver/outcome.h"
#include "tools/deliver/recipient.h"
#include "tools/deliver/spool.h"
#include "utils/liblog.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace deliver {

namespace {
std::vector<std::string> g_notes;
}

void note(const std::string &line)
{
    g_notes.push_back(line);
}

void writeNotes()
{
    for (const std::string &line : g_notes)
        std::fprintf(stderr, "%s\n", line.c_str());
    g_notes.clear();
}

namespace {

int run(int argc, char **argv)
{
    if (argc != 3)
        throw temporary("usage: mailtend-deliver SENDER RECIPIENT");
    const std::string sender = argv[1];
    const Recipient recipient = parseRecipient(argv[2]);
    Spool message(STDIN_FILENO);
    const std::vector<QmailLine> lines = readDotQmail(recipient);
    if (runBeforeLocal(sender, recipient, message) == Verdict::Stop)
        return 0;
    carryOut(lines, sender, recipient, message);
    return 0;
}

int fail(int status, const std::string &line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    writeNotes();
    return status;
}

} // namespace

} // namespace deliver

int main(int argc, char **argv)
{
    // The store's own reports belong in the mail log, not in the text the
    // transport puts into a notice.
    zarnet_log_init(nullptr, 6, LOG_MAIL, LOG_PID, "mailtend-deliver");
    try {
        const int status = deliver::run(argc, argv);
        deliver::writeNotes();
        return status;
    } catch (const deliver::Failure &f) {
        return deliver::fail(f.status(), f.what());
    } catch (const std::exception &e) {
        return deliver::fail(EX_TEMPFAIL, std::string("4.3.0 ") + e.what());
    } catch (...) {
        return deliver::fail(EX_TEMPFAIL, "4.3.0 unexpected error");
    }
}
