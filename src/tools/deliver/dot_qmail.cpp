#include "tools/deliver/dot_qmail.h"

#include "tools/deliver/maildir.h"
#include "tools/deliver/outcome.h"
#include "tools/deliver/run_program.h"
#include "utils/fd_io.h"
#include "utils/mail_validate.h"
#include "utils/text_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace deliver {

namespace {

const std::size_t max_dot_qmail = 65536;

std::string readFile(const std::string &home, const std::string &path)
{
    const int fd = fd_io::open_regular(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        // Only a home that is there without its .qmail refuses the mail: a
        // missing home may be a volume that is not mounted yet.
        if (err == ENOENT) {
            struct stat st;
            if (::lstat(home.c_str(), &st) != 0)
                throw temporary("mailbox home " + home + " not found: " + std::strerror(errno));
            if (S_ISDIR(st.st_mode))
                throw noSuchUser("Mailbox does not exist");
            throw temporary("mailbox home " + home + " is not a directory");
        }
        throw temporary(path + " not opened: " +
                        (err == ELOOP ? "it is a symbolic link" : fd_io::open_error_text(err)));
    }
    std::string text;
    char buffer[8192];
    ssize_t n;
    while ((n = fd_io::read_retry(fd, buffer, sizeof buffer)) > 0 && text.size() <= max_dot_qmail)
        text.append(buffer, static_cast<size_t>(n));
    const int saved = errno;
    fd_io::close_quietly(fd);
    if (n < 0)
        throw temporary(path + " not read: " + std::strerror(saved));
    if (text.size() > max_dot_qmail)
        throw temporary(path + " is too long");
    return text;
}

std::vector<std::string> baseEnvironment(const std::string &sender, const Recipient &r)
{
    return {safePath, "HOME=" + r.home, "SENDER=" + sender, "RECIPIENT=" + r.address,
            "LOCAL=" + r.mailname, "HOST=" + r.domain};
}

std::string findProgram(const std::string &word)
{
    if (word[0] == '/')
        return word;
    for (const char *dir : {"/usr/bin/", "/bin/"})
        if (::access((dir + word).c_str(), X_OK) == 0)
            return dir + word;
    throw temporary(".qmail program " + word + " not found");
}

ProgramResult runLine(const QmailLine &line, const std::string &sender, const Recipient &r,
                      const Spool &message)
{
    ProgramRun run;
    run.path = findProgram(line.words[0]);
    run.args.assign(line.words.begin() + 1, line.words.end());
    run.env = baseEnvironment(sender, r);
    run.cwd = r.home;
    const zarnet::process::FdOwner input = message.open();
    run.input = input.get();
    return runProgram(run);
}

void quotaDelivery(const QmailLine &line, const std::string &sender, const Recipient &r,
                   const Spool &message)
{
    const ProgramResult result = runLine(line, sender, r, message);
    if (result.exitCode == 0)
        return;
    if (result.exitCode == 77)
        throw Failure(EX_UNAVAILABLE, "5.2.2 Mailbox is full");
    throw temporary("Maildir delivery failed" +
                    (result.firstLine.empty() ? std::string() : ": " + result.firstLine));
}

void forward(const std::vector<std::string> &addresses, const std::string &sender,
             const Recipient &r, const Spool &message)
{
    if (addresses.empty())
        return;
    ProgramRun run;
    run.path = sendmail_path;
    // An empty -f argument is the null sender, so a forwarded notice is not
    // answered either.
    run.args = {"-i", "-f", sender, "--"};
    run.args.insert(run.args.end(), addresses.begin(), addresses.end());
    run.env = {safePath};
    run.cwd = "/";
    const zarnet::process::FdOwner input = message.open();
    run.input = input.get();
    const ProgramResult result = runProgram(run);
    if (!result.timedOut && !result.signalled && result.exitCode == 0)
        return;
    throw temporary("forwarding mail for " + r.address + " failed" +
                    (result.firstLine.empty() ? std::string() : ": " + result.firstLine));
}

} // namespace

std::vector<QmailLine> readDotQmail(const Recipient &recipient)
{
    const std::string path = recipient.home + "/.qmail";
    const std::string text = readFile(recipient.home, path);
    std::vector<QmailLine> lines;
    bool delivers = false;
    for (const std::string &raw : zarnet::splitLines(text)) {
        QmailLine line = classifyQmailLine(raw);
        switch (line.kind) {
        case QmailLine::Ignore:
            continue;
        case QmailLine::Unrunnable:
            note("mailtend-deliver: " + path + ": not run, the line needs a shell: " + raw);
            throw temporary(path + " holds a line that needs a shell");
        case QmailLine::Unsupported:
            throw temporary(path + " holds an unsupported line");
        case QmailLine::Forward: {
            std::string bad;
            try {
                bad = zarnet::validate::mailAddress(line.target);
            } catch (const std::exception &e) {
                bad = e.what();
            }
            if (!bad.empty())
                throw temporary(path + " forwards to a bad address");
            delivers = true;
            break;
        }
        case QmailLine::Maildir:
            if (!staysInHome(line.target))
                throw temporary(path + " delivers to a Maildir outside the mailbox home: " +
                                line.target);
            delivers = true;
            break;
        case QmailLine::QuotaMaildir:
            delivers = true;
            break;
        case QmailLine::Program:
            if (line.words[0][0] != '/' && line.words[0].find('/') != std::string::npos)
                throw temporary(path + " runs a program by a relative path: " + line.words[0]);
            break;
        }
        lines.push_back(line);
    }
    if (!delivers)
        throw noSuchUser("Mailbox is disabled");
    return lines;
}

void carryOut(const std::vector<QmailLine> &lines, const std::string &sender,
              const Recipient &recipient, const Spool &message)
{
    std::vector<std::string> all, seen;
    for (const QmailLine &line : lines)
        if (line.kind == QmailLine::Forward)
            all.push_back(line.target);
    bool forwarded = false, stored = false;
    for (const QmailLine &line : lines) {
        try {
            if (line.kind == QmailLine::Forward) {
                seen.push_back(line.target);
                continue;
            }
            if (line.kind == QmailLine::Program) {
                if (judgeProgram(runLine(line, sender, recipient, message),
                                 ".qmail program " + line.words[0]) == Verdict::Go)
                    continue;
                if (!forwarded)
                    forward(seen, sender, recipient, message);
                return;
            }
            if (!forwarded) {
                // Before the first copy is stored, so that a failure here
                // defers with nothing stored yet.
                forward(all, sender, recipient, message);
                forwarded = true;
            }
            if (line.kind == QmailLine::QuotaMaildir)
                quotaDelivery(line, sender, recipient, message);
            else
                deliverToMaildir(recipient.home, line.target, message);
            stored = true;
        } catch (const std::exception &e) {
            // A retry or a bounce now would deliver the stored copy again
            // or deny a delivery that happened.
            if (!stored)
                throw;
            note("mailtend-deliver: " + recipient.address + ": after the message was stored: " +
                 e.what());
        }
    }
    if (!forwarded)
        forward(all, sender, recipient, message);
}

} // namespace deliver
