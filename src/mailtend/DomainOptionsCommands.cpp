#include "mailtend/commands.h"

#include "mail/dns/domain_keys.h"
#include "mail/storage/MaildirPPManager.h"
#include "mailtend/CommandNames.h"

#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

// A domain list converts name by name: converted whole, a non-ASCII name
// would share its label with the separators around it.
std::string asciiDomainList(const std::string &list)
{
    std::string converted;
    for (const std::string &name : split_domain_list(list)) {
        converted += (converted.empty() ? "" : ",") + storeDomain(name);
    }
    if (converted.empty())
        throw std::invalid_argument("invalid domain name '" + list + "'");
    return converted;
}

} // namespace

int setDomainDiskQuota(const Args &args)
{
    const std::string domain = storeDomain(args.text("domain-name"));
    MaildirPPManager::getInstance().setDomainQuota(domain, args.get<int64_t>("disk-quota"));
    return 0;
}

int setDomainKey(const Args &args)
{
    const std::string domains = asciiDomainList(args.text("domain-name"));
    const std::string &key = args.text("file-name");
    // The uploaded key is consumed only once every domain has its copy.
    return set_domain_key_consume(domains.c_str(), key.c_str()) != 0 ? 1 : 0;
}

int removeDomainKey(const Args &args)
{
    const std::string domains = asciiDomainList(args.text("domain-name"));
    return remove_domain_key(domains.c_str()) != 0 ? 1 : 0;
}

} // namespace zarnet::mail::postfix::mailtend_commands
