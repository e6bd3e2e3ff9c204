"""The service commands on the real Postfix and Courier POP3/IMAP servers and their init scripts."""

from sandbox import COURIER, POSTFIX_INIT, REAL, wait_for

PORTS = {port for port, _ in COURIER.values()}
ALONE = ["LANG=C"]  # the scripts run with nothing else in their environment


def courier_ports(sb):
    return sb.listening_ports() & PORTS


def test_postfix_start_status_stop(sandbox):
    sb = sandbox
    sb.record(POSTFIX_INIT)
    sb.backdate_main_cf()
    for word in ("-s", "--status-smtpd"):
        sb.mailtend(word).expect(0, "is stopped\n")

    sb.mailtend("-l").expect(0, None, None)
    assert sb.postfix_running(), "exit 0 before the queue manager ran"
    assert sb.calls(POSTFIX_INIT) == [(["start"], ALONE)]
    for word in ("-s", "--status-smtpd"):
        sb.mailtend(word).expect(0, "is running\n")
    for word in ("-l", "--start-qmail-send"):
        sb.mailtend(word).expect()
    assert sb.calls(POSTFIX_INIT) == [], "a running server was started again"

    master = sb.pidfile("/var/spool/postfix/pid/master.pid")
    sb.mailtend("--stop-qmail-send").expect(0, None, None)
    assert not sb.postfix_running() and [c[0] for c in sb.calls(POSTFIX_INIT)] == [["stop"]]
    assert sb.pidfile("/var/spool/postfix/pid/master.pid") == master, "master.pid outlives a stop"
    sb.mailtend("-s").expect(0, "is stopped\n")  # a stale master.pid is no running server
    for word in ("-m", "--stop-qmail-send"):
        sb.mailtend(word).expect()
    assert sb.calls(POSTFIX_INIT) == [], "a stopped server was stopped again"

    sb.mailtend("--start-qmail-send").expect(0, None, None)
    assert sb.postfix_running()


def test_courier_start_status_restart_stop(sandbox):
    sb = sandbox
    for name in COURIER:
        sb.record(name)
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), r

    sb.mailtend("-i").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == PORTS), courier_ports(sb)
    assert all(sb.calls(name) == [(["status"], ALONE), (["start"], ALONE)] for name in COURIER)
    r = sb.mailtend("--status-maild")
    # each script's own status line comes first, on standard output
    assert r.rc == 0 and r.out.endswith("\nis running\n") and r.out.count(" is running.\n") == 4, r

    before = sb.courier_pids()
    sb.mailtend("-z").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == PORTS), courier_ports(sb)
    after = sb.courier_pids()
    assert all(after[n] not in (None, before[n]) for n in COURIER), (before, after)

    sb.run([REAL + "/etc/init.d/courier-pop", "stop"]).check()
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis stopped\n"), "one stopped server not reported"

    for name in COURIER:
        sb.calls(name)
    sb.mailtend("--stop-maild").expect(0, None, None)
    assert wait_for(lambda: not courier_ports(sb)), courier_ports(sb)
    assert all(sb.calls(name)[-1][0] == ["stop"] for name in COURIER)

    # absent scripts are skipped, and reported once none is left
    for name in ("courier-imap-ssl", "courier-pop-ssl"):
        sb.remove(f"/etc/init.d/{name}")
    sb.mailtend("--start-maild").expect(0, None, None)
    assert wait_for(lambda: courier_ports(sb) == {110, 143}), courier_ports(sb)
    r = sb.mailtend("-e")
    assert r.rc == 0 and r.out.endswith("\nis running\n"), r
    for name in ("courier-imap", "courier-pop"):
        sb.remove(f"/etc/init.d/{name}")
    line = "No start/stop script of courier-imap in /etc/init.d\n"
    sb.mailtend("-t").expect(255, line, line)
    sb.mailtend("-e").expect(0, line + "is stopped\n", line)
