#include "tools/autoresponder/headers.h"

#include "utils/mail_validate.h"

#include <strings.h>

#include <cctype>
#include <exception>

namespace autoresponder {

namespace {

std::string lower(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string &s)
{
    const auto first = s.find_first_not_of(" \t");
    if (first == std::string::npos)
        return std::string();
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

bool robot(const std::string &sender)
{
    const std::string local = lower(sender.substr(0, sender.rfind('@')));
    for (const char *name : {"mailer-daemon", "postmaster", "noreply", "no-reply", "donotreply",
                             "do-not-reply", "listserv", "majordomo", "mailman"})
        if (local == name)
            return true;
    auto endsWith = [&](const std::string &tail) {
        return local.size() > tail.size() && local.compare(local.size() - tail.size(),
                                                           tail.size(), tail) == 0;
    };
    return local.compare(0, 6, "owner-") == 0 || endsWith("-request") || endsWith("-owner") ||
           endsWith("-bounces");
}

bool addressChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || std::string("!#$%&'*+-/=?^_`{|}~.@")
                                                              .find(c) != std::string::npos;
}

// Whether the header value lists the address as a whole, not as part of a
// longer one.
bool names(const std::string &value, const std::string &address)
{
    if (address.empty())
        return false;
    const std::string v = lower(value), a = lower(address);
    for (auto at = v.find(a); at != std::string::npos; at = v.find(a, at + 1)) {
        const std::size_t end = at + a.size();
        if ((at == 0 || !addressChar(v[at - 1])) && (end == v.size() || !addressChar(v[end])))
            return true;
    }
    return false;
}

} // namespace

Headers parseHeaders(const std::string &text)
{
    Headers headers;
    std::string::size_type start = 0;
    while (start < text.size()) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            break;
        if ((line[0] == ' ' || line[0] == '\t') && !headers.empty()) {
            headers.back().second += " " + trim(line);
            continue;
        }
        const auto colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
            continue;
        headers.emplace_back(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
    return headers;
}

std::string header(const Headers &headers, const std::string &name)
{
    for (const auto &h : headers)
        if (::strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return trim(h.second);
    return std::string();
}

bool replyOwed(const Headers &headers, const std::string &sender, const std::string &recipient)
{
    try {
        if (sender.empty() || !zarnet::validate::mailAddress(sender).empty() || robot(sender))
            return false;
    } catch (const std::exception &) {
        return false; // a non-ASCII domain that does not convert
    }
    const std::string autoSubmitted = lower(header(headers, "Auto-Submitted"));
    if (!autoSubmitted.empty() && autoSubmitted != "no")
        return false;
    const std::string precedence = lower(header(headers, "Precedence"));
    if (precedence == "bulk" || precedence == "list" || precedence == "junk")
        return false;
    for (const auto &h : headers)
        if (::strcasecmp(h.first.c_str(), "List-Id") == 0 ||
            ::strcasecmp(h.first.c_str(), "List-Unsubscribe") == 0)
            return false;
    const std::string original = header(headers, "X-Original-To");
    for (const auto &h : headers)
        if (::strcasecmp(h.first.c_str(), "To") == 0 || ::strcasecmp(h.first.c_str(), "Cc") == 0)
            if (names(h.second, recipient) || names(h.second, original))
                return true;
    return false;
}

std::string clean(const std::string &value, std::size_t max)
{
    std::string out;
    for (char c : value)
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f && out.size() < max)
            out += c;
    return out;
}

} // namespace autoresponder
