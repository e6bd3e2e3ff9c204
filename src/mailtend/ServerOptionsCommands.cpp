#include "mailtend/commands.h"

#include "mail/dns/spf_control.h"
#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/ServiceManager.h"
#include "mail/postfix/SettingsManager.h"
#include "mail/services/courier_configure.h"
#include "mailtend/CommandNames.h"
#include "mailtend/OptionChecks.h"
#include "mailtend/OptionTypes.h"
#include "utils/NotSupportedError.h"
#include "utils/mail_validate.h"

#include <boost/lexical_cast.hpp>

#include <sys/statvfs.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

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

namespace zarnet::mail::postfix::mailtend_commands {

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

int printFeatures(const Args &)
{
    for (const Feature &f : features)
        print_feature(f.name, f.value);
    // A report the panel did not receive must not look like success.
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1;
}

namespace {

// A size parameter of main.cf as a bare number; a value that is not one
// raises the conversion error.
int printSizeParameter(const char *name)
{
    const std::string value = MainCfManager::getInstance().getStringValue(name, false);
    std::cout << boost::lexical_cast<int64_t>(value) << std::endl;
    return std::cout ? 0 : 1;
}

// The SMTP server takes no mail at all while the queue file system has less
// than 1.5 times the limit free: a limit it cannot meet now would stop all
// mail. A queue that cannot be measured is not judged.
std::string queueSpaceProblem(const std::string &queue, int64_t size)
{
    struct statvfs fs;
    if (size == 0 || ::statvfs(queue.c_str(), &fs) != 0)
        return "";
    const long double room = static_cast<long double>(fs.f_bavail) * fs.f_frsize;
    if (static_cast<long double>(size) * 1.5L < room)
        return "";
    return "needs 1.5 times its size free in the mail queue file system (" +
           std::to_string(static_cast<unsigned long long>(room)) + " bytes free)";
}

typedef void (*NetworkChange)(const std::string &address, unsigned prefix);

// Only networks being trusted get the strict check: an entry with host
// bits set or an overly wide one, left by an older release, must stay
// removable.
int changeWhiteList(const Args &args, NetworkChange change, bool trusted)
{
    const std::string &address = args.text("ip-address");
    const unsigned prefix = args.get<IPMask>("netmask").prefix;
    refuseValue(args, "network", address + "/" + std::to_string(prefix),
                zarnet::validate::network(address, prefix, trusted));
    change(address, prefix);
    ServiceManager::reloadServer();
    return 0;
}

} // namespace

int getMaxLetterSize(const Args &)
{
    return printSizeParameter("message_size_limit");
}

int getMailboxLimit(const Args &)
{
    return printSizeParameter("mailbox_size_limit");
}

int addBadMailFrom(const Args &args)
{
    SettingsManager::addBlackDomain(asciiDomain(args.text("domain-name")));
    return 0;
}

int removeBadMailFrom(const Args &args)
{
    SettingsManager::removeBlackDomain(asciiDomain(args.text("domain-name")));
    return 0;
}

int setMaxLetterSize(const Args &args)
{
    const MainCfManager &mainCf = MainCfManager::getInstance();
    int64_t size = args.get<int64_t>("size");
    const std::string given = std::to_string(size);
    ParameterValues current = mainCf.getStringValues({"mailbox_size_limit", "queue_directory"});
    const int64_t mailboxLimit = boost::lexical_cast<int64_t>(current["mailbox_size_limit"]);
    if (size == 0)
        size = mailboxLimit;
    refuseValue(args, "letter size", given, zarnet::validate::letterSize(size, mailboxLimit));
    refuseValue(args, "letter size", given, queueSpaceProblem(current["queue_directory"], size));
    mainCf.replaceStringValue("message_size_limit", std::to_string(size));
    ServiceManager::reloadServer();
    return 0;
}

int setAccountsFormat(const Args &args)
{
    if (args.get<ShortnameFormat>("account-format").format == ShortnameFormat::both)
        throw NotSupportedError("short account-format is not supported for Postfix");
    return set_courier_shortnames_params(0);
}

int addWhiteList(const Args &args)
{
    return changeWhiteList(args, SettingsManager::addWhiteNetwork, true);
}

int removeWhiteList(const Args &args)
{
    return changeWhiteList(args, SettingsManager::removeWhiteNetwork, false);
}

int setMailParams(const Args &args)
{
    if (args.has("shortnames"))
        throw NotSupportedError("short account-format is not supported for Postfix");
    const bool relayClient = args.has("relayclient"), popAuth = args.has("popauth");
    if (set_courier_params(relayClient, popAuth, args.get<int16_t>("poplock-time"), 0) != 0)
        return 1;
    if (relayClient)
        SettingsManager::setOpenRelay();
    else
        SettingsManager::setAuthRelay(popAuth, args.has("smtpauth"));
    ServiceManager::reloadServer();
    return 0;
}

// Each zone becomes a restriction of its own; a single label would be
// looked up under a top-level domain and refuse at random.
int setMapsProtection(const Args &args)
{
    std::vector<std::string> zones;
    if (args.has("maps-zones"))
        for (const std::string &value : args.get<std::vector<std::string>>("maps-zones"))
            for (const std::string &zone : MainCfManager::splitSimpleList(value)) {
                std::string problem = zarnet::validate::hostName(zone);
                if (problem.empty() && zone.find('.') == std::string::npos)
                    problem = "has a single label";
                refuseValue(args, "MAPS zone", zone, problem);
                zones.push_back(zone);
            }
    SettingsManager::setRBLHosts(zones);
    ServiceManager::reloadServer();
    return 0;
}

int updateSPF(const Args &args)
{
    static const char *const settings[] = {"spf-behavior", "spf-rules", "spf-guess", "spf-exp"};
    // Absent: leave the setting alone; "-": clear it.
    const char *values[4];
    for (int i = 0; i < 4; ++i) {
        if (!args.has(settings[i]))
            values[i] = nullptr;
        else if (args.text(settings[i]) == "-")
            values[i] = "";
        else
            values[i] = args.text(settings[i]).c_str();
    }
    return update_spf(values[0], values[1], values[2], values[3]) != 0 ? 1 : 0;
}

} // namespace zarnet::mail::postfix::mailtend_commands
