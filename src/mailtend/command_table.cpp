#include "mailtend/command_table.h"

#include "mailtend/AttachmentCommands.h"
#include "mailtend/DomainOptionsCommands.h"
#include "mailtend/HandlerCommands.h"
#include "mailtend/MailnameCommands.h"
#include "mailtend/MailnameOptionsCommands.h"
#include "mailtend/ServerOptionsCommands.h"
#include "mailtend/usage.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

// Commands whose handler is null are listed but not dispatched yet; the
// comment names the handler that will serve them.
const CommandEntry command_table[] = {
    {"--add-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
     "adds mailname to the mail domain. Optionally sets the mailbox quota",
     nullptr}, // addMailname
    {"--remove-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes mailname to the mail domain",
     nullptr}, // removeMailname
    {"--rename-mailname",
     "--domain-name=<domain_name> --old-mailname=<old_mail_name> --new-mailname=<new_mail_name>",
     "renames a mailname in the mail domain. Optionally sets the mailbox password.\n        The noncrypted password is transferred in the environment variable ZRN_PASSWORD,\n        or crypted password is transferred in the environment variable ZRN_CRYPTED_PASSWORD",
     nullptr}, // renameMailname
    {"--add-mailbox",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "adds a mailbox for a given mailname.\n        The noncrypted password is transferred in the environment variable ZRN_PASSWORD,\n        or crypted password is transferred in the environment variable ZRN_CRYPTED_PASSWORD",
     addMailbox},
    {"--remove-mailbox",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes a mailbox for a given mailname.",
     removeMailbox},
    {"--get-mailbox-size",
     "[--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     "returns the size of mailbox for a mailname.",
     getMailboxSize},
    {"--set-password",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "sets the password for a mailname\n        The noncrypted password is transferred in the environment variable ZRN_PASSWORD,\n        or crypted password is transferred in the environment variable ZRN_CRYPTED_PASSWORD",
     setPassword},
    {"--set-mailbox-disk-quota",
     "--domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     "sets the disk quota for a mailbox. Negative quota == Unlimited",
     setMailboxDiskQuota},
    {"--add-redirect",
     "--domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     "adds mail redirect from the mailname",
     addRedirect},
    {"--remove-redirect",
     "--domain-name=<domain_name> --mailname=<mail_name> --redirect-email=<email>",
     "removes mail redirect from the mailname",
     removeRedirect},
    {"--set-autoresponder",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "enables autoresponder for mailname",
     addAutoresponder},
    {"--reset-autoresponder",
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "disables autoresponder for mailname",
     removeAutoresponder},
    {"--add-alias",
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "adds an alias for mailname",
     nullptr}, // addAlias
    {"--remove-alias",
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "removes an alias for mailname",
     nullptr}, // removeAlias
    {"--add-domain",
     "--domain-name=<domain_name> [--disk-quota=<quota>]",
     "adds mail domain",
     nullptr}, // addDomain
    {"--remove-domain",
     "--domain-name=<domain_name>",
     "removes mail domain",
     nullptr}, // removeDomain
    {"--turn-on-domain",
     "--domain-name=<domain_name>",
     "enables mail domain",
     nullptr}, // enableDomain
    {"--turn-off-domain",
     "--domain-name=<domain_name>",
     "disables mail domain",
     nullptr}, // disableDomain
    {"--set-domain-disk-quota",
     "--domain-name=<domain_name> --disk-quota=<quota>",
     "sets a disk space quota to a mail domain. Negative quota == Unlimited",
     setDomainDiskQuota},
    {"--add-badmailfrom",
     "--domain-name=<domain_name>",
     "adds mail domain to the blacklist",
     addBadMailFrom},
    {"--remove-badmailfrom",
     "--domain-name=<domain_name>",
     "removes mail domain from the blacklist",
     removeBadMailFrom},
    {"--set-bounce",
     "--domain-name=<domain_name> [--phrase=<phrase>]",
     "letters sent to a nonexistent mailname, are bounced with this phrase",
     nullptr}, // setBounce
    {"--set-catchall",
     "--domain-name=<domain_name> --email=<email_address>",
     "letters sent to a nonexistent mailname, are forwarded to this email",
     nullptr}, // setCatchAll
    {"--set-reject",
     "--domain-name=<domain-name>",
     "letters sent to a nonexistent mailname are rejected",
     nullptr}, // setReject
    {"--unset-reject",
     "--domain-name=<domain-name>",
     "do not reject letters sent to a nonexistent mailname",
     nullptr}, // removeReject
    {"--add-whitelist",
     "--ip-address=<ip_address> --netmask=<netmask>",
     "adds the subnet to the white-list",
     nullptr}, // addWhiteList
    {"--remove-whitelist",
     "--ip-address=<ip_address> --netmask=<netmask>",
     "removes the subnet from the white-list",
     nullptr}, // removeWhiteList
    {"--set-maps-protection",
     "[--maps-zones=<zone1,zone2,...,zoneN>]",
     "installs MAPS protection. Absent list of zones == disabled",
     nullptr}, // setMapsProtection
    {"--set-accounts-format",
     "--account-format=(\"compound\" | \"both\")",
     "sets the POP3/IMAP accounts format",
     nullptr}, // setAccountsFormat
    {"--features",
     "",
     "returns PHP code which reflects state of several features support in mailtend.\n        Currently they are auth-type and format",
     printFeatures},
    {"--set-max-letter-size",
     "--size=<size_in_bytes>",
     "sets maximum letter size",
     nullptr}, // setMaxLetterSize
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
     listAttachments},
    {"--add-attachment",
     "--domain-name=<domain_name> --mailname=<mail_name> --file-name=<full_file_name> --attachment-file-name=<attachment_file_name>",
     "adds attachment for <mail_name>",
     addAttachment},
    {"--remove-attachment",
     "--domain-name=<domain_name> --mailname=<mail_name> --attachment-file-name=<attachment_file_name>",
     "remove attachment from <mail_name>",
     removeAttachment},
    {"--update-spf",
     "[--spf-behavior=spf_behavior] [--spf-rules=spf_rules] [--spf-guess=spf_guess] [--spf-exp=<spf_exp>]",
     "updates SPF support configuration files",
     nullptr}, // updateSPF
    {"--add-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "adds alias for <domain_name>",
     nullptr}, // addDomainAlias
    {"--del-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "removes alias for <domain_name>",
     nullptr}, // removeDomainAlias
    {"--rename-domain-alias",
     "--domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> --new-domain-alias-name=<new_domain_alias_name>",
     "renames alias for <domain_name>",
     nullptr}, // renameDomainAlias
    {"--add-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --executable=<handler> --context=<context> --hook=(before-queue|before-local|before-remote) --priority=<number>",
     "adds a mail-handler",
     addHandler},
    {"--update-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --executable=<handler> --context=<context> --hook=(before-queue|before-local|before-remote) --priority=<number>",
     "updates a given mail-handler",
     updateHandler},
    {"--remove-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "removes a given mail-handler",
     removeHandler},
    {"--disable-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "disables a given mail-handler",
     disableHandler},
    {"--enable-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "enables a given mail-handler",
     enableHandler},
    {"--check-handler",
     "--handler-name=<name> --handler-type=(global|sender|recipient|sender-domain|recipient-domain) --handler-type-name=<name> --hook=(before-queue|before-local|before-remote)",
     "checks if a given mail-handler exists",
     checkHandler},
    {"--set-domain-key",
     "--domain-name=<domain_name> --file-name=<full_file_name>",
     "sets DomainKey for <domain_name>",
     nullptr}, // setDomainKey
    {"--remove-domain-key",
     "--domain-name=<domain_name>",
     "removes DomainKey for <domain_name>",
     nullptr}, // removeDomainKey
    {"--set-mail-params",
     "[--relayclient] [--smtpauth] [--popauth] [--poplock-time=<time_in_seconds>] [--shortnames]",
     "sets relaying & mailnames parameters",
     nullptr}, // setMailParams
    {"--start-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "starts entire mail service or one or more of its components",
     nullptr}, // startService
    {"--stop-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "stops entire mail service or its components",
     nullptr}, // stopService
    {"--restart-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "restarts entire mail service or one or more of its components",
     nullptr}, // restartService
    {"--reload-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "reloads configuration for all or selected mail components",
     nullptr}, // reloadService
    {"--status-service",
     "[--mail-component={mta|smtp|smtps|submission|pop3|imap|pop3s|imaps|all}] [--mail-component=...]",
     "returns status of entire mail service or its subcomponents",
     nullptr}, // statusService
    {"-p, --start-smtpd",
     "",
     "starts SMTP server (obsoleted, use --start-service --mail-component=smtp --mail-component=smtps)",
     nullptr}, // startSMTPD
    {"-o, --stop-smtpd",
     "",
     "stops SMTP server (obsoleted, use --stop-service --mail-component=smtp --mail-component=smtps)",
     nullptr}, // stopSMTPD
    {"-r, --restart-smtpd",
     "",
     "restarts SMTP server (obsoleted, use --restart-service --mail-component=smtp --mail-component=smtps)",
     nullptr}, // restartSMTPD
    {"-s, --status-smtpd",
     "",
     "SMTP server status (obsoleted, use --status-service --mail-component=smtp --mail-component=smtps)",
     nullptr}, // statusMTA
    {"-l, --start-qmail-send",
     "",
     "starts qmail (without xinetd), (obsoleted, use --start-service --mail-component=mta)",
     nullptr}, // startMTA
    {"-m, --stop-qmail-send",
     "",
     "stops qmail(without xinetd), (obsoleted, use --stop-service --mail-component=mta)",
     nullptr}, // stopMTA
    {"-i, --start-maild",
     "",
     "starts courier-imap (obsoleted, use --start-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     nullptr}, // startIMAP
    {"-t, --stop-maild",
     "",
     "stops courier-imap (obsoleted, use --stop-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     nullptr}, // stopIMAP
    {"-z, --restart-maild",
     "",
     "restarts courier-imap (obsoleted, use --restart-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     nullptr}, // restartIMAP
    {"-e, --status-maild",
     "",
     "returns courier-imap status (obsoleted, use --status-service --mail-component=imap --mail-component=pop3 --mail-component=imaps --mail-component=pop3s)",
     nullptr}, // statusIMAP
    {"-a, --enable-message-submission",
     "",
     "enables message submission (obsoleted, use --start-service --mail-component=submission",
     nullptr}, // enableSubmission
    {"-b, --disable-message-submission",
     "",
     "disables message submission (obsoleted, use --stop-service --mail-component=submission)",
     nullptr}, // disableSubmission
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

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
