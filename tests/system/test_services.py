"""The one-word service commands through the real binary: the real Postfix started, stopped
and watched through its init script, and the real Courier POP3/IMAP init scripts."""

import pytest

import services
from services import COURIER_SCRIPTS, listening_ports, record_script, wait_for

ALL_COURIER_PORTS = set(COURIER_SCRIPTS.values())


def courier_ports(sb):
    return listening_ports(sb) & ALL_COURIER_PORTS


@pytest.fixture
def started(sandbox):
    sandbox.start()
    sandbox.backdate_main_cf()
    return sandbox


def test_postfix_start_status_stop(started):
    sb = started
    postfix = record_script(sb, services.POSTFIX)
    for word in ("-s", "--status-smtpd"):
        r = sb.mailtend(word)
        assert (r.rc, r.out, r.err) == (0, "is stopped\n", ""), r

    r = sb.mailtend("-l")
    assert r.rc == 0, r
    assert sb.postfix_running(), "exit 0 before the queue manager ran"
    assert postfix.calls() == [(["start"], ["LANG=C"])], "script not run alone with LANG=C"
    for word in ("-s", "--status-smtpd"):
        r = sb.mailtend(word)
        assert (r.rc, r.out, r.err) == (0, "is running\n", ""), r

    for word in ("-l", "--start-qmail-send"):
        r = sb.mailtend(word)
        assert (r.rc, r.out, r.err) == (0, "", ""), r
    assert postfix.actions() == ["start"], "a running server was started again"

    master = services.master_pid(sb)
    r = sb.mailtend("--stop-qmail-send")
    assert r.rc == 0, r
    assert not sb.postfix_running()
    assert postfix.actions() == ["start", "stop"]
    assert services.master_pid(sb) == master, "the rig expects master.pid to outlive a stop"
    r = sb.mailtend("-s")
    assert (r.rc, r.out) == (0, "is stopped\n"), "stale master.pid taken for a running server"

    for word in ("-m", "--stop-qmail-send"):
        r = sb.mailtend(word)
        assert (r.rc, r.out, r.err) == (0, "", ""), r
    assert postfix.actions() == ["start", "stop"], "a stopped server was stopped again"

    r = sb.mailtend("--start-qmail-send")
    assert r.rc == 0 and sb.postfix_running(), r


def test_courier_start_status_restart_stop(started):
    sb = started
    recorders = [record_script(sb, name) for name in COURIER_SCRIPTS]

    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), r

    r = sb.mailtend("-i")
    assert r.rc == 0, r
    assert wait_for(lambda: courier_ports(sb) == ALL_COURIER_PORTS), courier_ports(sb)
    for rec in recorders:
        assert rec.calls() == [(["status"], ["LANG=C"]), (["start"], ["LANG=C"])], rec.name

    r = sb.mailtend("--status-maild")
    assert r.rc == 0 and r.out.endswith("\nis running\n"), r
    # each script's own status line comes first, on standard output
    assert r.out.count(" is running.\n") == 4, r

    before = {name: services.courier_pid(sb, name) for name in COURIER_SCRIPTS}
    r = sb.mailtend("-z")
    assert r.rc == 0, r
    assert wait_for(lambda: courier_ports(sb) == ALL_COURIER_PORTS), courier_ports(sb)
    after = {name: services.courier_pid(sb, name) for name in COURIER_SCRIPTS}
    assert all(after[n] not in (None, before[n]) for n in COURIER_SCRIPTS), (before, after)

    sb.run([services.real_script("courier-pop"), "stop"]).check()
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), "one stopped server not reported"

    r = sb.mailtend("--stop-maild")
    assert r.rc == 0, r
    assert wait_for(lambda: not courier_ports(sb)), courier_ports(sb)
    assert [rec.actions()[-1] for rec in recorders] == ["stop"] * 4


def test_courier_scripts_that_are_absent_are_skipped(started):
    sb = started
    for name in ("courier-imap-ssl", "courier-pop-ssl"):
        sb.remove(f"{services.INIT_D}/{name}")
    r = sb.mailtend("--start-maild")
    assert r.rc == 0, r
    assert wait_for(lambda: courier_ports(sb) == {110, 143}), courier_ports(sb)
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis running\n"), r

    for name in COURIER_SCRIPTS:
        if sb.exists(f"{services.INIT_D}/{name}"):
            sb.remove(f"{services.INIT_D}/{name}")
    line = f"No start/stop script of courier-imap in {services.INIT_D}\n"
    r = sb.mailtend("-t")
    assert (r.rc, r.out, r.err) == (255, line, line), r
    r = sb.mailtend("-e")
    assert (r.rc, r.out, r.err) == (0, line + "is stopped\n", line), r
