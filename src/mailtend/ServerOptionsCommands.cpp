#include "mailtend/ServerOptionsCommands.h"

#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/SettingsManager.h"
#include "mailtend/CommandNames.h"
#include "mailtend/ProgramOptionsHelper.h"

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

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
