#include "mailtend/DomainOptionsCommands.h"

#include "mail/storage/MaildirPPManager.h"
#include "mail/dns/domain_keys.h"
#include "mailtend/CommandNames.h"
#include "mailtend/ProgramOptionsHelper.h"

#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

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

int setDomainDiskQuota(int argc, char **argv)
{
    ProgramOptionsHelper helper("set a domain disk quota",
                                "--set-domain-disk-quota --domain-name=<domain> "
                                "--disk-quota=quota");
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true)(
        "disk-quota", po::value<int64_t>(), "disk quota", true);
    standardOptionsParse(helper, argc, argv);
    const std::string domain = storeDomain(helper.variables["domain-name"].as<std::string>());

    MaildirPPManager::getInstance().setDomainQuota(domain,
                                                   helper.variables["disk-quota"].as<int64_t>());
    return 0;
}

int setDomainKey(int argc, char **argv)
{
    ProgramOptionsHelper helper("set DomainKey",
                                "--set-domain-key --domain-name=<domain,domain,... > "
                                "--file-name=<full_file_name>");
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true)(
        "file-name", po::value<std::string>(), "full path to uploaded key", true);
    standardOptionsParse(helper, argc, argv);
    const std::string domains = asciiDomainList(helper.variables["domain-name"].as<std::string>());
    const std::string key = helper.variables["file-name"].as<std::string>();

    if (set_domain_key(domains.c_str(), key.c_str()) != 0)
        return 1;
    // The uploaded key is consumed only once every domain has its copy.
    unlink(key.c_str());
    return 0;
}

int removeDomainKey(int argc, char **argv)
{
    ProgramOptionsHelper helper("remove DomainKey",
                                "--remove-domain-key --domain-name=<domain,domain,...>");
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true);
    standardOptionsParse(helper, argc, argv);
    const std::string domains = asciiDomainList(helper.variables["domain-name"].as<std::string>());

    return remove_domain_key(domains.c_str()) != 0 ? 1 : 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
