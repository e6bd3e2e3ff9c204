#include "tools/deliver/qmail_line.h"

#include <cctype>

namespace deliver {

namespace {

// Characters that mean something to a shell: such a line was written for
// one, and running its words without it would do something else.
const char *const shell_characters = "\"'`$\\;&|<>()[]{}*?~!#";

bool blank(char c)
{
    return c == ' ' || c == '\t';
}

} // namespace

QmailLine classifyQmailLine(const std::string &raw)
{
    std::string line = raw;
    while (!line.empty() && (blank(line.back()) || line.back() == '\r'))
        line.pop_back();
    QmailLine result;
    if (line.empty() || line[0] == '#')
        return result;
    const unsigned char first = static_cast<unsigned char>(line[0]);
    if (line[0] == '|') {
        const std::string command = line.substr(1);
        if (command.find_first_of(shell_characters) != std::string::npos) {
            result.kind = QmailLine::Unrunnable;
            return result;
        }
        std::string word;
        for (char c : command + " ") {
            if (!blank(c)) {
                word += c;
            } else if (!word.empty()) {
                result.words.push_back(word);
                word.clear();
            }
        }
        if (result.words.empty())
            result.kind = QmailLine::Unrunnable;
        else if (result.words == std::vector<std::string>{deliverquota_path, "./Maildir"})
            result.kind = QmailLine::QuotaMaildir;
        else
            result.kind = QmailLine::Program;
        return result;
    }
    if (line[0] == '&' || std::isalnum(first)) {
        result.kind = QmailLine::Forward;
        result.target = line[0] == '&' ? line.substr(1) : line;
        return result;
    }
    if (line[0] == '.' || line[0] == '/') {
        result.kind = line.back() == '/' ? QmailLine::Maildir : QmailLine::Unsupported;
        result.target = line;
        return result;
    }
    result.kind = QmailLine::Unsupported;
    return result;
}

} // namespace deliver
