"""main.cf settings with the real Postfix reloaded; Courier account format; SPF settings."""

import time

import pytest

from conftest import fresh_sandbox
from sandbox import COURIER, MAIN_CF, POSTFIX_INIT, POSTFIX_LOG, REAL, wait_for

LOOPBACK = "127.0.0.0/8"
V4, V6 = f"{LOOPBACK}, 192.0.2.0/24", f"{LOOPBACK}, [2001:db8::]/32"
BOTH = f"{LOOPBACK}, 192.0.2.0/24, [2001:db8::]/32"
# command, option values, the setting afterwards with Postfix running and (a few) stopped
STEPS = [
    ("--add-whitelist", "192.0.2.0", "24", "mynetworks", V4, V4),
    ("--add-whitelist", "2001:db8::", "32", "mynetworks", BOTH, None),
    ("--add-whitelist", "192.0.2.0", "24", "mynetworks", BOTH, None),
    ("--remove-whitelist", "127.0.0.0", "8", "mynetworks", BOTH, None),
    ("--remove-whitelist", "192.0.2.0", "24", "mynetworks", V6, LOOPBACK),
    ("--remove-whitelist", "2001:db8::", "32", "mynetworks", LOOPBACK, None),
    ("--remove-whitelist", "127.0.0.1", "32", "mynetworks", LOOPBACK, None),
    ("--set-max-letter-size", "20480000", None, "message_size_limit", "20480000", "20480000"),
    ("--set-max-letter-size", "0", None, "message_size_limit", "51200000", None),
]


@pytest.fixture(scope="module", params=["running", "stopped"])
def postfix(request):
    with fresh_sandbox(request) as sb:
        sb.postconf_e(f"mynetworks = {LOOPBACK}", "mailbox_size_limit = 51200000",
                      "message_size_limit = 10240000")
        sb.running = request.param == "running"
        if sb.running:
            sb.start_postfix()
        sb.record(POSTFIX_INIT)
        yield sb


def master_reloads(sb):
    return sb.read_text(POSTFIX_LOG).count(": reload -- ") if sb.running else 0


def ehlo_size(sb):
    out = sb.run(["swaks", "--server", "127.0.0.1", "--quit-after", "EHLO"]).out
    return next((line.split()[-1] for line in out.splitlines() if "250-SIZE" in line or
                 "250 SIZE" in line), None)


def test_changes_reload_postfix(postfix):
    sb = postfix
    for command, value, mask, parameter, running, stopped in STEPS:
        want = running if sb.running else stopped
        if want is None:
            continue
        reloads = master_reloads(sb)
        args = [f"--ip-address={value}", f"--netmask={mask}"] if mask else [f"--size={value}"]
        assert sb.mailtend(command, *args).rc == 0, (command, args)
        # no Postfix program waits for main.cf to age: the tool dated it back
        assert sb.stat(MAIN_CF).st_mtime < time.time() - 1, (command, args)
        assert sb.postconf_h(parameter) == want, (command, args)
        # the reload is the master's signal, not the init script's programs
        assert sb.calls(POSTFIX_INIT) == [], (command, args)
        assert wait_for(lambda: master_reloads(sb) >= reloads + sb.running, 30), "not reloaded"
        assert wait_for(lambda: sb.postfix_running() == sb.running, 30), "server state changed"
        if sb.running and parameter == "message_size_limit":
            assert wait_for(lambda: ehlo_size(sb) == want, 30), (command, ehlo_size(sb))


def test_accounts_format_restarts_courier(module_sandbox):
    sb, configs = module_sandbox, [f"/etc/courier/{n}" for n in ("imapd", "imapd-ssl", "pop3d",
                                                                 "pop3d-ssl")]
    for path in configs:
        sb.write(path, sb.read_text(path) + "SHORTNAMES=1\n")
    for name in COURIER:
        sb.record(name)
        sb.run([REAL + name, "start"]).check()
    before = sb.courier_pids()

    sb.mailtend("--set-accounts-format", "--account-format=both").expect(1, None, (
        "Fatal error: zarnet::NotSupportedError(short account-format is not supported for "
        "Postfix isn't supported)\n"))
    assert all(sb.calls(name) == [] for name in COURIER)

    assert sb.mailtend("--set-accounts-format", "--account-format=compound").rc == 0
    assert not any("SHORTNAMES=" in sb.read_text(path) for path in configs)
    assert all(sb.calls(name) == [(["stop"], ["LANG=C"]), (["start"], ["LANG=C"])]
               for name in COURIER)
    ports = {port for port, _ in COURIER.values()}
    assert wait_for(lambda: sb.listening_ports() >= ports), sb.listening_ports()
    after = sb.courier_pids()
    assert all(after[n] not in (None, before[n]) for n in before), (before, after)


def test_update_spf(module_sandbox):
    sb = module_sandbox
    files = {"spf-behavior": "/etc/zrn-spf/spfbehavior", "spf-rules": "/etc/zrn-spf/spfrules",
             "spf-guess": "/etc/zrn-spf/spfguess", "spf-exp": "/etc/zrn-spf/spfexp"}
    for path in files.values():
        sb.write(path, "old")
    sb.mailtend("--update-spf", "--spf-behavior=3", "--spf-rules=-", "--spf-exp=a - b").expect()
    assert {option: sb.read_text(path) for option, path in files.items()} == {
        "spf-behavior": "3", "spf-rules": "", "spf-guess": "old", "spf-exp": "a - b"}
