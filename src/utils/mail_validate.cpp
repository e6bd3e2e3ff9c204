#include "utils/mail_validate.h"

#include "utils/idn.h"
#include "utils/liblog.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <syslog.h>

#include <cstring>

int mail_validate(const char *name, validation_type type)
{
    if (type != VALIDATE_MAILNAME) {
        zarnet_log(LOG_INFO, "unknown validation_type: %d", type);
        return 0;
    }
    if (name == nullptr)
        return 0;
    return std::strstr(name, "..") == nullptr;
}

namespace zarnet::validate {

namespace {

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }
bool isAsciiAlnum(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool hasControl(const std::string &s)
{
    for (const char c : s)
        if (isControl(static_cast<unsigned char>(c)))
            return true;
    return false;
}

bool isAscii(const std::string &s)
{
    for (const char c : s)
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    return true;
}

// The bytes of the UTF-8 sequence a lead byte starts; 0 for a byte that
// starts none.
std::size_t sequenceLength(unsigned char c)
{
    if (c < 0x80)
        return 1;
    if (c >= 0xc2 && c <= 0xdf)
        return 2;
    if (c >= 0xe0 && c <= 0xef)
        return 3;
    return c >= 0xf0 && c <= 0xf4 ? 4 : 0;
}

// Well-formed UTF-8: no stray continuation byte, overlong form, surrogate or
// code point beyond U+10FFFF.
bool isUtf8(const std::string &s)
{
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const std::size_t n = sequenceLength(c);
        if (n == 0 || i + n > s.size())
            return false;
        unsigned long cp = n == 1 ? c : c & (0xff >> (n + 1));
        for (std::size_t k = 1; k < n; ++k) {
            const unsigned char cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xc0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3f);
        }
        if ((n == 3 && (cp < 0x800 || (cp >= 0xd800 && cp <= 0xdfff))) ||
            (n == 4 && (cp < 0x10000 || cp > 0x10ffff)))
            return false;
        i += n;
    }
    return true;
}

std::string quotedChar(char c) { return std::string("'") + c + "'"; }

} // namespace

std::string hostName(const std::string &ascii)
{
    if (ascii.empty())
        return "is empty";
    if (hasControl(ascii))
        return "holds a control character";
    if (ascii.size() > max_domain)
        return "is longer than " + std::to_string(max_domain) + " characters";
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = ascii.find('.', start);
        const std::string label = ascii.substr(start, dot - start);
        if (label.empty())
            return "has an empty label";
        if (label.size() > max_label)
            return "has a label longer than " + std::to_string(max_label) + " characters";
        for (const char c : label)
            if (!isAsciiAlnum(c) && c != '-')
                return "holds " + quotedChar(c) +
                       ", not a letter, digit, hyphen or dot";
        if (label.front() == '-' || label.back() == '-')
            return "has a label beginning or ending with a hyphen";
        if (dot == std::string::npos)
            return "";
        start = dot + 1;
    }
}

std::string domainName(const std::string &name)
{
    if (hasControl(name))
        return "holds a control character";
    if (isAscii(name))
        return hostName(name);
    // Four bytes per character at most: anything longer cannot fit.
    if (name.size() > 4 * max_domain)
        return "is longer than " + std::to_string(max_domain) + " characters";
    if (!isUtf8(name))
        return "is not UTF-8 text";
    return hostName(zarnet::idn::toAscii(name));
}

std::string mailname(const std::string &name)
{
    static const char specials[] = "!#$%&'*+-/=?^_`{|}~.";
    if (name.empty())
        return "";
    if (hasControl(name))
        return "holds a control character";
    if (name.size() > max_local_part)
        return "is longer than " + std::to_string(max_local_part) + " bytes";
    if (!isUtf8(name))
        return "is not UTF-8 text";
    for (const char c : name)
        if (static_cast<unsigned char>(c) < 0x80 && !isAsciiAlnum(c) &&
            std::strchr(specials, c) == nullptr)
            return "holds " + quotedChar(c);
    // A delivery file line starting so is a program, a forward or a comment.
    if (std::strchr("|&#", name.front()) != nullptr)
        return "begins with " + quotedChar(name.front());
    return "";
}

std::string mailAddress(const std::string &address)
{
    if (hasControl(address))
        return "holds a control character";
    if (address.size() > max_address)
        return "is longer than " + std::to_string(max_address) + " characters";
    const std::size_t at = address.find('@');
    if (at == std::string::npos)
        return "has no '@'";
    if (address.find('@', at + 1) != std::string::npos)
        return "has more than one '@'";
    const std::string local = address.substr(0, at);
    if (local.empty())
        return "has an empty local part";
    // A delivery file line starting so is a file or a maildir.
    if (local.front() == '.' || local.front() == '/')
        return "has a local part beginning with " + quotedChar(local.front());
    std::string problem = mailname(local);
    if (!problem.empty())
        return "has a local part that " + problem;
    problem = domainName(address.substr(at + 1));
    if (!problem.empty())
        return "has a domain that " + problem;
    return "";
}

std::string lineText(const std::string &text, std::size_t max)
{
    if (hasControl(text))
        return "holds a control character";
    if (text.size() > max)
        return "is longer than " + std::to_string(max) + " bytes";
    return "";
}

std::string ipAddress(const std::string &text)
{
    unsigned char buf[sizeof(in6_addr)];
    if (text.empty())
        return "is empty";
    if (hasControl(text))
        return "holds a control character";
    if (inet_pton(AF_INET, text.c_str(), buf) != 1 && inet_pton(AF_INET6, text.c_str(), buf) != 1)
        return "is not an IPv4 or IPv6 address";
    return "";
}

std::string network(const std::string &address, unsigned prefix, bool trusted)
{
    std::string problem = ipAddress(address);
    if (!problem.empty())
        return problem;
    unsigned char buf[sizeof(in6_addr)] = {};
    const bool v4 = inet_pton(AF_INET, address.c_str(), buf) == 1;
    if (!v4)
        inet_pton(AF_INET6, address.c_str(), buf);
    const unsigned width = v4 ? 32 : 128;
    if (prefix > width)
        return "has a prefix longer than " + std::to_string(width);
    if (!trusted)
        return "";
    const unsigned widest = v4 ? 8 : 7;
    if (prefix < widest)
        return "is wider than /" + std::to_string(widest) +
               " and would let much of the Internet relay mail";
    unsigned char masked[sizeof buf] = {};
    for (unsigned bit = 0; bit < prefix; ++bit)
        masked[bit / 8] |= buf[bit / 8] & (0x80 >> (bit % 8));
    if (std::memcmp(masked, buf, width / 8) != 0) {
        char text[INET6_ADDRSTRLEN];
        inet_ntop(v4 ? AF_INET : AF_INET6, masked, text, sizeof text);
        return "has host bits set; perhaps " + std::string(text) + "/" + std::to_string(prefix) +
               " was meant";
    }
    return "";
}

std::string letterSize(int64_t size, int64_t mailboxLimit)
{
    if (size < 0)
        return "is negative";
    if (size != 0 && size < min_letter_size)
        return "is below the minimum of " + std::to_string(min_letter_size) + " bytes";
    if (mailboxLimit > 0 && size > mailboxLimit)
        return "is above mailbox_size_limit (" + std::to_string(mailboxLimit) +
               "), with which local delivery would stop";
    return "";
}

} // namespace zarnet::validate
