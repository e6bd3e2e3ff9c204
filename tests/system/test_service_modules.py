"""The listening services of master.cf switched by the service commands on a real Postfix, the
panel's submission switch, and the component commands' status lines and failures."""

from sandbox import COURIER, POSTFIX_INIT, POSTFIX_LOG, wait_for

MASTER_CF, DISABLED = "/etc/postfix/master.cf", "/var/spool/postfix/zarnet/master.cf.disabled"
SUBMISSION = "submission inet  n       -       n       -       -       smtpd\n" + "".join(
    f"  -o {o}\n" for o in (
        "smtpd_enforce_tls=yes", "smtpd_tls_security_level=encrypt", "smtpd_sasl_auth_enable=yes",
        "smtpd_client_restrictions=permit_sasl_authenticated,reject",
        "smtpd_recipient_restrictions=permit_sasl_authenticated,reject",
        "smtpd_sender_restrictions=", "smtpd_proxy_filter="))
SMTPS = ("smtps     inet  n       -       n       -       -       smtpd\n"
         "  -o smtpd_tls_wrappermode=yes\n  -o smtpd_proxy_filter=\n")
MAIL_PORTS = {25, 465, 587}


def entry(text, service):
    """The raw text of the service's inet entry: its first line and its continuation lines."""
    lines = text.splitlines(keepends=True)
    i = next(n for n, line in enumerate(lines) if line.split()[:2] == [service, "inet"])
    j = i + 1
    while j < len(lines) and lines[j][:1] in (" ", "\t"):
        j += 1
    return "".join(lines[i:j])


def master_reloads(sb):
    return sb.read_text(POSTFIX_LOG).count(": reload -- ")


def step(sb, argv, ports, master, disabled, reloads=1):
    """argv leaves the files as given and exactly ports listening; Postfix answers on 25."""
    before = master_reloads(sb)
    sb.mailtend(*argv).expect(0, None, "")
    files = sb.read_text(MASTER_CF), sb.read_text(DISABLED) if sb.exists(DISABLED) else ""
    assert files == (master, disabled), argv
    assert wait_for(lambda: master_reloads(sb) == before + reloads), argv
    assert sb.calls(POSTFIX_INIT) == [], argv
    assert wait_for(lambda: sb.listening_ports() & MAIL_PORTS == ports), (argv, sb.listening_ports())
    if 25 in ports:
        assert sb.run(["swaks", "--server", "127.0.0.1", "--quit-after", "HELO"]).rc == 0, argv


def test_obsolete_module_commands_move_entries_unchanged(sandbox):
    sb = sandbox
    sb.start_postfix()
    stock = sb.read_text(MASTER_CF)
    smtp = entry(stock, "smtp")
    sb.record(POSTFIX_INIT)
    step(sb, ["-a"], {25, 587}, stock + SUBMISSION, "")
    step(sb, ["-b"], {25}, stock, SUBMISSION)
    step(sb, ["--enable-message-submission"], {25, 587}, stock + SUBMISSION, "")
    without_smtp = stock.replace(smtp, "", 1) + SUBMISSION
    step(sb, ["-o"], {587}, without_smtp, smtp)
    step(sb, ["--start-smtpd"], {25, 465, 587}, without_smtp + smtp + SMTPS, "")

    inode = sb.stat(MASTER_CF).st_ino
    sb.mailtend("-p").expect()
    assert sb.stat(MASTER_CF).st_ino == inode and sb.calls(POSTFIX_INIT) == [], "nothing changed"
    sb.mailtend("--stop-service", "--mail-component=mta").expect(0, None, "")
    assert [c[0] for c in sb.calls(POSTFIX_INIT)] == [["stop"]]
    # a stopped server reads the files when it starts: no reload
    for argv, disabled in ((["-b"], SUBMISSION), (["-a"], "")):
        sb.mailtend(*argv).expect()
        assert sb.calls(POSTFIX_INIT) == [] and sb.read_text(DISABLED) == disabled, argv


def test_submission_follows_the_panel_switch(sandbox, panel_db):
    sb = sandbox
    sb.start_postfix()
    stock = sb.read_text(MASTER_CF)
    sb.record(POSTFIX_INIT)
    submission = ["--mail-component=submission"]
    step(sb, ["--start-service", *submission], {25}, stock, "", reloads=0)  # the switch is off
    panel_db.insert("misc", param="message_submission", val="true")
    step(sb, ["--start-service", *submission], {25, 587}, stock + SUBMISSION, "")
    step(sb, ["--stop-service", *submission], {25, 587}, stock + SUBMISSION, "", reloads=0)
    panel_db.query("DELETE FROM misc")
    step(sb, ["--stop-service", *submission], {25}, stock, SUBMISSION)


def test_status_lines_and_failures(sandbox):
    sb = sandbox
    sb.start_postfix()
    for name in COURIER:
        sb.record(name)
    r = sb.mailtend("--status-service")
    courier = "pop3 is stopped\npop3s is stopped\nimap is stopped\nimaps is stopped\n"
    assert r.rc == 0 and r.out.startswith("mta is running\n") and r.out.endswith(courier), r
    r = sb.mailtend("--status-service", "--mail-component=imaps", "--mail-component=pop3")
    assert r.rc == 0 and r.out.endswith("\npop3 is stopped\nimaps is stopped\n") and "mta" not in r.out
    assert all([c[0] for c in sb.calls(name)] == [["status"]] * 2 for name in COURIER)
    sb.mailtend("--status-service", "--mail-component=smtp").expect()
    r = sb.mailtend("--start-service", "--mail-component=imap", "--mail-component=bogus")
    assert r.rc == 1 and r.err.startswith("the argument ('unknown component bogus')"), r

    sb.mailtend("-m").expect(0, None, "")
    sb.write(POSTFIX_INIT, sb.read(POSTFIX_INIT), mode=0o644)
    r = sb.mailtend("--start-service")
    assert r.rc == 1 and "\nFatal error: zarnet::SystemError(" in "\n" + r.err, r
    assert all([c[0] for c in sb.calls(name)] == [["start"]] for name in COURIER)
    assert wait_for(lambda: {143, 993, 110, 995} <= sb.listening_ports()), sb.listening_ports()
