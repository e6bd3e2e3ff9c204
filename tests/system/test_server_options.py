"""The sender-domain black list in its real lookup table; size limits read from main.cf."""

import pytest

from conftest import EXPECTED
from sandbox import MAIN_CF, TABLE_DIR

BLACKLISTS = TABLE_DIR + "/blacklists"
COMMANDS = ["--add-badmailfrom", "--remove-badmailfrom"]


@pytest.fixture
def sb(module_sandbox):
    if not hasattr(module_sandbox, "empty_blacklists"):
        module_sandbox.empty_blacklists = module_sandbox.read(BLACKLISTS + ".db")
    module_sandbox.write(BLACKLISTS + ".db", module_sandbox.empty_blacklists)
    return module_sandbox


def test_black_list_round_trip(sb):
    sb.mailtend("--add-badmailfrom", "--domain-name=Spam.Example.COM").expect()
    sb.mailtend("--add-badmailfrom", "--domain-name", "b\u00fccher.example").expect()
    sb.mailtend("--add-badmailfrom", "--domain-name=spam.example.com").expect()  # again
    assert sb.postmap_s("blacklists") == {"spam.example.com": "REJECT",
                                          "xn--bcher-kva.example": "REJECT"}
    sb.mailtend("--remove-badmailfrom", "--domain-name=SPAM.example.com").expect()
    sb.mailtend("--remove-badmailfrom", "--domain-name=never-listed.example").expect()
    assert sb.postmap_s("blacklists") == {"xn--bcher-kva.example": "REJECT"}
    assert not sb.exists(BLACKLISTS), "no text source may outlive a change"


@pytest.mark.parametrize("command", COMMANDS)
def test_black_list_options(sb, command):
    want_help = EXPECTED[(command, "--help")]
    missing = 'mandatory option "--domain-name" is not specified\n'
    sb.mailtend(command).expect(1, missing + want_help, missing)
    for args in (["--help", "--bogus"],                                    # parse error beats help
                 ["--domain-name=a.example", "--domain-name=b.example"],  # repeated
                 ["--domain=a.example"],                                   # abbreviation
                 ["--domain-name=a.example", "--add-domain"],              # second command
                 ["--domain-name=a.example", "stray"]):                    # surplus value
        r = sb.mailtend(command, *args)
        assert r.rc == 1 and r.out == r.err + want_help and r.err.count("\n") == 1, r
    assert sb.postmap_s("blacklists") == {}


def test_compiler_failure_is_reported_with_its_text(sb):
    sb.write(BLACKLISTS + ".db", b"not a table\n")
    for command, cls in zip(COMMANDS, ("PostfixConfigurationError", "PostfixDatabaseError")):
        r = sb.mailtend(command, "--domain-name=x.example")
        assert r.rc == 1 and r.out == r.err and "blacklists.db" in r.out, r
        assert r.out.startswith(f"Fatal error: zarnet::mail::postfix::{cls}(postmap: fatal: "), r
    assert not sb.exists(BLACKLISTS)


@pytest.mark.parametrize("command,parameter", [("--get-max-letter-size", "message_size_limit"),
                                               ("--get-mailbox-size-limit", "mailbox_size_limit")])
def test_size_limits(sb, command, parameter):
    for value in ("10240000", "0", "9223372036854775807", "12abc", "", "99999999999999999999"):
        sb.postconf_e(f"{parameter}={value}")
        before = sb.stat(MAIN_CF).st_mtime
        r = sb.mailtend(command)
        if value.isdigit() and len(value) < 20:
            r.expect(0, value + "\n", "")
        else:
            assert r.rc == 1 and r.out == r.err and r.out.startswith("Fatal error: "), r
            assert "bad_lexical_cast" in r.out, r
        assert sb.stat(MAIN_CF).st_mtime == before, "a read wrote main.cf"
