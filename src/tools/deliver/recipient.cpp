#include "tools/deliver/recipient.h"

#include "mailtend/CommandNames.h"
#include "tools/deliver/outcome.h"
#include "utils/mail_validate.h"
#include "utils/read_configuration.h"

#include <stdexcept>

namespace deliver {

std::string lowerAscii(std::string text)
{
    for (char &c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

std::string addressDomain(const std::string &address)
{
    const std::string::size_type at = address.rfind('@');
    return at == std::string::npos ? std::string() : lowerAscii(address.substr(at + 1));
}

Recipient parseRecipient(const std::string &address)
{
    const Failure bad(EX_NOUSER, "5.1.3 Bad recipient address syntax");
    const std::string::size_type at = address.rfind('@');
    if (at == std::string::npos || at == 0)
        throw bad;
    Recipient r;
    r.mailname = lowerAscii(address.substr(0, at));
    r.domain = lowerAscii(address.substr(at + 1));
    namespace v = zarnet::validate;
    if (!v::mailname(r.mailname).empty() || !mail_validate(r.mailname.c_str(), VALIDATE_MAILNAME) ||
        !v::hostName(r.domain).empty())
        throw bad;
    try {
        using zarnet::mail::postfix::mailtend_commands::checkPathComponent;
        checkPathComponent("mailname", r.mailname);
        checkPathComponent("domain name", r.domain);
    } catch (const std::invalid_argument &) {
        throw bad;
    }
    r.address = r.mailname + "@" + r.domain;
    r.home = std::string(zrnConfGetDefaultByIndex(ZARNET_MAILNAMES_D)) + "/" + r.domain + "/" +
             r.mailname;
    return r;
}

} // namespace deliver
