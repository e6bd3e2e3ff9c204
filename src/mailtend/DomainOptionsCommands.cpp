#include "mailtend/DomainOptionsCommands.h"

#include "mail/MaildirPPManager.h"
#include "mailtend/CommandNames.h"
#include "mailtend/ProgramOptionsHelper.h"

#include <cstdint>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

int setDomainDiskQuota(int argc, char **argv)
{
    ProgramOptionsHelper helper("set a domain disk quota",
                                "--set-domain-disk-quota --domain-name=<domain> "
                                "--disk-quota=quota");
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true)(
        "disk-quota", po::value<int64_t>(), "disk quota", true);
    standardOptionsParse(helper, argc, argv);
    const std::string domain = asciiDomain(helper.variables["domain-name"].as<std::string>());
    checkPathComponent("domain name", domain);

    MaildirPPManager::getInstance().setDomainQuota(domain,
                                                   helper.variables["disk-quota"].as<int64_t>());
    return 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
