#include "utils/sh_quoting.h"

#include <stdexcept>

// One row of 16 codes per line.
const char shell_escape_chars[128] = {
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '*', 'n', '-', '-', '-', '-', '-',  // 0x00: tab, line feed
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-',  // 0x10
    '*', '-', '*', '*', '*', '-', '*', '*', '*', '*', '*', '-', '-', '-', '-', '-',  // 0x20: space " # $ & ' ( ) *
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '*', '*', '-', '*', '*',  // 0x30: ; < > ?
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-',  // 0x40
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '*', '*', '-', '-', '-',  // 0x50: [ and backslash
    '*', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-',  // 0x60: `
    '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '-', '*', '-', '*', '-',  // 0x70: | ~
};

namespace {

// Bytes outside the table behave as '-'; char may be signed, so the index
// is taken from the unsigned byte.
char markOf(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    return u < sizeof shell_escape_chars ? shell_escape_chars[u] : '-';
}

} // namespace

int check_shell_arg_nothrow(const char *arg)
{
    if (arg == nullptr)
        return 1;
    for (const char *p = arg; *p != '\0'; ++p)
        if (markOf(*p) != '-')
            return 0;
    return 1;
}

namespace zarnet {

std::string sh_quote(const std::string &text)
{
    std::string quoted;
    quoted.reserve(text.size() + text.size() / 4);
    for (char c : text) {
        switch (markOf(c)) {
        case '*':
            quoted += '\\';
            quoted += c;
            break;
        case 'n':
            quoted += '\'';
            quoted += c;
            quoted += '\'';
            break;
        default:
            quoted += c;
            break;
        }
    }
    return quoted;
}

void check_shell_arg(const std::string &arg)
{
    if (!check_shell_arg_nothrow(arg.c_str()))
        throw std::runtime_error("Internal error: bad escape_chars value");
}

} // namespace zarnet
