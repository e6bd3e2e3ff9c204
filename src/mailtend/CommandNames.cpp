#include "mailtend/CommandNames.h"

#include "utils/idn.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <stdexcept>

namespace zarnet::mail::postfix::mailtend_commands {

std::string asciiDomain(const std::string &name)
{
    // ASCII only after the conversion, so the C locale's lower-casing is exact.
    return boost::algorithm::to_lower_copy(zarnet::idn::toAscii(name), std::locale::classic());
}

std::string asciiAddress(const std::string &address)
{
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos)
        return address;
    return address.substr(0, at + 1) + asciiDomain(address.substr(at + 1));
}

void checkPathComponent(const char *kind, const std::string &name)
{
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(std::string("/\0", 2)) != std::string::npos)
        throw std::invalid_argument(std::string("invalid ") + kind + " '" + name + "'");
}

std::string storeDomain(const std::string &name)
{
    std::string domain = asciiDomain(name);
    checkPathComponent("domain name", domain);
    return domain;
}

} // namespace zarnet::mail::postfix::mailtend_commands
