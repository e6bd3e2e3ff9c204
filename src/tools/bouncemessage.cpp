// The program a domain's bounce record pipes mail for unknown mailnames to.
//
//     bouncemessage [PHRASE...]
//
// The mail server's local delivery runs it with the message on standard
// input and the domain's phrase as its arguments (the record's quoting leaves
// one argument). It reads the message to its end, writes the phrase as one
// line and exits with EX_NOUSER: the mail server then returns the message to
// its sender with a non-delivery notice that carries this output. Writing
// that notice is left to the mail server, which already knows how to address
// it, never to answer a notice with a notice, and to retry when it cannot.
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

// The whole message is read: a delivery whose pipe breaks before the end is
// reported as a failed write, not as the unknown address it is.
void drain(int fd)
{
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0 || (n < 0 && errno == EINTR))
            continue;
        return;
    }
}

void writeAll(int fd, const std::string &text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // the verdict is the exit status; the phrase is only its reason
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

int main(int argc, char **argv)
{
    drain(STDIN_FILENO);
    std::string phrase;
    for (int i = 1; i < argc; ++i) {
        if (i > 1)
            phrase += ' ';
        phrase += argv[i];
    }
    if (!phrase.empty())
        writeAll(STDOUT_FILENO, phrase + '\n');
    return EX_NOUSER;
}
