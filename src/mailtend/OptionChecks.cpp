#include "mailtend/OptionChecks.h"

#include "utils/mail_validate.h"

#include <algorithm>
#include <climits>
#include <cstdio>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

const std::size_t shown_bytes = 64;
const std::size_t max_line = 1024;

// "domain-name" for both "domain-name" and "disk-quota,q".
std::string longName(const char *name)
{
    const std::string s(name);
    return s.substr(0, s.find(','));
}

// Each item of a list, checked by one kind's check: the first problem,
// with the item it belongs to when the list has several.
template <class Check>
std::string eachItem(const std::string &list, const char *separators, bool anyOf, Check check)
{
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = anyOf ? list.find_first_of(separators, start)
                                      : list.find(separators, start);
        const std::string item = list.substr(start, end - start);
        // Empty items are skipped by the list readers; an empty list is theirs to refuse.
        const std::string problem = item.empty() ? std::string() : check(item);
        if (!problem.empty())
            return item == list ? problem : "has an item \"" + shownValue(item) + "\" that " + problem;
        if (end == std::string::npos)
            return "";
        start = end + (anyOf ? 1 : std::string(separators).size());
    }
}

} // namespace

std::string shownValue(const std::string &value)
{
    // Cut at a character boundary, so the message stays UTF-8.
    std::size_t end = value.size() > shown_bytes ? shown_bytes : value.size();
    while (end < value.size() && end > 0 && (value[end] & 0xc0) == 0x80)
        --end;
    std::string shown;
    for (std::size_t i = 0; i < end; ++i) {
        const unsigned char c = static_cast<unsigned char>(value[i]);
        if (c == '\n')
            shown += "\\n";
        else if (c == '\t')
            shown += "\\t";
        else if (c == '"' || c == '\\')
            shown += std::string("\\") + static_cast<char>(c);
        else if (c < 0x20 || c == 0x7f) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            shown += hex;
        } else
            shown += static_cast<char>(c);
    }
    if (end < value.size())
        shown += "...";
    return shown;
}

void refuseValue(const Args &args, const std::string &kind, const std::string &value,
                 const std::string &problem)
{
    if (!problem.empty())
        optionError(args, kind + " \"" + shownValue(value) + "\" " + problem);
}

void checkValues(const Args &args, const Options &options)
{
    namespace v = zarnet::validate;
    for (const Option &o : options.list()) {
        const std::string name = longName(o.name);
        if (o.value == Value::none || !args.has(name.c_str()))
            continue;
        std::string kind = o.help, problem;
        switch (o.value) {
        case Value::domain:
            kind = "domain name";
            problem = v::domainName(args.text(name.c_str()));
            break;
        case Value::domainList:
            kind = "domain name list";
            problem = eachItem(args.text(name.c_str()), ", ", false, v::domainName);
            break;
        case Value::domainWords:
            kind = "domain name list";
            problem = eachItem(args.text(name.c_str()), " \t,", true, v::domainName);
            break;
        case Value::mailname:
            kind = "mailname";
            problem = v::mailname(args.text(name.c_str()));
            break;
        case Value::mailnameList:
            kind = "mailname list";
            problem = eachItem(args.text(name.c_str()), ", ", false, v::mailname);
            break;
        case Value::address:
            kind = "mail address";
            problem = v::mailAddress(args.text(name.c_str()));
            break;
        case Value::ipAddress:
            kind = "IP address";
            problem = v::ipAddress(args.text(name.c_str()));
            break;
        case Value::line:
            problem = v::lineText(args.text(name.c_str()), max_line);
            break;
        case Value::lines: {
            std::string text = args.text(name.c_str());
            std::replace(text.begin(), text.end(), '\n', ' ');
            problem = v::lineText(text, max_line);
            break;
        }
        case Value::fileName:
            problem = v::lineText(args.text(name.c_str()), NAME_MAX);
            break;
        case Value::path:
            problem = v::lineText(args.text(name.c_str()), PATH_MAX - 1);
            break;
        default:
            continue;
        }
        refuseValue(args, kind, args.text(name.c_str()), problem);
    }
}

} // namespace zarnet::mail::postfix::mailtend_commands
