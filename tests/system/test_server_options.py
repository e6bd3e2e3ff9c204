"""Server-wide option commands through the real binary: the sender-domain
black list in its lookup table, and the size limits read from main.cf."""
import pytest

BLACKLISTS = "/var/spool/postfix/zarnet/blacklists"


def help_block(description, usage):
    return (f"{description}\nUsage: {usage}\nAllowed options to {description}:\n"
            "  --domain-name arg     domain name (mandatory)\n"
            "  -h [ --help ]         displays this help message\n\n")


BLACK_COMMANDS = {
    "--add-badmailfrom": help_block("add a badmailfrom", "--add-badmailfrom --domain-name=<domain>"),
    "--remove-badmailfrom": help_block("remove a badmailfrom",
                                       "--remove-badmailfrom --domain-name=<domain>"),
}


def ok(r):
    assert (r.rc, r.out, r.err) == (0, "", ""), r


def test_black_list_round_trip(sandbox):
    ok(sandbox.mailtend("--add-badmailfrom", "--domain-name=Spam.Example.COM"))
    ok(sandbox.mailtend("--add-badmailfrom", "--domain-name", "b\u00fccher.example"))
    ok(sandbox.mailtend("--add-badmailfrom", "--domain-name=spam.example.com"))  # again
    assert sandbox.postmap_s("blacklists") == {
        "spam.example.com": "REJECT",
        "xn--bcher-kva.example": "REJECT",
    }
    ok(sandbox.mailtend("--remove-badmailfrom", "--domain-name=SPAM.example.com"))
    ok(sandbox.mailtend("--remove-badmailfrom", "--domain-name=never-listed.example"))
    assert sandbox.postmap_s("blacklists") == {"xn--bcher-kva.example": "REJECT"}
    assert not sandbox.exists(BLACKLISTS), "no text source may outlive a change"


@pytest.mark.parametrize("command", sorted(BLACK_COMMANDS))
def test_black_list_options(sandbox, command):
    want_help = BLACK_COMMANDS[command]
    r = sandbox.mailtend(command, "--help")
    assert (r.rc, r.out, r.err) == (0, want_help, ""), r

    missing = 'mandatory option "--domain-name" is not specified\n'
    r = sandbox.mailtend(command)
    assert (r.rc, r.err, r.out) == (1, missing, missing + want_help), r

    for args in (["--help", "--bogus"],                                    # parse error beats help
                 ["--domain-name=a.example", "--domain-name=b.example"],  # repeated
                 ["--domain=a.example"],                                   # abbreviation
                 ["--domain-name=a.example", "--add-domain"],              # second command
                 ["--domain-name=a.example", "stray"]):                    # surplus value
        r = sandbox.mailtend(command, *args)
        assert r.rc == 1 and r.out == r.err + want_help and r.err.count("\n") == 1, r
    assert sandbox.postmap_s("blacklists") == {}


@pytest.mark.parametrize("name,error", [
    ("a" * 64 + ".example", "Invalid length"),
    ("bad\u0221name.example", "Stringprep error"),   # unassigned code point
])
def test_bad_domain_names_touch_nothing(sandbox, name, error):
    ok(sandbox.mailtend("--add-badmailfrom", "--domain-name=kept.example"))
    for command in BLACK_COMMANDS:
        r = sandbox.mailtend(command, "--domain-name=" + name)
        line = f"Fatal error: zarnet::idn::IdnaError({error})\n"
        assert (r.rc, r.out, r.err) == (1, line, line), r
    assert sandbox.postmap_s("blacklists") == {"kept.example": "REJECT"}


def test_compiler_failure_is_reported_with_its_text(sandbox):
    sandbox.write(BLACKLISTS + ".db", b"not a table\n")
    for command, cls in (("--add-badmailfrom", "PostfixConfigurationError"),
                         ("--remove-badmailfrom", "PostfixDatabaseError")):
        r = sandbox.mailtend(command, "--domain-name=x.example")
        assert r.rc == 1, r
        assert r.out == r.err, r
        assert r.out.startswith(f"Fatal error: zarnet::mail::postfix::{cls}(postmap: fatal: "), r
        assert "blacklists.db" in r.out, r
    assert not sandbox.exists(BLACKLISTS)


@pytest.mark.parametrize("command,parameter", [
    ("--get-max-letter-size", "message_size_limit"),
    ("--get-mailbox-size-limit", "mailbox_size_limit"),
])
def test_size_limits(sandbox, command, parameter):
    for value, printed in (("10240000", "10240000"), ("0", "0"),
                           ("9223372036854775807", "9223372036854775807")):
        sandbox.postconf_e(f"{parameter}={value}")
        before = sandbox.stat("/etc/postfix/main.cf").st_mtime
        r = sandbox.mailtend(command)
        assert (r.rc, r.out, r.err) == (0, printed + "\n", ""), r
        assert sandbox.stat("/etc/postfix/main.cf").st_mtime == before, "a read wrote main.cf"

    for bad in ("12abc", "", "99999999999999999999"):
        sandbox.postconf_e(f"{parameter}={bad}")
        r = sandbox.mailtend(command)
        assert r.rc == 1 and r.out == r.err, r
        assert r.out.startswith("Fatal error: ") and "bad_lexical_cast" in r.out, r
