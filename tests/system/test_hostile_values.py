"""Hostile names and values are refused before anything changes; valid ones still pass."""

import pytest

from conftest import EXPECTED
from sandbox import MAILNAMES, MAIN_CF, TABLE_DIR

HANDLERS = "/usr/local/zrn/handlers"
EXE = "/usr/local/bin/spamfilter"
WATCHED = (MAILNAMES, HANDLERS, "/etc/zrn-spf", "/etc/domainkeys")
REDIRECT = ["--add-redirect", "--domain-name=example.com", "--mailname=info"]
HANDLER = ["--add-handler", "--handler-name=spam", "--handler-type=recipient",
           "--handler-type-name=info@example.com", f"--executable={EXE}", "--context=panel",
           "--hook=before-local", "--priority=10"]


def handler(option, value, *more):
    """HANDLER with options replaced: option, value[, option, value...]."""
    changes = dict(zip((option, *more[::2]), (value, *more[1::2])))
    return [a for a in HANDLER if a.split("=")[0] not in changes] + [
        f"{o}={v}" for o, v in changes.items()]


# command and options, the one-line message ("Fatal error: " lines are not option errors)
REFUSED = [
    # domain names
    *((["--add-badmailfrom", "--domain-name", name], f'domain name "{shown}" {reason}') for
      name, shown, reason in [
          ("a b.example", "a b.example", "holds ' ', not a letter, digit, hyphen or dot"),
          ('q"x.example', 'q\\"x.example', "holds '\"', not a letter, digit, hyphen or dot"),
          ("a\nb.example", "a\\nb.example", "holds a control character"),
          ("a..b", "a..b", "has an empty label"),
          ("", "", "is empty")]),
    (["--add-badmailfrom", "--domain-name=bad\u0221name.example"],
     "Fatal error: zarnet::idn::IdnaError(Stringprep error)"),
    (["--set-autoresponder", "--mailname=info", "--domain-name=a.example, b_c.example"],
     'domain name list "a.example, b_c.example" has an item "b_c.example" that holds \'_\', '
     "not a letter, digit, hyphen or dot"),
    (["--remove-domain-key", "--domain-name=a.example,\tb\u00fccher.example x'y.example"],
     'domain name list "a.example,\\tb\u00fccher.example x\'y.example" has an item '
     "\"x'y.example\" that holds ''', not a letter, digit, hyphen or dot"),
    # mailnames and addresses
    (REDIRECT[:2] + ["--mailname=|x", "--redirect-email=a@b.example"],
     "mailname \"|x\" begins with '|'"),
    (["--set-autoresponder", "--mailname=info, a b", "--domain-name=example.com"],
     "mailname list \"info, a b\" has an item \"a b\" that holds ' '"),
    *((REDIRECT + ["--redirect-email=" + email], f'mail address "{shown}" {reason}') for
      email, shown, reason in [
          ("a@", "a@", "has a domain that is empty"),
          ("@b.example", "@b.example", "has an empty local part"),
          ("ab.example", "ab.example", "has no '@'"),
          ("a@b@c.example", "a@b@c.example", "has more than one '@'"),
          ("|/tmp/x@y.example", "|/tmp/x@y.example", "has a local part that begins with '|'"),
          ("/tmp/x@y.example", "/tmp/x@y.example", "has a local part beginning with '/'"),
          ("a b@y.example", "a b@y.example", "has a local part that holds ' '"),
          ("a@y.example\n|x", "a@y.example\\n|x", "holds a control character"),
          ("a@b..example", "a@b..example", "has a domain that has an empty label"),
          ("x" * 70000 + "@y.example", "x" * 64 + "...", "is longer than 254 characters")]),
    # mail handlers
    (handler("--handler-type-name", "info@example.com\nx"),
     'mail address "info@example.com\\nx" holds a control character'),
    (handler("--handler-type-name", "../x"), "mail address \"../x\" has no '@'"),
    (handler("--handler-type", "sender-domain", "--handler-type-name", "a b.example"),
     "domain name \"a b.example\" holds ' ', not a letter, digit, hyphen or dot"),
    (handler("--executable", "/usr/local/bin"),
     'handler executable "/usr/local/bin" is not an executable file'),
    (handler("--executable", "spamfilter"),
     'handler executable "spamfilter" is not an absolute path'),
    (handler("--handler-name", "sp am"), "handler name \"sp am\" holds a character other than "
     "letters, digits, '.', '_' and '-'"),
    (handler("--context", "a\nb"), 'handler context "a\\nb" holds a control character'),
    (handler("--priority", "1" * 10), 'handler priority "1111111111" is too large'),
    # SPF and attachment names: text written into files
    (["--update-spf", "--spf-rules=a\nb"], 'SPF rules "a\\nb" holds a control character'),
    (["--update-spf", "--spf-exp=" + "x" * 1025],
     f'SPF exp "{"x" * 64}..." is longer than 1024 bytes'),
    (["--remove-attachment", "--domain-name=example.com", "--mailname=info",
      "--attachment-file-name=a\rb"], 'attachment file name "a\\x0db" holds a control character'),
    # bounce texts may span lines, nothing else; catch-alls are mail addresses
    (["--set-bounce", "--domain-name=example.com", "--phrase=a\nb\rc"],
     'phrase "a\\nb\\x0dc" holds a control character'),
    (["--set-catchall", "--domain-name=example.com", "--email=|x@y.example"],
     "mail address \"|x@y.example\" has a local part that begins with '|'"),
    # relay networks: nothing that opens the relay or that Postfix would refuse
    *((["--add-whitelist", f"--ip-address={ip}", f"--netmask={mask}"], message) for
      ip, mask, message in [
          ("0.0.0.0", 0, 'network "0.0.0.0/0" is wider than /8 and would let much of the '
           "Internet relay mail"),
          ("::", 0, 'network "::/0" is wider than /7 and would let much of the Internet relay '
           "mail"),
          ("192.0.2.1", 24, 'network "192.0.2.1/24" has host bits set; perhaps 192.0.2.0/24 '
           "was meant"),
          ("2001:db8::1", 32, 'network "2001:db8::1/32" has host bits set; perhaps '
           "2001:db8::/32 was meant")]),
    (["--remove-whitelist", "--ip-address=192.0.2.0", "--netmask=33"],
     'network "192.0.2.0/33" has a prefix longer than 32'),
    # letter sizes: none that makes Postfix refuse every message
    *((["--set-max-letter-size", f"--size={size}"], message) for size, message in [
        ("-5", 'letter size "-5" is negative'),
        ("100", 'letter size "100" is below the minimum of 65536 bytes'),
        ("51200001", 'letter size "51200001" is above mailbox_size_limit (51200000), with '
         "which local delivery would stop")]),
]

ACCEPTED = [  # command and options, the effect: (main.cf parameter or table, what it holds)
    (["--add-badmailfrom", "--domain-name=B\u00fccher.Example"],
     ("blacklists", {"xn--bcher-kva.example": "REJECT"})),
    (["--add-whitelist", "--ip-address=10.0.0.0", "--netmask=8"],
     ("mynetworks", "127.0.0.0/8, 10.0.0.0/8")),
    (["--add-whitelist", "--ip-address=fc00::", "--netmask=7"],
     ("mynetworks", "127.0.0.0/8, 10.0.0.0/8, [fc00::]/7")),
    # an entry an older release let in stays removable
    (["--remove-whitelist", "--ip-address=192.0.2.1", "--netmask=24"],
     ("mynetworks", "127.0.0.0/8, 10.0.0.0/8, [fc00::]/7")),
    (["--set-max-letter-size", "--size=65536"], ("message_size_limit", "65536")),
    (["--set-max-letter-size", "--size=51200000"], ("message_size_limit", "51200000")),
]


@pytest.fixture(scope="module")
def sb(module_sandbox):
    sb = module_sandbox
    sb.postconf_e("mynetworks = 127.0.0.0/8", "mailbox_size_limit = 51200000",
                  "message_size_limit = 10240000")
    sb.write(EXE, "#!/bin/sh\nexit 0\n", mode=0o755)
    return sb


def state(sb):
    tables = {n: sb.read(f"{TABLE_DIR}/{n}") for n in sb.listdir(TABLE_DIR) if "." in n}
    return sb.read(MAIN_CF), tables, [sb.tree(path) for path in WATCHED]


@pytest.mark.parametrize("args,message", REFUSED, ids=[" ".join(a)[:60] for a, _ in REFUSED])
def test_refused_values_change_nothing(sb, args, message):
    before = state(sb)
    r = sb.mailtend(*args)
    assert (r.rc, r.err) == (1, message + "\n"), r
    if message.startswith("Fatal error: "):
        assert r.out == r.err, r
    else:  # an option error: the help block follows
        help_block = EXPECTED.get((args[0], "--help"))
        assert r.out == r.err + help_block if help_block else "\nUsage: " + args[0] in r.out, r
    assert state(sb) == before


def test_valid_values_still_pass(sb):
    for args, (where, want) in ACCEPTED:
        sb.mailtend(*args).expect()
        got = sb.postmap_s(where) if where == "blacklists" else sb.postconf_h(where)
        assert got == want, args
    sb.mailtend(*handler("--handler-type", "sender-domain", "--handler-type-name",
                         "B\u00fccher.example")).expect()
    assert [v for p, v in sb.tree(HANDLERS + "/info").items() if p.endswith("/sender-domain")
            ] == ["xn--bcher-kva.example\n"]

    sb.postconf_e("mailbox_size_limit = 0")  # no cap left but the queue's free space
    r = sb.mailtend("--set-max-letter-size", "--size=9223372036854775807")
    assert r.rc == 1 and r.err.startswith('letter size "9223372036854775807" needs 1.5 times its '
                                          "size free in the mail queue file system ("), r
    assert sb.postconf_h("message_size_limit") == "51200000"
