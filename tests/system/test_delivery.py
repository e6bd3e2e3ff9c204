"""Local delivery through the pipe transport: real Postfix, the delivery agent, its handlers,
deliverquota and the autoresponder, with mailboxes made by mailtend itself."""

import re

import pytest

from conftest import SETUP_PATH, built
from panel_db import PanelDB
from sandbox import MAILNAMES, POSTFIX_LOG, wait_for

D = "example.com"
HOME = f"{MAILNAMES}/{D}"
ROOT = "/usr/local/zrn/handlers"
AUTORESPONDER = ROOT + "/hooks/autoresponder"  # not in the template: tests read the store as text
SENDER = "root@localhost"
RECORDER = ("#!/bin/sh\n{ echo \"$HANDLER_NAME $RECIPIENT\"; env; grep '^Subject:'; } >> /tmp/%s\n"
            "echo \"$HANDLER_NAME $RECIPIENT\" >> /tmp/order\nexit %d\n")
# recipient: (dsn, status, text in the log), messages in its own Maildir afterwards
CASES = {
    "info": ("2.0.0", "sent", "delivered via zarnet service", 1),
    "boss": ("2.0.0", "sent", "delivered via zarnet service", 3),  # its own, hello's, fwd's
    "fwd": ("2.0.0", "sent", "delivered via zarnet service", 1),
    "full": ("5.2.2", "bounced", "Mailbox is full", 0),
    "off": ("5.1.1", "bounced", "Mailbox is disabled", 0),
    "gone": ("5.1.1", "bounced", "Mailbox does not exist", 0),
    "link": ("4.3.0", "deferred", "it is a symbolic link", 0),
    "shell": ("4.3.0", "deferred", "holds a line that needs a shell", 0),
    "refused": ("5.7.1", "bounced", "go away", 0),
    "dropped": ("2.0.0", "sent", "delivered via zarnet service", 0),
    "auto": ("2.0.0", "sent", "delivered via zarnet service", 3),
    "escape": ("4.3.0", "deferred", "outside the mailbox home: ../boss/Maildir/", 0),
    "linknew": ("4.3.0", "deferred", "it is a symbolic link", 0),  # new/ leads to /tmp/elsewhere
    "redir": ("4.3.0", "deferred", "injected failure", 0),  # its forward's sendmail fails
}
LATER = ("redir",)  # sent once the others settled, with a failing sendmail


def handler(sb, name, exe, type_name, value, exit_code, priority="10"):
    sb.write(exe, RECORDER % (name, exit_code), mode=0o755)
    sb.mailtend("--add-handler", f"--handler-name={name}", f"--handler-type={type_name}",
                f"--handler-type-name={value}", f"--executable={exe}", f"--context=ctx {name}",
                "--hook=before-local", f"--priority={priority}").expect()


@pytest.fixture(scope="module")
def mail(module_sandbox, panel_template):
    """Postfix set up by the set-up program, delivering example.com through the agent; every case's mailbox set up; one message
    sent to each (three to auto, the last one's reply failing), all settled."""
    sb = module_sandbox
    sb.install(built("MAILTEND_AUTORESPONDER_BIN", "autoresponder"), AUTORESPONDER)
    with PanelDB(sb, panel_template).start() as db:
        dom = db.insert("domains", name=D)
        for name in CASES:
            db.insert("mail", dom_id=dom, mail_name=name)
        db.query("INSERT INTO mail_aliases (mn_id, alias) SELECT id, 'hello' FROM mail "
                 "WHERE mail_name = 'boss'")
        sb.init_auth_db()
        sb.mailtend("--add-domain", f"--domain-name={D}").expect()
        for name in CASES:
            args = [f"--domain-name={D}", f"--mailname={name}"]
            sb.mailtend("--add-mailname", *args).expect()
            sb.mailtend("--add-mailbox", *args, env={"ZRN_PASSWORD": "pw"}).expect()
        sb.mailtend("--remove-mailbox", f"--domain-name={D}", "--mailname=off").expect()
        sb.mailtend("--set-mailbox-disk-quota", f"--domain-name={D}", "--mailname=full",
                    "--disk-quota=1").expect(out=None, err=None)
        for name in ("fwd", "redir"):
            sb.mailtend("--add-redirect", f"--domain-name={D}", f"--mailname={name}",
                        f"--redirect-email=boss@{D}").expect()
        sb.mailtend("--set-autoresponder", "--mailname=auto", f"--domain-name={D}").expect()
        sb.mailtend("--add-alias", f"--domain-name={D}", "--mailname=boss", "--alias=hello").expect()
        sb.mailtend("--add-badmailfrom", "--domain-name=spam.example").expect()
    sb.write(f"{HOME}/auto/.autoresponder", "Away until Monday.\n", uid=30110, gid=30110)
    sb.remove(f"{HOME}/gone/.qmail")
    sb.remove(f"{HOME}/link/.qmail")
    sb.run(["ln", "-s", f"{HOME}/boss/.qmail", f"{HOME}/link/.qmail"]).check()
    sb.write(f"{HOME}/shell/.qmail", "./Maildir/\n| echo hi > /tmp/pwned\n", mode=0o600,
             uid=30110, gid=30110)
    sb.write(f"{HOME}/escape/.qmail", "../boss/Maildir/\n", mode=0o600, uid=30110, gid=30110)
    sb.run(["install", "-d", "-o", "30110", "/tmp/elsewhere"]).check()
    sb.write(f"{HOME}/linknew/.qmail", "./Maildir/\n", mode=0o600, uid=30110, gid=30110)
    sb.remove(f"{HOME}/linknew/Maildir/new")
    sb.run(["ln", "-s", "/tmp/elsewhere", f"{HOME}/linknew/Maildir/new"]).check()
    handler(sb, "dom", "/usr/local/bin/dom", "recipient-domain", D, 0, priority="5")
    handler(sb, "rec", "/usr/local/bin/rec", "recipient", f"Info@{D}", 0)
    handler(sb, "off", "/usr/local/bin/off", "recipient", f"info@{D}", 0)
    sb.mailtend("--disable-handler", "--handler-name=off", "--handler-type=recipient",
                f"--handler-type-name=info@{D}", "--hook=before-local").expect()
    handler(sb, "broken", "/usr/local/bin/broken", "recipient", f"info@{D}", 0)
    broken, = (n for n in sb.listdir(f"{ROOT}/info") if "-broken-" in n)
    sb.remove(f"{ROOT}/info/{broken}/context")
    handler(sb, "refuse", "/usr/local/bin/refuse", "recipient", f"refused@{D}", 100)
    handler(sb, "drop", "/usr/local/bin/drop", "recipient", f"dropped@{D}", 99)
    sb.write("/usr/local/bin/refuse", "#!/bin/sh\necho go away\nexit 100\n", mode=0o755)

    sb.run([SETUP_PATH]).check()  # the delivery transport, as a real server gets it
    sb.start_postfix()

    def send(name, sender=SENDER):
        sb.run(["sendmail", "-f", sender, f"{name}@{D}"], stdin=(
            f"From: {sender}\nTo: {name}@{D}\nSubject: for {name}\n"
            f"Message-ID: <{name}.1@localhost>\n\nhello {name}\n")).check()

    def settled(ours, root):
        assert wait_for(lambda: len([o for o in outcomes(sb) if o[0].endswith(D)]) == ours
                        and len([o for o in outcomes(sb) if o[0] == SENDER]) == root, 60), \
            sb.read_text(POSTFIX_LOG)

    for name in [n for n in CASES if n not in LATER] + ["auto", "hello"]:
        send(name)
    # every recipient settled, auto and the forward's copy to boss twice; the four notices and
    # the reply delivered to root
    settled(len(CASES) - len(LATER) + 3, 5)
    # the second sendmail call is the delivery's: the forward, then the autoresponder's reply
    for name, sender, ours in (("redir", SENDER, len(CASES) + 3), ("auto", "other@localhost",
                                                                   len(CASES) + 4)):
        sb.fail_call("/usr/sbin/sendmail", 2)
        send(name, sender)
        settled(ours, 5)
        sb.restore("/usr/sbin/sendmail")
    return sb


def outcomes(sb):
    return re.findall(r"\bto=<([^>]+)>, (?:orig_to=<[^>]+>, )?relay=(\w+).*dsn=([\d.]+), "
                      r"status=(\w+) \((.*)\)",
                      sb.read_text(POSTFIX_LOG))


def test_each_recipient_ends_as_its_mailbox_says(mail):
    got = {}
    for to, relay, dsn, status, text in outcomes(mail):
        name = to.split("@")[0]
        if to.endswith("@" + D):
            got.setdefault(name, set()).add((relay, dsn, status, CASES[name][2] in text))
    assert got == {n: {("zarnet", dsn, status, True)} for n, (dsn, status, _, _) in CASES.items()}
    counts = {name: len(mail.listdir(f"{HOME}/{name}/Maildir/new")) for name in CASES}
    assert counts == {name: case[3] for name, case in CASES.items()}
    assert not any(mail.listdir(f"{HOME}/{name}/Maildir/tmp") for name in CASES)
    assert not mail.exists("/tmp/pwned") and not mail.listdir("/tmp/elsewhere")
    forwarded = [t for t in mail.tree(f"{HOME}/boss/Maildir/new").values() if "hello fwd" in t]
    assert len(forwarded) == 1 and forwarded[0].startswith(f"Return-Path: <{SENDER}>\n")


def test_handlers_run_in_order_once_with_their_context_and_nothing_else(mail):
    calls = mail.read_text("/tmp/rec").split("\n")
    name = calls[0].split()[0]
    env = sorted(line for line in calls[1:] if "=" in line and not line.startswith("PWD="))
    assert (calls[0], env, calls.count("Subject: for info")) == (
        f"{name} info@{D}",
        sorted(["PATH=/usr/bin:/bin", f"SENDER={SENDER}", f"RECIPIENT=info@{D}", "LOCAL=info",
                f"HOST={D}", "HANDLER_HOOK=before-local", "HANDLER_CONTEXT=ctx rec",
                f"HANDLER_NAME={name}"]), 1)
    # the disabled one and the one without a context never ran
    assert name.startswith("10-rec-") and not any(mail.exists(f"/tmp/{h}")
                                                  for h in ("off", "broken"))
    # priorities compare as numbers: 5 before 10
    assert re.findall(rf"^\d+-(\w+)-\S+ info@{D}$", mail.read_text("/tmp/order"), re.M) == [
        "dom", "rec"]
    # the domain's handler saw every message that reached the handlers
    ran = sorted(re.findall(rf"^5-dom-\S+ (\w+)@{D}$", mail.read_text("/tmp/dom"), re.M))
    assert ran == sorted(["info", "boss", "boss", "fwd", "boss", "full", "refused", "dropped",
                          "auto", "auto", "auto", "linknew", "redir"])


def test_autoresponder_answers_once_with_the_null_sender(mail):
    box = mail.read_text("/var/mail/root")
    replies = [m for m in box.split("\nFrom ") if f"\nFrom: auto@{D}\n" in m]
    assert len(replies) == 1, box
    assert "Away until Monday." in replies[0] and "In-Reply-To: <auto.1@localhost>" in replies[0]
    assert "\nReturn-Path: <>\n" in replies[0]
    # recorded before the hand-over: the failed reply is not tried again
    assert mail.read_text(f"{HOME}/auto/.autoresponder-sent") == SENDER + "\nother@localhost\n"


def test_black_listed_sender_is_refused(mail):
    r = mail.run(["swaks", "--server", "127.0.0.1", "--quit-after", "RCPT", "--from",
                  "someone@Spam.Example", "--to", f"info@{D}"])
    assert r.rc == 24 and "554 5.7.1 <someone@Spam.Example>: Sender address rejected" in r.out, r
