// The autoresponder, run by the delivery agent as a before-local handler
// (context "responder") with the message on standard input and SENDER,
// RECIPIENT, LOCAL and HOST in its environment.
//
// It answers each sender once per mailbox (sent_list.h) when headers.h says
// a reply is owed. The reply text is "<home>/.autoresponder" (at most 64
// KiB, opened with open_regular; missing: a short default); the reply goes
// out with the null sender, so nothing ever answers it, through the mail
// server's sendmail by argument vector, with "Auto-Submitted:
// auto-replied" and, when the message has a Message-ID, "In-Reply-To" and
// "References". The sender is recorded before the reply is handed over:
// a sender is answered at most once, even when the hand-over fails.
//
// It always exits 0, also when it gives up after 30 seconds: a failing
// autoresponder must never bounce, defer or lose the mail it answers, nor
// hold up its delivery. Failures are written to standard error.
#include "tools/autoresponder/headers.h"
#include "tools/autoresponder/sent_list.h"
#include "utils/ProcessPipe.h"
#include "utils/fd_io.h"
#include "utils/mail_validate.h"
#include "utils/read_configuration.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

namespace autoresponder {

namespace {

const std::size_t max_headers = 262144;
const std::size_t max_text = 65536;
const char *const default_text =
    "I have received your message and will answer it as soon as I can.\n";

std::string environment(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

// A name that must stay one directory level.
std::string component(const char *name)
{
    const std::string value = environment(name);
    if (value.empty() || value == "." || value == ".." || value.find('/') != std::string::npos)
        throw std::runtime_error(std::string("bad ") + name + " in the environment");
    return value;
}

std::string readHeaderBlock(int fd)
{
    std::string text;
    char buffer[8192];
    while (text.size() < max_headers && text.find("\n\n") == std::string::npos &&
           text.find("\n\r\n") == std::string::npos) {
        const ssize_t n = fd_io::read_retry(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

std::string replyText(const std::string &path)
{
    const int fd = fd_io::open_regular(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT)
            return default_text;
        throw std::runtime_error(path + ": " + fd_io::open_error_text(errno));
    }
    std::string text;
    char buffer[8192];
    ssize_t n;
    while (text.size() < max_text && (n = fd_io::read_retry(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    fd_io::close_quietly(fd);
    text.resize(std::min(text.size(), max_text));
    if (text.empty() || text.back() != '\n')
        text += '\n';
    return text;
}

std::string compose(const Headers &headers, const std::string &sender,
                    const std::string &recipient, const std::string &text)
{
    std::string subject = clean(header(headers, "Subject"), 200);
    subject = subject.empty() ? "Automatic reply" : "Auto: " + subject;
    std::string reply = "From: " + recipient + "\nTo: " + sender + "\nSubject: " + subject +
                        "\nAuto-Submitted: auto-replied\n";
    const std::string id = clean(header(headers, "Message-ID"), 250);
    if (id.size() > 2 && id.front() == '<' && id.back() == '>' &&
        id.find_first_of(" \t") == std::string::npos)
        reply += "In-Reply-To: " + id + "\nReferences: " + id + "\n";
    reply += "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\n"
             "Content-Transfer-Encoding: 8bit\n\n";
    return reply + text;
}

void send(const std::string &sender, const std::string &reply)
{
    using namespace zarnet::process;
    Parameters<PipeProcessFlags> sendmail("/usr/sbin/sendmail",
                                          std::vector<std::string>{"-i", "-f", "", "--", sender});
    sendmail.flags.env = std::vector<std::string>{"PATH=/usr/bin:/bin"};
    sendmail.flags.closeOtherFds = true;
    Pipe pipe(sendmail);
    bool given = false;
    pipe.setInput([&](std::vector<char> &buffer) {
        if (!given)
            buffer.assign(reply.begin(), reply.end());
        given = true;
        return false;
    });
    std::string output;
    pipe.stdoutChannel().receiver = makeStringReceiver(output);
    pipe.stderrChannel().receiver = makeStringReceiver(output);
    const int status = pipe.run();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("sendmail failed: " + clean(output, 300));
}

void answer()
{
    const std::string sender = environment("SENDER"), recipient = environment("RECIPIENT");
    // The reply's From: comes from here: nothing but a plain address.
    if (!zarnet::validate::mailAddress(recipient).empty())
        throw std::runtime_error("bad RECIPIENT in the environment");
    const Headers headers = parseHeaders(readHeaderBlock(STDIN_FILENO));
    if (!replyOwed(headers, sender, recipient))
        return;
    const std::string home = std::string(zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D)) + "/" +
                             component("HOST") + "/" + component("LOCAL");
    SentList sent(home + "/.autoresponder-sent");
    if (sent.contains(sender))
        return;
    const std::string reply =
        compose(headers, sender, recipient, replyText(home + "/.autoresponder"));
    sent.add(sender);
    send(sender, reply);
}

} // namespace

} // namespace autoresponder

namespace {

void giveUp(int)
{
    ::_exit(0);
}

} // namespace

int main()
{
    std::signal(SIGALRM, giveUp);
    ::alarm(30);
    try {
        autoresponder::answer();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "autoresponder: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "autoresponder: unexpected error\n");
    }
    return 0;
}
