"""The one-word service commands through the real binary: the real Postfix started, stopped and
watched through its init script, and the real Courier POP3/IMAP init scripts."""

import pytest

from sandbox import COURIER, INIT_D, REAL_INIT_D, wait_for

PORTS = {port for port, _ in COURIER.values()}
ALONE = ["LANG=C"]  # the scripts run with nothing else in their environment


@pytest.fixture
def sb(sandbox):
    sandbox.backdate_main_cf()
    return sandbox


def courier_ports(sb):
    return sb.listening_ports() & PORTS


def courier_pids(sb):
    return {name: sb.pidfile(pidfile) for name, (_, pidfile) in COURIER.items()}


def test_postfix_start_status_stop(sb):
    sb.record_script("postfix")
    for word in ("-s", "--status-smtpd"):
        sb.mailtend(word).expect(0, "is stopped\n")

    sb.mailtend("-l").expect(0, None, None)
    assert sb.postfix_running(), "exit 0 before the queue manager ran"
    assert sb.calls("postfix") == [(["start"], ALONE)]
    for word in ("-s", "--status-smtpd"):
        sb.mailtend(word).expect(0, "is running\n")
    for word in ("-l", "--start-qmail-send"):
        sb.mailtend(word).expect()
    assert sb.calls("postfix") == [], "a running server was started again"

    master = sb.pidfile("/var/spool/postfix/pid/master.pid")
    sb.mailtend("--stop-qmail-send").expect(0, None, None)
    assert not sb.postfix_running() and [c[0] for c in sb.calls("postfix")] == [["stop"]]
    assert sb.pidfile("/var/spool/postfix/pid/master.pid") == master, "master.pid outlives a stop"
    sb.mailtend("-s").expect(0, "is stopped\n")  # a stale master.pid is no running server
    for word in ("-m", "--stop-qmail-send"):
        sb.mailtend(word).expect()
    assert sb.calls("postfix") == [], "a stopped server was stopped again"

    sb.mailtend("--start-qmail-send").expect(0, None, None)
    assert sb.postfix_running()


def test_courier_start_status_restart_stop(sb):
    for name in COURIER:
        sb.record_script(name)
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), r

    sb.mailtend("-i").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == PORTS), courier_ports(sb)
    assert all(sb.calls(name) == [(["status"], ALONE), (["start"], ALONE)] for name in COURIER)

    r = sb.mailtend("--status-maild")
    # each script's own status line comes first, on standard output
    assert r.rc == 0 and r.out.endswith("\nis running\n") and r.out.count(" is running.\n") == 4, r

    before = courier_pids(sb)
    sb.mailtend("-z").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == PORTS), courier_ports(sb)
    after = courier_pids(sb)
    assert all(after[n] not in (None, before[n]) for n in COURIER), (before, after)

    sb.run([f"{REAL_INIT_D}/courier-pop", "stop"]).check()
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), "one stopped server not reported"

    for name in COURIER:
        sb.calls(name)
    sb.mailtend("--stop-maild").expect(0, None, None)
    assert wait_for(lambda: not courier_ports(sb)), courier_ports(sb)
    assert all(sb.calls(name)[-1][0] == ["stop"] for name in COURIER)


def test_courier_scripts_that_are_absent_are_skipped(sb):
    for name in ("courier-imap-ssl", "courier-pop-ssl"):
        sb.remove(f"{INIT_D}/{name}")
    sb.mailtend("--start-maild").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == {110, 143}), courier_ports(sb)
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis running\n"), r

    for name in ("courier-imap", "courier-pop"):
        sb.remove(f"{INIT_D}/{name}")
    line = f"No start/stop script of courier-imap in {INIT_D}\n"
    sb.mailtend("-t").expect(255, line, line)
    sb.mailtend("-e").expect(0, line + "is stopped\n", line)
