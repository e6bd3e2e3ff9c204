#include "mailtend/OptionTypes.h"

#include <cerrno>
#include <map>

namespace po = boost::program_options;

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

const std::map<std::string, unsigned> &componentWords()
{
    static const std::map<std::string, unsigned> words = {
        {"mta", SelectedMailComponents::mta},
        {"smtp", SelectedMailComponents::smtp},
        {"smtps", SelectedMailComponents::smtps},
        {"submission", SelectedMailComponents::submission},
        {"pop3", SelectedMailComponents::pop3},
        {"imap", SelectedMailComponents::imap},
        {"pop3s", SelectedMailComponents::pop3s},
        {"imaps", SelectedMailComponents::imaps},
        {"all", SelectedMailComponents::all},
    };
    return words;
}

} // namespace

bool parseIPMask(const std::string &text, uint16_t &prefix)
{
    std::string::size_type i = 0;
    const std::string::size_type n = text.size();
    while (i < n && isBlank(text[i]))
        ++i;
    if (i == n || text[i] == '-')
        return false;
    if (text[i] == '+') {
        if (++i == n)
            return false;
        while (i < n && isBlank(text[i]))
            ++i;
    }
    unsigned long value = 0;
    for (; i < n; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        value = value * 10 + static_cast<unsigned long>(text[i] - '0');
        if (value > 65535) {
            errno = ERANGE;
            return false;
        }
    }
    if (value > 128)
        return false;
    prefix = static_cast<uint16_t>(value);
    return true;
}

void validate(boost::any &v, const std::vector<std::string> &values, IPMask *, int)
{
    po::validators::check_first_occurrence(v);
    const std::string &text = po::validators::get_single_string(values);
    IPMask mask;
    if (!parseIPMask(text, mask.prefix))
        throw po::invalid_option_value(text);
    v = mask;
}

void validate(boost::any &v, const std::vector<std::string> &values, ShortnameFormat *, int)
{
    po::validators::check_first_occurrence(v);
    const std::string &text = po::validators::get_single_string(values);
    ShortnameFormat format;
    if (text == "compound")
        format.format = ShortnameFormat::compound;
    else if (text == "both")
        format.format = ShortnameFormat::both;
    else
        throw po::invalid_option_value(text);
    v = format;
}

void validate(boost::any &v, const std::vector<std::string> &values, SelectedMailComponents *,
              int)
{
    SelectedMailComponents selected;
    if (!v.empty())
        selected = boost::any_cast<SelectedMailComponents>(v);
    const std::map<std::string, unsigned> &words = componentWords();
    for (const std::string &word : values) {
        const auto it = words.find(word);
        if (it == words.end())
            throw po::invalid_option_value("unknown component " + word);
        selected.components |= it->second;
    }
    v = selected;
}

po::typed_value<SelectedMailComponents> *selectedMailComponentsValue()
{
    return po::value<SelectedMailComponents>()->composing()->multitoken();
}

} // namespace zarnet::mail::postfix::mailtend_commands
