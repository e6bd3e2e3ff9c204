"""The front end through the real binary: dispatch, help texts, exit statuses and the split
between standard output and standard error."""

import pytest

USAGE = ("Usage: mailtend <COMMAND> <COMMAND OPTIONS...>\n"
         "\t for a complete list of commands use ``mailtend --help-commands''\n"
         "\t for help on syntax for a particular command use ``mailtend <COMMAND> --help''\n"
         "\t for legacy complete help use ``mailtend --help-legacy''\n")
FEATURES = (
    "MailName_SetName MailName_SetDomain MailName_Quota MailName_SetQuota MailName_Size "
    "MailName_Password MailName_SetPassword MailName_Postbox MailName_SetPostbox MailName_Forward "
    "MailName_MultiForward MailName_SetForward MailName_AutoResponder MailName_SetAutoResponder "
    "MailName_Aliases Domain_SetName Domain_Enable Domain_SetEnable Domain_Quota Domain_SetQuota "
    "Domain_Bounce Domain_SetBounce Domain_Catch Domain_SetCatch Domain_Reject Common_BadMail "
    "Common_MaxLetterSize Common_SetMaxLetterSize Relay Relay_Set Relay_Open Relay_Closed "
    "Relay_AuthorizationIsRequired Relay_AuthType_None Relay_AuthType_POP3_SMTP "
    "-Relay_AuthType_POP3 Relay_AuthType_SMTP Relay_POP3_LockTime Relay_WhiteList "
    "Relay_WhiteList_Mask Relay_BlackList Relay_WhiteList_BlackList MapsProtection "
    "SetMapsProtection -AccountsFormat_Simple AccountsFormat_Compound -AccountsFormat_Both "
    "AccountsFormat_Set Mail_Send Mail_Attachments Mail_Forward SMTP_Server=Postfix "
    "IMAP_POP3_Server=Courier-IMAP SMTP_Server_package=postfix "
    "IMAP_POP3_Server_package=courier-imap Message_Submission Message_Submission_all_IP "
    "-Message_Submission_Dedicated_IP").split()


def feature_line(word):
    name, _, quoted = word.lstrip("-").partition("=")
    value = f'"{quoted}"' if quoted else "false" if word.startswith("-") else "true"
    return f"$features['{name}'] = {value};\n"


INVALID = [  # words that are no command: attached values, abbreviations, case, commands not built
    "--frobnicate", "--add-domain=example.com", "--help-command", "--FEATURES", "features", "-",
    "", "--add-domain", "--remove-domain", "--add-mailname", "--start-service", "-p",
    "--start-smtpd"]
CASES = [
    ([], 1, "", "Error: no command specified\n" + USAGE),
    *(([w, "--domain-name=x", "--help"], 1, "", f"Error: invalid command {w}\n" + USAGE)
      for w in INVALID),
    (["-h", "ignored", "--arguments"], 0, USAGE, ""),
    (["--help"], 0, USAGE, ""),
    (["--features"], 0, "".join(map(feature_line, FEATURES)), ""),
    # the report takes no options, so nothing after it can make it fail
    (["--features", "--whatever", "x"], 0, "".join(map(feature_line, FEATURES)), ""),
]


@pytest.mark.parametrize("argv,rc,out,err", CASES, ids=[repr(c[0][:1]) for c in CASES])
def test_dispatch(module_sandbox, argv, rc, out, err):
    module_sandbox.mailtend(*argv).expect(rc, out, err)


def test_help_commands_layout(module_sandbox):
    lines = module_sandbox.mailtend("--help-commands").expect(0, None).out.split("\n")
    assert (lines[0], lines[-1]) == ("Mailtend commands:", ""), "no title or no final line end"
    entries = [line for line in lines[1:-1] if not line.startswith("        ")]
    continuations = [line for line in lines[1:-1] if line.startswith("        ")]
    assert len(entries) == 69
    # descriptions begin in column 35: the longest command text plus two
    assert all(line[34] != " " and line[33] == " " for line in entries), entries
    assert entries[0] == "--add-mailname" + " " * 20 + \
        "adds mailname to the mail domain. Optionally sets the mailbox quota"
    assert entries[64] == "-a, --enable-message-submission   enables message submission " \
        "(obsoleted, use --start-service --mail-component=submission"
    assert entries[65].startswith("-b, --disable-message-submission  disables")
    assert entries[68] == "-h, --help" + " " * 24 + "displays mailtend usage summary and exit"
    # entries 3, 4 and 7 carry two embedded line feeds each, entry 30 one
    assert len(continuations) == 7
    assert continuations[-1] == "        Currently they are auth-type and format"


def test_help_legacy_layout(module_sandbox):
    lines = module_sandbox.mailtend("--help-legacy").expect(0, None).out.split("\n")
    assert (lines[0], lines[-1], len(lines)) == ("Usage: mailtend [OPTIONS]... ", "", 2 * 69 + 9)
    assert lines[1:3] == [
        "  --add-mailname --domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
        "        adds mailname to the mail domain. Optionally sets the mailbox quota"]
    # an entry without syntax keeps the separating blank
    assert "  -p, --start-smtpd " in lines
    assert '  --set-accounts-format --account-format=("compound" | "both")' in lines
    assert lines[-3:-1] == ["  -h, --help ", "        displays mailtend usage summary and exit"]
