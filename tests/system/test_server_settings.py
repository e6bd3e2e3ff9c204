"""Server-wide settings through the real binary: the relay white list and the letter size in
the real main.cf, each followed by a reload of the real Postfix, running or stopped; the
POP3/IMAP account format with the restart of the real Courier servers; the SPF settings."""

import pytest

import services
from sandbox import MAIN_CF
from services import record_script, wait_for

LOOPBACK = "127.0.0.0/8"


def help_head(r):
    return r.out.split("\n")[:2]


@pytest.fixture(params=["running", "stopped"])
def postfix(request, sandbox):
    """The sandbox started, Postfix running or not, and its init script recording calls."""
    sandbox.start()
    sandbox.postconf_e(f"mynetworks = {LOOPBACK}", "mailbox_size_limit = 51200000",
                       "message_size_limit = 10240000")
    if request.param == "running":
        sandbox.start_postfix()
    sandbox.running = request.param == "running"
    sandbox.script = record_script(sandbox, services.POSTFIX)
    return sandbox


def reloaded(sb):
    """The server reloaded once since the recorder was cleared, and is as it was before."""
    assert sb.script.actions() == ["reload"], sb.script.calls()
    # a reload replaces the queue manager: it is briefly absent
    assert wait_for(lambda: sb.postfix_running() == sb.running), "server state changed"
    if sb.running:
        assert wait_for(lambda: "reload" in sb.read_text(services.POSTFIX_LOG)), \
            "the running server did not reload"
    sb.script.clear()
    return True


def test_white_list(postfix):
    sb = postfix
    steps = [
        ("--add-whitelist", "192.0.2.0", "24", f"{LOOPBACK}, 192.0.2.0/24"),
        ("--add-whitelist", "2001:db8::", "32", f"{LOOPBACK}, 192.0.2.0/24, [2001:db8::]/32"),
        ("--add-whitelist", "192.0.2.0", "24", f"{LOOPBACK}, 192.0.2.0/24, [2001:db8::]/32"),
        ("--remove-whitelist", "127.0.0.0", "8", f"{LOOPBACK}, 192.0.2.0/24, [2001:db8::]/32"),
        ("--remove-whitelist", "192.0.2.0", "24", f"{LOOPBACK}, [2001:db8::]/32"),
        ("--remove-whitelist", "2001:db8::", "32", LOOPBACK),
        ("--remove-whitelist", "127.0.0.1", "32", LOOPBACK),
    ]
    for command, address, mask, want in steps:
        r = sb.mailtend(command, f"--ip-address={address}", f"--netmask={mask}")
        assert r.rc == 0, r
        sb.backdate_main_cf()
        assert sb.postconf_h("mynetworks") == want, (command, address, mask)
        assert reloaded(sb)


def test_letter_size(postfix):
    sb = postfix
    for size, want in (("20480000", "20480000"), ("0", "51200000")):
        r = sb.mailtend("--set-max-letter-size", f"--size={size}")
        assert r.rc == 0, r
        sb.backdate_main_cf()
        assert sb.postconf_h("message_size_limit") == want, size
        assert reloaded(sb)


@pytest.mark.parametrize("args,error", [
    (["--add-whitelist", "--ip-address=10.0.0.0, 0.0.0.0", "--netmask=8"],
     "Fatal error: std::invalid_argument(invalid IP address '10.0.0.0, 0.0.0.0')\n"),
    (["--add-whitelist", "--ip-address=10.0.0.0", "--netmask=33"],
     "Fatal error: std::invalid_argument(netmask 33 is too long for the address '10.0.0.0')\n"),
    (["--set-max-letter-size", "--size=lots"],
     "the argument ('lots') for option '--size' is invalid\n"),
])
def test_refused_changes_touch_nothing(sandbox, args, error):
    sandbox.start()
    sandbox.postconf_e(f"mynetworks = {LOOPBACK}")
    script = record_script(sandbox, services.POSTFIX)
    before = sandbox.read(MAIN_CF)
    r = sandbox.mailtend(*args)
    assert (r.rc, r.err) == (1, error), r
    assert r.out.startswith(error), r
    assert sandbox.read(MAIN_CF) == before
    assert script.calls() == [], "reloaded after a refused change"


@pytest.mark.parametrize("command,head", [
    ("--add-whitelist", ["add a network to whitelist",
                         "Usage: --add-whitelist --ip-address=<ip_address> --netmask=<netmask>"]),
    ("--remove-whitelist",
     ["remove a network from whitelist",
      "Usage: --remove-whitelist --ip-address=<ip_address> --netmask=<netmask>"]),
    ("--set-max-letter-size", ["set maximal letter size",
                               "Usage: --set-max-letter-size --size=<size_in_bytes>"]),
    ("--set-accounts-format", ["set accounts format",
                               'Usage: --set-accounts-format --account-format="compound"']),
    ("--update-spf", ["update SPF rules",
                      "Usage: --update-spf [--spf-behavior=spf_behavior] [--spf-rules=spf_rules] "
                      "[--spf-guess=spf_guess] [--spf-exp=<spf_exp>]"]),
])
def test_help(sandbox, command, head):
    r = sandbox.mailtend(command, "--help")
    assert (r.rc, r.err, help_head(r)) == (0, "", head), r


COURIER_FILES = ("imapd", "imapd-ssl", "pop3d", "pop3d-ssl")


def test_accounts_format_restarts_courier(sandbox):
    sb = sandbox
    sb.start()
    for name in COURIER_FILES:
        sb.write(f"/etc/courier/{name}", sb.read_text(f"/etc/courier/{name}") + "SHORTNAMES=1\n")
    recorders = [record_script(sb, name) for name in services.COURIER_SCRIPTS]
    for name in services.COURIER_SCRIPTS:
        sb.run([services.real_script(name), "start"]).check()
    before = {name: services.courier_pid(sb, name) for name in services.COURIER_SCRIPTS}

    r = sb.mailtend("--set-accounts-format", "--account-format=both")
    assert r.rc == 1, r
    assert r.err == ("Fatal error: zarnet::NotSupportedError(short account-format is not "
                     "supported for Postfix isn't supported)\n"), r
    assert all(rec.calls() == [] for rec in recorders)

    r = sb.mailtend("--set-accounts-format", "--account-format=compound")
    assert r.rc == 0, r
    for name in COURIER_FILES:
        assert "SHORTNAMES=" not in sb.read_text(f"/etc/courier/{name}"), name
    for rec in recorders:
        assert rec.calls() == [(["stop"], ["LANG=C"]), (["start"], ["LANG=C"])], rec.name
    ports = set(services.COURIER_SCRIPTS.values())
    assert wait_for(lambda: services.listening_ports(sb) >= ports), services.listening_ports(sb)
    after = {name: services.courier_pid(sb, name) for name in services.COURIER_SCRIPTS}
    assert all(after[n] not in (None, before[n]) for n in before), (before, after)


def test_update_spf(sandbox):
    sb = sandbox
    files = {"spf-behavior": "/etc/zrn-spf/spfbehavior", "spf-rules": "/etc/zrn-spf/spfrules",
             "spf-guess": "/etc/zrn-spf/spfguess", "spf-exp": "/etc/zrn-spf/spfexp"}
    for path in files.values():
        sb.write(path, "old")
    r = sb.mailtend("--update-spf", "--spf-behavior=3", "--spf-rules=-", "--spf-exp=a - b")
    assert (r.rc, r.out, r.err) == (0, "", ""), r
    got = {option: sb.read_text(path) for option, path in files.items()}
    assert got == {"spf-behavior": "3", "spf-rules": "", "spf-guess": "old",
                   "spf-exp": "a - b"}
