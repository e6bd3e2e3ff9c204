"""The front end through the real binary: dispatch, help texts, exit statuses
and the split between standard output and standard error."""
import pytest

SHORT_USAGE = (
    "Usage: mailtend <COMMAND> <COMMAND OPTIONS...>\n"
    "\t for a complete list of commands use ``mailtend --help-commands''\n"
    "\t for help on syntax for a particular command use ``mailtend <COMMAND> --help''\n"
    "\t for legacy complete help use ``mailtend --help-legacy''\n"
)


def test_no_command(sandbox):
    r = sandbox.mailtend()
    assert (r.rc, r.out, r.err) == (1, "", "Error: no command specified\n" + SHORT_USAGE), r


@pytest.mark.parametrize("word", [
    "--frobnicate",
    "--add-domain=example.com",   # attached value is not a command word
    "--help-command",             # abbreviations are not completed
    "--FEATURES",                 # case matters
    "features",
    "-",
    "",
])
def test_unknown_command_word(sandbox, word):
    r = sandbox.mailtend(word, "--domain-name=x")
    assert r.rc == 1, r
    assert r.out == "", r
    assert r.err == f"Error: invalid command {word}\n" + SHORT_USAGE, r


@pytest.mark.parametrize("word", ["-h", "--help"])
def test_short_usage_on_request(sandbox, word):
    r = sandbox.mailtend(word, "ignored", "--arguments")
    assert (r.rc, r.out, r.err) == (0, SHORT_USAGE, ""), r


def test_help_commands_layout(sandbox):
    r = sandbox.mailtend("--help-commands")
    assert r.rc == 0 and r.err == "", r
    lines = r.out.split("\n")
    assert lines[0] == "Mailtend commands:"
    assert lines[-1] == "", "output must end with a line end"
    body = lines[1:-1]
    entries = [l for l in body if not l.startswith("        ")]
    continuations = [l for l in body if l.startswith("        ")]
    assert len(entries) == 69
    # Descriptions begin in column 35: the longest command text plus two.
    for line in entries:
        assert line[34] != " " and line[33] == " ", repr(line)
    assert entries[0] == "--add-mailname" + " " * 20 + \
        "adds mailname to the mail domain. Optionally sets the mailbox quota"
    assert entries[64] == "-a, --enable-message-submission   enables message submission " \
        "(obsoleted, use --start-service --mail-component=submission"
    assert entries[65].startswith("-b, --disable-message-submission  disables")
    assert entries[68] == "-h, --help" + " " * 24 + "displays mailtend usage summary and exit"
    # Entries 3, 4, 7 carry two embedded line feeds each, entry 30 one.
    assert len(continuations) == 7
    assert continuations[-1] == "        Currently they are auth-type and format"


def test_help_legacy_layout(sandbox):
    r = sandbox.mailtend("--help-legacy")
    assert r.rc == 0 and r.err == "", r
    lines = r.out.split("\n")
    assert lines[0] == "Usage: mailtend [OPTIONS]... "
    assert lines[-1] == ""
    assert len(lines[1:-1]) == 2 * 69 + 7
    assert lines[1] == "  --add-mailname --domain-name=<domain_name> --mailname=<mail_name> " \
        "[--disk-quota=<quota>]"
    assert lines[2] == "        adds mailname to the mail domain. Optionally sets the mailbox quota"
    # An entry without syntax keeps the separating blank.
    assert "  -p, --start-smtpd " in lines
    assert '  --set-accounts-format --account-format=("compound" | "both")' in lines
    assert lines[-3:-1] == ["  -h, --help ", "        displays mailtend usage summary and exit"]


FEATURES = [
    "MailName_SetName", "MailName_SetDomain", "MailName_Quota", "MailName_SetQuota",
    "MailName_Size", "MailName_Password", "MailName_SetPassword", "MailName_Postbox",
    "MailName_SetPostbox", "MailName_Forward", "MailName_MultiForward", "MailName_SetForward",
    "MailName_AutoResponder", "MailName_SetAutoResponder", "MailName_Aliases", "Domain_SetName",
    "Domain_Enable", "Domain_SetEnable", "Domain_Quota", "Domain_SetQuota", "Domain_Bounce",
    "Domain_SetBounce", "Domain_Catch", "Domain_SetCatch", "Domain_Reject", "Common_BadMail",
    "Common_MaxLetterSize", "Common_SetMaxLetterSize", "Relay", "Relay_Set", "Relay_Open",
    "Relay_Closed", "Relay_AuthorizationIsRequired", "Relay_AuthType_None",
    "Relay_AuthType_POP3_SMTP", "Relay_AuthType_POP3", "Relay_AuthType_SMTP",
    "Relay_POP3_LockTime", "Relay_WhiteList", "Relay_WhiteList_Mask", "Relay_BlackList",
    "Relay_WhiteList_BlackList", "MapsProtection", "SetMapsProtection", "AccountsFormat_Simple",
    "AccountsFormat_Compound", "AccountsFormat_Both", "AccountsFormat_Set", "Mail_Send",
    "Mail_Attachments", "Mail_Forward", "SMTP_Server", "IMAP_POP3_Server", "SMTP_Server_package",
    "IMAP_POP3_Server_package", "Message_Submission", "Message_Submission_all_IP",
    "Message_Submission_Dedicated_IP",
]
FALSE = {"Relay_AuthType_POP3", "AccountsFormat_Simple", "AccountsFormat_Both",
         "Message_Submission_Dedicated_IP"}
QUOTED = {"SMTP_Server": "Postfix", "IMAP_POP3_Server": "Courier-IMAP",
          "SMTP_Server_package": "postfix", "IMAP_POP3_Server_package": "courier-imap"}


def expected_feature_line(name):
    if name in QUOTED:
        return f"$features['{name}'] = \"{QUOTED[name]}\";"
    return f"$features['{name}'] = {'false' if name in FALSE else 'true'};"


def test_features_report_is_exact(sandbox):
    r = sandbox.mailtend("--features")
    assert r.rc == 0 and r.err == "", r
    want = "".join(expected_feature_line(n) + "\n" for n in FEATURES)
    assert len(FEATURES) == 58
    assert r.out == want


def test_features_ignores_its_arguments(sandbox):
    # No option set: the report never fails on what follows it.
    r = sandbox.mailtend("--features", "--whatever", "x")
    assert r.rc == 0 and r.out.count("\n") == 58, r


def test_features_report_identifies_the_server_style(sandbox):
    """The style probe reads the SMTP_Server line: its value must be quoted
    and start right after the fixed 24-character prefix."""
    line = next(l for l in sandbox.mailtend("--features").out.splitlines()
                if l.startswith("$features['SMTP_Server']"))
    assert line[:24] == "$features['SMTP_Server']"
    rest = line[24:]
    start = min(i for i in (rest.find('"'), rest.find("'")) if i >= 0)
    value = rest[start + 1:].split('"')[0].split("'")[0]
    assert "postfix".startswith(value.lower()) and value


@pytest.mark.parametrize("word", ["--add-domain", "--remove-domain", "--add-mailname",
                                  "--start-service", "-p", "--start-smtpd"])
def test_unbuilt_commands_are_not_dispatched(sandbox, word):
    # Until a command's handler exists its word must fail, never pretend success.
    r = sandbox.mailtend(word, "--help")
    assert r.rc == 1 and r.err.startswith(f"Error: invalid command {word}\n"), r
