#include "mailtend/ServerOptionsCommands.h"

#include "mail/services/courier_configure.h"
#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/ServiceManager.h"
#include "mail/postfix/SettingsManager.h"
#include "mail/dns/spf_control.h"
#include "mailtend/CommandNames.h"
#include "mailtend/OptionTypes.h"
#include "mailtend/ProgramOptionsHelper.h"
#include "utils/NotSupportedError.h"

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>

void print_feature(const char *name, const char *value)
{
    if (std::strcmp(value, "true") == 0 || std::strcmp(value, "false") == 0)
        std::printf("$features['%s'] = %s;\n", name, value);
    else
        std::printf("$features['%s'] = \"%s\";\n", name, value);
}

void print_feature_array(const char *name, std::size_t count, const char *const *pairs)
{
    std::printf("$features['%s'] = array(", name);
    for (std::size_t i = 0; i < count; ++i)
        std::printf("'%s'=>'%s',", pairs[2 * i], pairs[2 * i + 1]);
    std::printf(");\n");
}

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace {

struct Feature {
    const char *name;
    const char *value;
};

// The panel switches its pages on these; the order is part of the output.
const Feature features[] = {
    {"MailName_SetName", "true"},
    {"MailName_SetDomain", "true"},
    {"MailName_Quota", "true"},
    {"MailName_SetQuota", "true"},
    {"MailName_Size", "true"},
    {"MailName_Password", "true"},
    {"MailName_SetPassword", "true"},
    {"MailName_Postbox", "true"},
    {"MailName_SetPostbox", "true"},
    {"MailName_Forward", "true"},
    {"MailName_MultiForward", "true"},
    {"MailName_SetForward", "true"},
    {"MailName_AutoResponder", "true"},
    {"MailName_SetAutoResponder", "true"},
    {"MailName_Aliases", "true"},
    {"Domain_SetName", "true"},
    {"Domain_Enable", "true"},
    {"Domain_SetEnable", "true"},
    {"Domain_Quota", "true"},
    {"Domain_SetQuota", "true"},
    {"Domain_Bounce", "true"},
    {"Domain_SetBounce", "true"},
    {"Domain_Catch", "true"},
    {"Domain_SetCatch", "true"},
    {"Domain_Reject", "true"},
    {"Common_BadMail", "true"},
    {"Common_MaxLetterSize", "true"},
    {"Common_SetMaxLetterSize", "true"},
    {"Relay", "true"},
    {"Relay_Set", "true"},
    {"Relay_Open", "true"},
    {"Relay_Closed", "true"},
    {"Relay_AuthorizationIsRequired", "true"},
    {"Relay_AuthType_None", "true"},
    {"Relay_AuthType_POP3_SMTP", "true"},
    {"Relay_AuthType_POP3", "false"},
    {"Relay_AuthType_SMTP", "true"},
    {"Relay_POP3_LockTime", "true"},
    {"Relay_WhiteList", "true"},
    {"Relay_WhiteList_Mask", "true"},
    {"Relay_BlackList", "true"},
    {"Relay_WhiteList_BlackList", "true"},
    {"MapsProtection", "true"},
    {"SetMapsProtection", "true"},
    {"AccountsFormat_Simple", "false"},
    {"AccountsFormat_Compound", "true"},
    {"AccountsFormat_Both", "false"},
    {"AccountsFormat_Set", "true"},
    {"Mail_Send", "true"},
    {"Mail_Attachments", "true"},
    {"Mail_Forward", "true"},
    {"SMTP_Server", "Postfix"},
    {"IMAP_POP3_Server", "Courier-IMAP"},
    {"SMTP_Server_package", "postfix"},
    {"IMAP_POP3_Server_package", "courier-imap"},
    {"Message_Submission", "true"},
    {"Message_Submission_all_IP", "true"},
    {"Message_Submission_Dedicated_IP", "false"},
};

} // namespace

int printFeatures(int, char **)
{
    for (const Feature &f : features)
        print_feature(f.name, f.value);
    // A report the panel did not receive must not look like success.
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}

namespace {

namespace po = boost::program_options;

// A size parameter of main.cf as a bare number; a value that is not one
// raises the conversion error.
int printSizeParameter(const char *name)
{
    const std::string value = MainCfManager::getInstance().getStringValue(name, false);
    std::cout << boost::lexical_cast<int64_t>(value) << std::endl;
    return std::cout ? 0 : 1;
}

// The black-list commands share one option set and differ in the change.
std::string parseBlackDomain(const char *description, const char *usage, int argc, char **argv)
{
    ProgramOptionsHelper helper(description, usage);
    helper.addOptions()("domain-name", po::value<std::string>(), "domain name", true);
    standardOptionsParse(helper, argc, argv);
    return asciiDomain(helper.variables["domain-name"].as<std::string>());
}

} // namespace

int getMaxLetterSize(int, char **)
{
    return printSizeParameter("message_size_limit");
}

int getMailboxLimit(int, char **)
{
    return printSizeParameter("mailbox_size_limit");
}

int addBadMailFrom(int argc, char **argv)
{
    SettingsManager::addBlackDomain(parseBlackDomain(
        "add a badmailfrom", "--add-badmailfrom --domain-name=<domain>", argc, argv));
    return 0;
}

int removeBadMailFrom(int argc, char **argv)
{
    SettingsManager::removeBlackDomain(parseBlackDomain(
        "remove a badmailfrom", "--remove-badmailfrom --domain-name=<domain>", argc, argv));
    return 0;
}

int setMaxLetterSize(int argc, char **argv)
{
    ProgramOptionsHelper helper("set maximal letter size",
                                "--set-max-letter-size --size=<size_in_bytes>");
    helper.addOptions()("size", po::value<int64_t>(), "letter size", true);
    standardOptionsParse(helper, argc, argv);

    const MainCfManager &mainCf = MainCfManager::getInstance();
    int64_t size = helper.variables["size"].as<int64_t>();
    if (size == 0)
        size = boost::lexical_cast<int64_t>(mainCf.getStringValue("mailbox_size_limit", false));
    mainCf.replaceStringValue("message_size_limit", std::to_string(size));
    ServiceManager::reloadServer();
    return 0;
}

int setAccountsFormat(int argc, char **argv)
{
    ProgramOptionsHelper helper("set accounts format",
                                "--set-accounts-format --account-format=\"compound\"");
    helper.addOptions()("account-format", po::value<ShortnameFormat>(),
                        "Accounts format (currently only compound supported)", true);
    standardOptionsParse(helper, argc, argv);

    if (helper.variables["account-format"].as<ShortnameFormat>().format ==
        ShortnameFormat::both)
        throw NotSupportedError("short account-format is not supported for Postfix");
    return set_courier_shortnames_params(0);
}

namespace {

struct WhiteListNetwork {
    std::string address;
    unsigned prefix;
};

WhiteListNetwork parseWhiteListNetwork(const char *description, const char *usage, int argc,
                                       char **argv)
{
    ProgramOptionsHelper helper(description, usage);
    helper.addOptions()("ip-address", po::value<std::string>(), "IPv4 address", true)(
        "netmask", po::value<IPMask>(), "netmask", true);
    standardOptionsParse(helper, argc, argv);
    return {helper.variables["ip-address"].as<std::string>(),
            helper.variables["netmask"].as<IPMask>().prefix};
}

} // namespace

int addWhiteList(int argc, char **argv)
{
    const WhiteListNetwork net = parseWhiteListNetwork(
        "add a network to whitelist",
        "--add-whitelist --ip-address=<ip_address> --netmask=<netmask>", argc, argv);
    SettingsManager::addWhiteNetwork(net.address, net.prefix);
    ServiceManager::reloadServer();
    return 0;
}

int removeWhiteList(int argc, char **argv)
{
    const WhiteListNetwork net = parseWhiteListNetwork(
        "remove a network from whitelist",
        "--remove-whitelist --ip-address=<ip_address> --netmask=<netmask>", argc, argv);
    SettingsManager::removeWhiteNetwork(net.address, net.prefix);
    ServiceManager::reloadServer();
    return 0;
}

int updateSPF(int argc, char **argv)
{
    static const struct {
        const char *name;
        const char *help;
    } settings[] = {{"spf-behavior", "SPF behavior"},
                    {"spf-rules", "SPF rules"},
                    {"spf-guess", "SPF guess"},
                    {"spf-exp", "SPF exp"}};
    ProgramOptionsHelper helper("update SPF rules",
                                "--update-spf [--spf-behavior=spf_behavior] "
                                "[--spf-rules=spf_rules] [--spf-guess=spf_guess] "
                                "[--spf-exp=<spf_exp>]");
    ProgramOptionsHelper::OptionAppender add = helper.addOptions();
    for (const auto &s : settings)
        add(s.name, po::value<std::string>(), s.help);
    standardOptionsParse(helper, argc, argv);

    // Absent: leave the setting alone; "-": clear it.
    const char *values[4];
    for (int i = 0; i < 4; ++i) {
        const po::variable_value &v = helper.variables[settings[i].name];
        if (v.empty())
            values[i] = nullptr;
        else if (v.as<std::string>() == "-")
            values[i] = "";
        else
            values[i] = v.as<std::string>().c_str();
    }
    return update_spf(values[0], values[1], values[2], values[3]) != 0 ? 1 : 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
