"""Mailboxes: logins through the real authentication daemon, quotas through real delivery."""

import time
import warnings

import pytest

from panel_db import PanelDB
from sandbox import AUTH_DB, MAILNAMES, POPUSER, wait_for

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

DOMAIN, ALIASES = "example.com", ("example.net", "example.org")
INFO, DOMAIN_ONLY = ["--domain-name=example.com", "--mailname=info"], ["--domain-name=example.com"]
DELIVERY = "| /usr/bin/deliverquota ./Maildir\n"
SHADOW = "/etc/zrn/.zrn.shadow"
HOME = f"{MAILNAMES}/{DOMAIN}"


@pytest.fixture(scope="module")
def mailhost(module_sandbox, panel_template):
    """example.com with two aliases; its mailnames info (mail alias sales) and boss (a quota)."""
    sb = module_sandbox
    with PanelDB(sb, panel_template).start() as db:
        dom = db.add_mail_domain(DOMAIN, ALIASES)
        db.insert("mail", dom_id=dom, mail_name="boss", mbox_quota=50000)
        sb.init_auth_db()
        sb.start_authdaemon()
        sb.saved = {path: sb.read(path) for path in (SHADOW, "/etc/passwd")}
        yield sb


@pytest.fixture
def sb(mailhost):
    """No logins and fresh homes; the files a test breaks are restored."""
    mailhost.sqlite("DELETE FROM users; DELETE FROM domains;").check()
    for name in ("info", "boss"):
        mailhost.make_home(DOMAIN, name)
    for path, data in mailhost.saved.items():
        mailhost.write(path, data, mode=0o600 if path == SHADOW else 0o644)
    return mailhost


def logins(sb, names, password):
    """The addresses in the domain and its aliases that log in with password."""
    return {f"{n}@{d}" for n in names for d in (DOMAIN, *ALIASES)
            if sb.authtest(f"{n}@{d}", password).rc == 0}


def everywhere(*names):
    return {f"{n}@{d}" for n in names for d in (DOMAIN, *ALIASES)}


def test_password_life_cycle_in_domain_and_aliases(sb):
    sb.mailtend("--add-mailbox", *INFO, env={"ZRN_PASSWORD": "s3cret one"}).expect()
    assert sb.read_text(f"{HOME}/info/.qmail") == DELIVERY + "| true\n"
    st = sb.stat(f"{HOME}/info/.qmail")
    assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (POPUSER, POPUSER, 0o600)
    assert (logins(sb, ["info"], "s3cret one"), logins(sb, ["info"], "s3cret two")) == (
        everywhere("info"), set())

    # a crypted password replaces the plain one, for the mailname and its mail alias
    sb.mailtend("--set-password", *INFO,
                env={"ZRN_CRYPTED_PASSWORD": crypt.crypt("s3cret two", "$1$abcdefgh$")}).expect()
    assert logins(sb, ["info", "sales"], "s3cret two") == everywhere("info", "sales")
    assert logins(sb, ["info"], "s3cret one") == set()

    # without a password: delivery only, for the mailname alone
    sb.mailtend("--add-mailbox", *INFO, env={"ZRN_PASSWORD": ""}).expect()
    assert sb.read_text(f"{HOME}/info/.qmail") == DELIVERY + "| true\n"
    assert logins(sb, ["info", "sales"], "s3cret two") == everywhere("sales")

    sb.mailtend("--set-password", *INFO, env={"ZRN_PASSWORD": "s3cret three"}).expect()
    assert logins(sb, ["info", "sales"], "s3cret three") == everywhere("info", "sales")
    sb.mailtend("--remove-mailbox", *INFO).expect()
    assert logins(sb, ["info", "sales"], "s3cret three") == set()
    assert sb.read_text(f"{HOME}/info/.qmail") == "| true\n"


def test_plain_password_wins_and_disabled_domain_refused(sb):
    sb.make_home("other.example", "bob")
    both = {"ZRN_PASSWORD": "plain", "ZRN_CRYPTED_PASSWORD": crypt.crypt("hashed", "$1$saltsalt$")}
    sb.mailtend("--add-mailbox", "--domain-name=Other.Example", "--mailname=bob", "-D",
                env=both).expect()
    # the domain row was created disabled: nobody in it logs in
    assert sb.authtest("bob@other.example", "plain").rc != 0
    sb.mailtend("--add-mailbox", *INFO, env=both).expect()
    assert [sb.authtest(f"info@{DOMAIN}", pw).rc for pw in ("plain", "hashed")] == [0, 1]


def test_quotas_enforced_by_the_delivery_program(sb):
    maildir, message = f"{HOME}/info/Maildir", "Subject: quota\n\n" + "x" * 583 + "\n"
    # the attachments (here: their empty directory) are paid from the quota
    attachments = sb.stat(f"{HOME}/info/@attachments").st_size
    sb.mailtend("--set-mailbox-disk-quota", *INFO, f"--disk-quota={attachments + 1000}").expect()
    assert sb.read_text(maildir + "/maildirsize") == "1000S,0C\n" + "%12d%12d\n" % (0, 0)
    st = sb.stat(maildir + "/maildirsize")
    assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (POPUSER, POPUSER, 0o644)

    assert [sb.deliverquota(maildir, message).rc for _ in range(2)] == [0, 77]
    on_disk = sum(sb.stat(f"{maildir}/new/{n}").st_size for n in sb.listdir(maildir + "/new"))
    sb.mailtend("--get-mailbox-size", *INFO).expect(0, f"{attachments + on_disk}")
    # unlimited again: the next message is accepted
    sb.mailtend("--set-mailbox-disk-quota", *INFO, "--disk-quota=-1").expect()
    assert sb.deliverquota(maildir, message).rc == 0

    # the domain's quota spares mailboxes with their own
    sb.mailtend("--set-mailbox-disk-quota", *DOMAIN_ONLY, "--mailname=boss",
                "--disk-quota=50000").expect()
    sb.mailtend("--set-domain-disk-quota", *DOMAIN_ONLY, "--disk-quota=20000").expect()
    assert [sb.read_text(f"{HOME}/{n}/Maildir/maildirsize").split("\n")[0] for n in ("info", "boss")
            ] == [f"{20000 - attachments}S,0C", f"{50000 - attachments}S,0C"]
    # smaller than the attachments: delivery refused, with a warning
    warning = "WARNING: @attachments directory is big enough to disable delivery!\n"
    sb.mailtend("--set-domain-disk-quota", *DOMAIN_ONLY, "--disk-quota=10").expect(
        0, warning, warning)
    assert sb.read_text(maildir + "/maildirsize").startswith("1S,0C\n")
    assert sb.deliverquota(maildir, message).rc == 77


def test_redirects_in_delivery_file(sb):
    for email in ("a@x.example", "b@b\u00fccher.example", "a@x.example"):
        sb.mailtend("--add-redirect", *INFO, f"--redirect-email={email}").expect()
    assert sb.read_text(f"{HOME}/info/.qmail") == "&a@x.example\n&b@xn--bcher-kva.example\n| true\n"
    sb.mailtend("--remove-redirect", *INFO, "--redirect-email=a@x.example").expect()
    assert sb.read_text(f"{HOME}/info/.qmail") == "&b@xn--bcher-kva.example\n| true\n"


BAD = "Fatal error: std::invalid_argument("
FAILURES = [  # fault, broken file and how, commands, the start of the one-line message
    ("mailname escaping the domain accepted", None, [["--add-redirect", "--mailname=..",
     "--redirect-email=x@y.example"]], BAD + "invalid mailname '..')\n"),
    ("mailname with a slash accepted", None, [["--set-mailbox-disk-quota", "--mailname=a/b",
     "--disk-quota=5"]], BAD + "invalid mailname 'a/b')\n"),
    ("unreachable panel ignored", (SHADOW, lambda _: b"not the password\n"), [
        ["--add-mailbox", "--mailname=info"], ["--set-password", "--mailname=info"],
        ["--remove-mailbox", "--mailname=info"]],
     "Unable to connect to Zarnet Database: Access denied for user 'admin'@'localhost'"),
    ("missing popuser ignored", ("/etc/passwd", lambda passwd: b"".join(
        line for line in passwd.splitlines(True) if not line.startswith(b"popuser:"))), [
        ["--add-redirect", "--mailname=info", "--redirect-email=x@y.example"],
        ["--set-mailbox-disk-quota", "--mailname=info", "--disk-quota=5"]],
     "Fatal error: zarnet::SystemError(user popuser not found"),
]


@pytest.mark.parametrize("fault,broken,commands,message", FAILURES, ids=[f[0] for f in FAILURES])
def test_failures_change_nothing(sb, fault, broken, commands, message):
    if broken:
        sb.write(broken[0], broken[1](sb.read(broken[0])), mode=sb.stat(broken[0]).st_mode & 0o777)
    for args in commands:
        r = sb.mailtend(args[0], *DOMAIN_ONLY, *args[1:], env={"ZRN_PASSWORD": "x"})
        assert r.rc == 1 and r.out == r.err and r.err.startswith(message), r
        assert r.err.count("\n") == 1, r
    assert sb.read_text(f"{HOME}/info/.qmail") == "| true\n"
    assert sb.sqlite("SELECT count(*) FROM users; SELECT count(*) FROM domains;").out == "0\n0\n"


# passwd.db's write lock, held by another process until the file /tmp/release appears
HOLDER = ("import os, sqlite3, sys, time\n"
          "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
          "db.execute('BEGIN EXCLUSIVE')\nprint('locked', flush=True)\n"
          "for _ in range(1200):\n    if os.path.exists('/tmp/release'): break\n    time.sleep(0.05)\n")


def hold_lock(sb):
    sb.spawn(["python3", "-c", HOLDER, AUTH_DB], log="/tmp/holder.log")
    assert wait_for(lambda: "locked" in sb.read_text("/tmp/holder.log"))

    def release():
        sb.write("/tmp/release", "")
        assert wait_for(lambda: sb.sqlite("BEGIN IMMEDIATE; ROLLBACK;").rc == 0)
        for path in ("/tmp/release", "/tmp/holder.log"):
            sb.remove(path)
    return release


def garbage(sb):
    saved, st = sb.read(AUTH_DB), sb.stat(AUTH_DB)
    keep = dict(mode=st.st_mode & 0o777, uid=st.st_uid, gid=st.st_gid)
    sb.write(AUTH_DB, b"not a database\n" * 64, **keep)  # in place: the daemon keeps it open
    return lambda: sb.write(AUTH_DB, saved, **keep)


def failing_alias_row(sb):
    sb.sqlite("CREATE TRIGGER planted BEFORE INSERT ON users WHEN NEW.name = 'sales' AND NEW.dom_id ="
              " (SELECT id FROM domains WHERE name = 'example.org') BEGIN SELECT RAISE(ABORT, 'planted');"
              " END;").check()
    return lambda: sb.sqlite("DROP TRIGGER planted;").check()


def no_home(sb):
    sb.remove(f"{HOME}/info")
    return lambda: sb.make_home(DOMAIN, "info")


NO_START = "Unable to start a transaction in the mail authentication database: "
SPOILED = [  # fault, what breaks, command, part of its messages
    ("lock waited for without limit", hold_lock, "--set-password", f"Mail authentication database"
     f" {AUTH_DB} stayed locked for 5 seconds, giving up\n{NO_START}database is locked\n"),
    ("delivery switched on without logins", garbage, "--add-mailbox",
     NO_START + "file is not a database\n"),
    ("rows before the failing one kept", failing_alias_row, "--set-password",
     "Unable to execute the mail authorization registration query: planted\n"),
    ("logins stored without delivery", no_home, "--add-mailbox",
     f"\nFatal error: zarnet::SystemError(unable to modify {HOME}/info/.qmail"),
]


@pytest.mark.parametrize("fault,spoil,command,message", SPOILED, ids=[s[0] for s in SPOILED])
def test_failed_command_leaves_logins_and_delivery(sb, fault, spoil, command, message):
    def state():
        return sb.sqlite("SELECT u.id, u.name, d.name, u.userPassword FROM users u JOIN domains d"
                         " ON u.dom_id = d.id ORDER BY u.id;").out, sb.read_text(f"{HOME}/info/.qmail")
    sb.mailtend("--set-password", *INFO, env={"ZRN_PASSWORD": "old"}).expect()
    before, restore, start = state(), spoil(sb), time.monotonic()
    try:
        r = sb.mailtend(command, *INFO, env={"ZRN_PASSWORD": "new"})
        waited = time.monotonic() - start
    finally:
        restore()
    assert r.rc == 1 and message in r.err, r
    # the lock is waited for, but not for long
    assert (waited > 4.5) == (spoil is hold_lock) and waited < 8, (waited, r)
    assert state() == before
