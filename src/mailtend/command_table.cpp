#include "mailtend/command_table.h"

#include "mailtend/commands.h"

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

#define PASSWORD_NOTE                                                                         \
    "\n        The noncrypted password is transferred in the environment variable ZRN_PASSWORD," \
    "\n        or crypted password is transferred in the environment variable ZRN_CRYPTED_PASSWORD"

#define HANDLER_TYPES "(global|sender|recipient|sender-domain|recipient-domain)"
#define HANDLER_HOOKS "(before-queue|before-local|before-remote)"
#define NAMING "--handler-name=<name> --handler-type=" HANDLER_TYPES \
               " [--handler-type-name=<name>] --hook=" HANDLER_HOOKS
#define NOTE "\n        "
#define TYPE_NAME_NOTE NOTE "--handler-type-name is required for every type except global, and not allowed with it."
#define MISSING_NOTE NOTE "Exit status 1 if the handler does not exist."
#define NOTEXISTING_USAGE "<--set-bounce 'text'| --set-catchall 'email' | --set-reject>"

// Option groups shared by several commands.
const Options domainNameOption = {"domain-name", Value::domain, "domain name", mandatory};
const Options mailnameOptions = {domainNameOption,
                                 {"mailname", Value::mailname, "mailname", mandatory}};
// The autoresponder commands take lists joined by ", " in both.
const Options mailnameListOptions = {
    {"domain-name", Value::domainList, "domain name", mandatory},
    {"mailname", Value::mailnameList, "mailname", mandatory}};
// The DomainKey commands take domains separated by blanks, tabs and commas.
const Options domainWordsOption = {"domain-name", Value::domainWords, "domain name", mandatory};
const Options domainDisabledOption = {"mail-domain-disabled,D", Value::none,
                                      "the domain is disabled (currently unused)"};
// The bounce text may span lines; they are sent as one.
const Options phraseOption = {"phrase", Value::lines, "phrase"};
const Options diskQuotaOption = {"disk-quota", Value::int64, "disk quota", mandatory};
const Options redirectOptions = {mailnameOptions,
                                 {"redirect-email", Value::address, "redirect email", mandatory}};
const Options attachmentNameOption = {"attachment-file-name", Value::fileName,
                                      "attachment file name", mandatory};
const Options networkOptions = {{"ip-address", Value::ipAddress, "IPv4 address", mandatory},
                                {"netmask", Value::ipMask, "netmask", mandatory}};

// The SPF settings, in the order updateSPF hands them on.
const Options spfSettingOptions = {{"spf-behavior", Value::line, "SPF behavior"},
                                   {"spf-rules", Value::line, "SPF rules"},
                                   {"spf-guess", Value::line, "SPF guess"},
                                   {"spf-exp", Value::line, "SPF exp"}};

// The mail-handler commands name a handler by template, type, type name and
// hook; adding and updating also set executable, context and priority
// (mandatory to add, kept when left out of an update).
const Options handlerNamingOptions = {
    {"handler-name", Value::string, "handler name", mandatory},
    {"handler-type", Value::string, "handler type " HANDLER_TYPES, mandatory},
    {"handler-type-name", Value::string, "handler type name"}};
const Options handlerHookOption = {"hook", Value::string, "hook point " HANDLER_HOOKS, mandatory};

Options domainAliasOption(const char *name, const char *help)
{
    return {name, Value::domain, help, mandatory};
}

Options handlerOptions()
{
    return {handlerNamingOptions, handlerHookOption};
}

Options handlerOptions(Presence settings)
{
    return {handlerNamingOptions,
            {"executable", Value::path, "handler executable", settings},
            {"context", Value::line, "handler context", settings},
            handlerHookOption,
            {"priority", Value::string, "handler priority", settings}};
}

} // namespace

const Options &formNotexistingMailOptions()
{
    static const Options group = {{"set-catchall", Value::none, "set a domain catchall address"},
                                  {"email", Value::address, "domain alias name"},
                                  {"set-bounce", Value::none, "set a domain bounce"},
                                  {"phrase", Value::lines, "phrase"},
                                  {"set-reject", Value::none, "set domain reject flag"}};
    return group;
}

// An entry is filled in up to its help-table texts while its handler is not
// built; the comment names the handler that will serve it.
const Command command_table[] = {
    {"--add-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
     "adds mailname to the mail domain. Optionally sets the mailbox quota"}, // addMailname
    {"--remove-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes mailname to the mail domain"}, // removeMailname
    {"--rename-mailname",
     "--domain-name=<domain_name> --old-mailname=<old_mail_name> --new-mailname=<new_mail_name>",
     "renames a mailname in the mail domain. Optionally sets the mailbox password." PASSWORD_NOTE}, // renameMailname
    {"--add-mailbox",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "adds a mailbox for a given mailname." PASSWORD_NOTE,
     addMailbox,
     "add mailname's mailbox",
     "--add-mailbox --domain-name=<domain_name> --mailname=<mail_name> [--mail-domain-disabled|-D]" PASSWORD_NOTE,
     {mailnameOptions, domainDisabledOption}},
    {"--remove-mailbox",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes a mailbox for a given mailname.",
     removeMailbox,
     "remove mailname's mailbox",
     "--remove-mailbox --domain-name=<domain_name> --mailname=<mail_name>",
     mailnameOptions},
    {"--get-mailbox-size",
     "[--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     "returns the size of mailbox for a mailname.",
     getMailboxSize,
     "get mailbox size",
     "--get-mailbox-size [--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     {{"in-blocks", Value::none, "count result in blocks rather than bytes"}, mailnameOptions}},
    {"--set-password",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "sets the password for a mailname" PASSWORD_NOTE,
     setPassword,
     "set mailname's password",
     "--set-password --domain-name=<domain_name> --mailname=<mail_name> [--mail-domain-disabled|-D]" PASSWORD_NOTE,
     {mailnameOptions, domainDisabledOption}},
    {"--set-mailbox-disk-quota",
     "--domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     "sets the disk quota for a mailbox. Negative quota == Unlimited",
     setMailboxDiskQuota,
     "set mailbox disk quota",
     "--set-mailbox-disk-quota --domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     {mailnameOptions, diskQuotaOption}},
    {"--add-redirect",
     "--domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     "adds mail redirect from the mailname",
     addRedirect,
     "add a redirect",
     "--add-redirect --domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     redirectOptions},
    {"--remove-redirect",
     "--domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     "removes mail redirect from the mailname",
     removeRedirect,
     "remove a given redirect",
     "--remove-redirect --domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     redirectOptions},
    {"--set-autoresponder",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "enables autoresponder for mailname",
     addAutoresponder,
     "add autoresponder for a given mailname",
     "--set-autoresponder --domain-name=<domain_name> --mailname=<mail_name>",
     mailnameListOptions},
    {"--reset-autoresponder",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "disables autoresponder for mailname",
     removeAutoresponder,
     "remove autoresponder for a given mailname",
     "--reset-autoresponder --domain-name=<domain_name> --mailname=<mail_name>",
     mailnameListOptions},
    {"--add-alias",
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "adds an alias for mailname"}, // addAlias
    {"--remove-alias",
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "removes an alias for mailname"}, // removeAlias
    {"--add-domain",
     "--domain-name=<domain_name> [--disk-quota=<quota>]",
     "adds mail domain",
     addDomain,
     "add a domain",
     "--add-domain --domain-name=<domain> [--disk-quota=quota]",
     {domainNameOption, {"disk-quota", Value::int64, "disk quota"}}},
    {"--remove-domain",
     "--domain-name=<domain_name>",
     "removes mail domain",
     removeDomain,
     "remove a domain",
     "--remove-domain --domain-name=<domain>",
     domainNameOption},
    {"--turn-on-domain",
     "--domain-name=<domain_name>",
     "enables mail domain",
     enableDomain,
     "enable a domain",
     "--turn-on-domain --domain-name=<domain>",
     domainNameOption},
    {"--turn-off-domain",
     "--domain-name=<domain_name>",
     "disables mail domain",
     disableDomain,
     "disable a domain",
     "--turn-off-domain --domain-name=<domain>",
     domainNameOption},
    {"--set-domain-disk-quota",
     "--domain-name=<domain_name> --disk-quota=<quota>",
     "sets a disk space quota to a mail domain. Negative quota == Unlimited",
     setDomainDiskQuota,
     "set a domain disk quota",
     "--set-domain-disk-quota --domain-name=<domain> --disk-quota=quota",
     {domainNameOption, diskQuotaOption}},
    {"--add-badmailfrom",
     "--domain-name=<domain_name>",
     "adds mail domain to the blacklist",
     addBadMailFrom,
     "add a badmailfrom",
     "--add-badmailfrom --domain-name=<domain>",
     domainNameOption},
    {"--remove-badmailfrom",
     "--domain-name=<domain_name>",
     "removes mail domain from the blacklist",
     removeBadMailFrom,
     "remove a badmailfrom",
     "--remove-badmailfrom --domain-name=<domain>",
     domainNameOption},
    {"--set-bounce",
     "--domain-name=<domain_name> [--phrase=<phrase>]",
     "letters sent to a nonexistent mailname, are bounced with this phrase",
     setBounce,
     "set a domain bounce",
     "--set-bounce --domain-name=<domain_name> [--phrase=<phrase>]",
     {domainNameOption, phraseOption}},
    {"--set-catchall",
     "--domain-name=<domain_name> --email=<email_address>",
     "letters sent to a nonexistent mailname, are forwarded to this email",
     setCatchAll,
     "set a domain catchall address",
     "--set-catchall --domain-name=<domain_name> --email=<email_address>",
     {domainNameOption, {"email", Value::address, "catchall e-mail address", mandatory}}},
    {"--set-reject",
     "--domain-name=<domain-name>",
     "letters sent to a nonexistent mailname are rejected",
     setReject,
     "set domain reject flag",
     "--set-reject --domain-name=<domain-name>",
     domainNameOption},
    {"--unset-reject",
     "--domain-name=<domain-name>",
     "do not reject letters sent to a nonexistent mailname",
     removeReject,
     "remove domain reject flag",
     "--unset-reject --domain-name=<domain-name>",
     domainNameOption},
    {"--add-whitelist",
     "--ip-address=<ip_address> --netmask=<netmask>",
     "adds the subnet to the white-list",
     addWhiteList,
     "add a network to whitelist",
     "--add-whitelist --ip-address=<ip_address> --netmask=<netmask>",
     networkOptions},
    {"--remove-whitelist",
     "--ip-address=<ip_address> --netmask=<netmask>",
     "removes the subnet from the white-list",
     removeWhiteList,
     "remove a network from whitelist",
     "--remove-whitelist --ip-address=<ip_address> --netmask=<netmask>",
     networkOptions},
    {"--set-maps-protection",
     "[--maps-zones=<zone1,zone2,...,zoneN>]",
     "installs MAPS protection. Absent list of zones == disabled"}, // setMapsProtection
    {"--set-accounts-format",
     "--account-format=(\"compound\" | \"both\")",
     "sets the POP3/IMAP accounts format",
     setAccountsFormat,
     "set accounts format",
     "--set-accounts-format --account-format=\"compound\"",
     {"account-format", Value::shortnameFormat,
      "Accounts format (currently only compound supported)", mandatory}},
    {"--features",
     "",
     "returns PHP code which reflects state of several features support in mailtend.\n        Currently they are auth-type and format",
     printFeatures},
    {"--set-max-letter-size",
     "--size=<size_in_bytes>",
     "sets maximum letter size",
     setMaxLetterSize,
     "set maximal letter size",
     "--set-max-letter-size --size=<size_in_bytes>",
     {"size", Value::int64, "letter size", mandatory}},
    {"--get-max-letter-size",
     "",
     "gets maximum letter size",
     getMaxLetterSize},
    {"--get-mailbox-size-limit",
     "",
     "gets size limit of mailbox",
     getMailboxLimit},
    {"--list-attachments",
     "[--in-blocks] [--fullname] --domain-name=<domain_name> (--mailname=<mail_name>|--mail-all)",
     "lists attachments for <mail_name>",
     listAttachments,
     "list attachments",
     "--list-attachments [--in-blocks] [--fullname] --domain-name=<domain_name> (--mailname=<mail_name>|--mail-all)",
     {{"in-blocks", Value::none, "report in blocks rather than bytes (false by default)"},
      {"fullname", Value::none, "report full attachment paths (false by default)"},
      domainNameOption,
      {"mail-all", Value::none, "report attachments for all mailnames (false by default)"},
      {"mailname", Value::mailname, "mailname"}}},
    {"--add-attachment",
     "--domain-name=<domain_name> --mailname=<mail_name> --file-name=<full_file_name> --attachment-file-name=<attachment_file_name>",
     "adds attachment for <mail_name>",
     addAttachment,
     "add an attachment",
     "--add-attachment --domain-name=<domain_name> --mailname=<mail_name> --file-name=<full_file_name> --attachment-file-name=<attachment_file_name>",
     {mailnameOptions, {"file-name", Value::path, "uploaded file name", mandatory},
      attachmentNameOption}},
    {"--remove-attachment",
     "--domain-name=<domain_name> --mailname=<mail_name> --attachment-file-name=<attachment_file_name>",
     "remove attachment from <mail_name>",
     removeAttachment,
     "remove an attachment",
     "--remove-attachment --domain-name=<domain_name> --mailname=<mail_name> --attachment-file-name=<attachment_file_name>",
     {mailnameOptions, attachmentNameOption}},
    {"--update-spf",
     "[--spf-behavior=spf_behavior] [--spf-rules=spf_rules] [--spf-guess=spf_guess] [--spf-exp=<spf_exp>]",
     "updates SPF support configuration files",
     updateSPF,
     "update SPF rules",
     "--update-spf [--spf-behavior=spf_behavior] [--spf-rules=spf_rules] [--spf-guess=spf_guess] [--spf-exp=<spf_exp>]",
     spfSettingOptions},
    {"--add-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "adds alias for <domain_name>",
     addDomainAlias,
     "add a domain alias",
     "--add-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name> " NOTEXISTING_USAGE,
     {domainNameOption, domainAliasOption("domain-alias-name", "domain alias name"),
      formNotexistingMailOptions()}},
    {"--del-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "removes alias for <domain_name>",
     removeDomainAlias,
     "remove a domain alias",
     "--del-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     {domainNameOption, domainAliasOption("domain-alias-name", "domain alias name")}},
    {"--rename-domain-alias",
     "--domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> --new-domain-alias-name=<new_domain_alias_name>",
     "renames alias for <domain_name>",
     renameDomainAlias,
     "rename a given domain alias",
     "--rename-domain-alias --domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> --new-domain-alias-name=<new_domain_alias_name> " NOTEXISTING_USAGE,
     {domainNameOption, domainAliasOption("old-domain-alias-name", "old domain alias name"),
      domainAliasOption("new-domain-alias-name", "new domain alias name"),
      formNotexistingMailOptions()}},
    {"--add-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --executable=<handler> --context=<context> --hook=(before-queue|before-local|before-remote) --priority=<number>",
     "adds a mail-handler",
     addHandler,
     "add a mail handler",
     "--add-handler --handler-name=<name> --handler-type=" HANDLER_TYPES
     " [--handler-type-name=<name>] --executable=<handler> --context=<context> --hook=" HANDLER_HOOKS
     " --priority=<number>" TYPE_NAME_NOTE
     NOTE "The handler is added enabled. Exit status 1 if such a handler already exists.",
     handlerOptions(mandatory)},
    {"--update-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --executable=<handler> --context=<context> --hook=(before-queue|before-local|before-remote) --priority=<number>",
     "updates a given mail-handler",
     updateHandler,
     "update a mail handler",
     "--update-handler " NAMING
     " [--executable=<handler>] [--context=<context>] [--priority=<number>]" TYPE_NAME_NOTE
     NOTE "Options left out keep the handler's executable, context and priority; it stays"
     NOTE "enabled or disabled as it was." MISSING_NOTE,
     handlerOptions(optional)},
    {"--remove-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "removes a given mail-handler",
     removeHandler,
     "remove a mail handler",
     "--remove-handler " NAMING TYPE_NAME_NOTE MISSING_NOTE,
     handlerOptions()},
    {"--disable-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "disables a given mail-handler",
     disableHandler,
     "disable a mail handler",
     "--disable-handler " NAMING TYPE_NAME_NOTE
     NOTE "Disabling a disabled handler succeeds." MISSING_NOTE,
     handlerOptions()},
    {"--enable-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "enables a given mail-handler",
     enableHandler,
     "enable a mail handler",
     "--enable-handler " NAMING TYPE_NAME_NOTE
     NOTE "Enabling an enabled handler succeeds." MISSING_NOTE,
     handlerOptions()},
    {"--check-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "checks if a given mail-handler exists",
     checkHandler,
     "check whether a mail handler exists",
     "--check-handler " NAMING TYPE_NAME_NOTE
     NOTE "Prints nothing: exit status 0 if the handler exists (enabled or not), 1 if not.",
     handlerOptions()},
    {"--set-domain-key",
     "--domain-name=<domain_name> --file-name=<full_file_name>",
     "sets DomainKey for <domain_name>",
     setDomainKey,
     "set DomainKey",
     "--set-domain-key --domain-name=<domain,domain,... > --file-name=<full_file_name>",
     {domainWordsOption, {"file-name", Value::path, "full path to uploaded key", mandatory}}},
    {"--remove-domain-key",
     "--domain-name=<domain_name>",
     "removes DomainKey for <domain_name>",
     removeDomainKey,
     "remove DomainKey",
     "--remove-domain-key --domain-name=<domain,domain,...>",
     domainWordsOption},
    {"--set-mail-params",
     "[--relayclient] [--smtpauth] [--popauth] [--poplock-time=<time_in_seconds>] [--shortnames]",
     "sets relaying & mailnames parameters"}, // setMailParams
    {"--start-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "starts entire mail service or one or more of its components"}, // startService
    {"--stop-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "stops entire mail service or its components"}, // stopService
    {"--restart-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "restarts entire mail service or one or more of its components"}, // restartService
    {"--reload-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "reloads configuration for all or selected mail components"}, // reloadService
    {"--status-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "returns status of entire mail service or its subcomponents"}, // statusService
    {"-p, --start-smtpd",
     "",
     "starts SMTP server (obsoleted, use --start-service --mail-component=smtp --mail-component=smtps)"}, // startSMTPD
    {"-o, --stop-smtpd",
     "",
     "stops SMTP server (obsoleted, use --stop-service --mail-component=smtp --mail-component=smtps)"}, // stopSMTPD
    {"-r, --restart-smtpd",
     "",
     "restarts SMTP server (obsoleted, use --restart-service --mail-component=smtp --mail-component=smtps)"}, // restartSMTPD
    {"-s, --status-smtpd",
     "",
     "SMTP server status (obsoleted, use --status-service --mail-component=smtp --mail-component=smtps)",
     statusMTA},
    {"-l, --start-qmail-send",
     "",
     "starts qmail (without xinetd), (obsoleted, use --start-service --mail-component=mta)",
     startMTA},
    {"-m, --stop-qmail-send",
     "",
     "stops qmail(without xinetd), (obsoleted, use --stop-service --mail-component=mta)",
     stopMTA},
    {"-i, --start-maild",
     "",
     "starts courier-imap (obsoleted, use --start-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     startIMAP},
    {"-t, --stop-maild",
     "",
     "stops courier-imap (obsoleted, use --stop-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     stopIMAP},
    {"-z, --restart-maild",
     "",
     "restarts courier-imap (obsoleted, use --restart-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     restartIMAP},
    {"-e, --status-maild",
     "",
     "returns courier-imap status (obsoleted, use --status-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     statusIMAP},
    {"-a, --enable-message-submission",
     "",
     "enables message submission (obsoleted, use --start-service --mail-component=submission"}, // enableSubmission
    {"-b, --disable-message-submission",
     "",
     "disables message submission (obsoleted, use --stop-service --mail-component=submission)"}, // disableSubmission
    {"--help-commands",
     "",
     "displays mailtend commands list and exit",
     ::usageCommandsCmd},
    {"--help-legacy",
     "",
     "displays legacy mailtend help and exit",
     ::usageLegacyCmd},
    {"-h, --help",
     "",
     "displays mailtend usage summary and exit",
     ::usageShortCmd},
};

const std::size_t command_table_size = sizeof command_table / sizeof command_table[0];

} // namespace zarnet::mail::postfix::mailtend_commands
