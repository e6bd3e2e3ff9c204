"""Mailbox commands through the real binary: passwords checked by the real POP3/IMAP
authentication daemon, quotas enforced by the real delivery program, and the delivery file."""

import warnings

import pytest

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

POPUSER = 30110
MAILNAMES = "/var/qmail/mailnames"
DOMAIN, ALIASES = "example.com", ("example.net", "example.org")
DELIVERY = "| /usr/bin/deliverquota ./Maildir\n"
MESSAGE = "Subject: quota\n\n" + "x" * 583 + "\n"  # 600 bytes


def home(domain, name):
    return f"{MAILNAMES}/{domain}/{name}"


def make_home(sb, domain, name, qmail="| true\n"):
    """A mailbox home as the mailname layer leaves it; that layer is not under test here."""
    for sub in ("", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur", "/@attachments"):
        sb.makedirs(home(domain, name) + sub, mode=0o700, uid=POPUSER, gid=POPUSER)
    if qmail is not None:
        sb.write(home(domain, name) + "/.qmail", qmail, mode=0o600, uid=POPUSER, gid=POPUSER)


@pytest.fixture
def mailhost(sandbox, panel_db):
    """example.com with two domain aliases; mailname info with the mail alias sales."""
    dom = panel_db.add_domain(DOMAIN, limits={"mbox_quota": 7000})
    for alias in ALIASES:
        panel_db.add_domain_alias(dom, alias)
    info = panel_db.add_mailname(dom, "info")
    panel_db.add_mail_alias(info, "sales")
    sandbox.init_auth_db().check()
    sandbox.start_authdaemon()
    make_home(sandbox, DOMAIN, "info")
    sandbox.panel = panel_db
    sandbox.dom_id = dom
    return sandbox


def logins(sb, names, password):
    """Which of the addresses log in with password."""
    return {f"{n}@{d}": sb.authtest(f"{n}@{d}", password).rc == 0
            for n in names for d in (DOMAIN, *ALIASES)}


def ok(r):
    assert (r.rc, r.out, r.err) == (0, "", ""), r


def test_password_life_cycle_in_domain_and_aliases(mailhost):
    sb = mailhost
    ok(sb.mailtend("--add-mailbox", f"--domain-name={DOMAIN}", "--mailname=info",
                   env={"ZRN_PASSWORD": "s3cret one"}))
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == DELIVERY + "| true\n"
    st = sb.stat(home(DOMAIN, "info") + "/.qmail")
    assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (POPUSER, POPUSER, 0o600)
    everywhere = {f"info@{d}": True for d in (DOMAIN, *ALIASES)}
    assert logins(sb, ["info"], "s3cret one") == everywhere
    assert logins(sb, ["info"], "s3cret two") == {k: False for k in everywhere}

    # a crypted password replaces the plain one for the mailname and its mail alias
    hashed = crypt.crypt("s3cret two", "$1$abcdefgh$")
    ok(sb.mailtend("--set-password", f"--domain-name={DOMAIN}", "--mailname=info",
                   env={"ZRN_CRYPTED_PASSWORD": hashed}))
    assert logins(sb, ["info", "sales"], "s3cret two") == {
        f"{n}@{d}": True for n in ("info", "sales") for d in (DOMAIN, *ALIASES)}
    assert not any(logins(sb, ["info"], "s3cret one").values())

    ok(sb.mailtend("--remove-mailbox", f"--domain-name={DOMAIN}", "--mailname=info"))
    assert not any(logins(sb, ["info", "sales"], "s3cret two").values())
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == "| true\n"


def test_plain_password_wins_and_disabled_domain_refused(mailhost):
    sb = mailhost
    make_home(sb, "other.example", "bob")
    ok(sb.mailtend("--add-mailbox", "--domain-name=Other.Example", "--mailname=bob", "-D",
                   env={"ZRN_PASSWORD": "plain", "ZRN_CRYPTED_PASSWORD":
                        crypt.crypt("hashed", "$1$saltsalt$")}))
    # the domain row was created disabled: nobody in it logs in
    assert sb.authtest("bob@other.example", "plain").rc != 0
    ok(sb.mailtend("--add-mailbox", f"--domain-name={DOMAIN}", "--mailname=info",
                   env={"ZRN_PASSWORD": "plain", "ZRN_CRYPTED_PASSWORD":
                        crypt.crypt("hashed", "$1$saltsalt$")}))
    assert sb.authtest(f"info@{DOMAIN}", "plain").rc == 0
    assert sb.authtest(f"info@{DOMAIN}", "hashed").rc != 0


def test_add_mailbox_without_password_enables_delivery_only(mailhost):
    sb = mailhost
    ok(sb.mailtend("--add-mailbox", f"--domain-name={DOMAIN}", "--mailname=info",
                   env={"ZRN_PASSWORD": "first"}))
    ok(sb.mailtend("--add-mailbox", f"--domain-name={DOMAIN}", "--mailname=info",
                   env={"ZRN_PASSWORD": ""}))
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == DELIVERY + "| true\n"
    assert not any(logins(sb, ["info"], "first").values())


def test_quota_enforced_by_delivery_program(mailhost):
    sb = mailhost
    maildir = home(DOMAIN, "info") + "/Maildir"
    # the attachments (here: their empty directory) are paid from the quota
    attachments = sb.stat(home(DOMAIN, "info") + "/@attachments").st_size
    ok(sb.mailtend("--set-mailbox-disk-quota", f"--domain-name={DOMAIN}", "--mailname=info",
                   f"--disk-quota={attachments + 1000}"))
    text = sb.read_text(maildir + "/maildirsize")
    assert text == "1000S,0C\n" + "%12d%12d\n" % (0, 0)
    st = sb.stat(maildir + "/maildirsize")
    assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (POPUSER, POPUSER, 0o644)

    assert sb.deliverquota(maildir, MESSAGE).rc == 0
    assert sb.deliverquota(maildir, MESSAGE).rc == 77
    size = sb.mailtend("--get-mailbox-size", f"--domain-name={DOMAIN}", "--mailname=info")
    assert size.rc == 0 and size.err == "" and size.out.isdigit(), size
    on_disk = sum(sb.stat(f"{maildir}/new/{n}").st_size for n in sb.listdir(maildir + "/new"))
    assert int(size.out) == attachments + on_disk and on_disk >= 600

    # unlimited again: the next message is accepted
    ok(sb.mailtend("--set-mailbox-disk-quota", f"--domain-name={DOMAIN}", "--mailname=info",
                   "--disk-quota=-1"))
    assert sb.deliverquota(maildir, MESSAGE).rc == 0


def test_domain_quota_spares_mailboxes_with_their_own(mailhost):
    sb = mailhost
    sb.panel.add_mailname(sb.dom_id, "boss", quota=50000)
    make_home(sb, DOMAIN, "boss")
    ok(sb.mailtend("--set-mailbox-disk-quota", f"--domain-name={DOMAIN}", "--mailname=boss",
                   "--disk-quota=50000"))
    ok(sb.mailtend("--set-domain-disk-quota", f"--domain-name={DOMAIN}", "--disk-quota=20000"))
    attachments = sb.stat(home(DOMAIN, "info") + "/@attachments").st_size
    first_line = lambda n: sb.read_text(home(DOMAIN, n) + "/Maildir/maildirsize").split("\n")[0]
    assert (first_line("info"), first_line("boss")) == (
        f"{20000 - attachments}S,0C", f"{50000 - attachments}S,0C")

    # a domain quota smaller than the attachments: delivery quota 0, with a warning
    r = sb.mailtend("--set-domain-disk-quota", f"--domain-name={DOMAIN}", "--disk-quota=10")
    warning = "WARNING: @attachments directory is big enough to disable delivery!\n"
    assert (r.rc, r.err, r.out) == (0, warning, warning), r


def test_redirects_in_delivery_file(mailhost):
    sb = mailhost
    qmail = home(DOMAIN, "info") + "/.qmail"
    for email in ("a@x.example", "b@b\u00fccher.example", "a@x.example"):
        ok(sb.mailtend("--add-redirect", f"--domain-name={DOMAIN}", "--mailname=info",
                       f"--redirect-email={email}"))
    assert sb.read_text(qmail) == "&a@x.example\n&b@xn--bcher-kva.example\n| true\n"
    ok(sb.mailtend("--remove-redirect", f"--domain-name={DOMAIN}", "--mailname=info",
                   "--redirect-email=a@x.example"))
    assert sb.read_text(qmail) == "&b@xn--bcher-kva.example\n| true\n"


@pytest.mark.parametrize("args,message", [
    (["--add-mailbox", "--mailname=a..b"],
     "Fatal error: std::invalid_argument(a..b)\n"),
    (["--add-redirect", "--mailname=..", "--redirect-email=x@y.example"],
     "Fatal error: std::invalid_argument(invalid mailname '..')\n"),
    (["--set-mailbox-disk-quota", "--mailname=a/b", "--disk-quota=5"],
     "Fatal error: std::invalid_argument(invalid mailname 'a/b')\n"),
])
def test_bad_names_change_nothing(mailhost, args, message):
    sb = mailhost
    r = sb.mailtend(args[0], f"--domain-name={DOMAIN}", *args[1:], env={"ZRN_PASSWORD": "x"})
    assert (r.rc, r.err) == (1, message), r
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == "| true\n"


def test_unreachable_panel_changes_nothing(mailhost):
    sb = mailhost
    sb.write("/etc/zrn/.zrn.shadow", "not the password\n", mode=0o600)
    for command in ("--add-mailbox", "--set-password", "--remove-mailbox"):
        r = sb.mailtend(command, f"--domain-name={DOMAIN}", "--mailname=info",
                        env={"ZRN_PASSWORD": "pw"})
        assert r.rc == 1 and r.out == r.err, r
        assert r.err.startswith("Unable to connect to Zarnet Database: Access denied for user "
                                "'admin'@'localhost'"), r
        assert r.err.count("\n") == 1, r
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == "| true\n"
    assert sb.sqlite("SELECT count(*) FROM users; SELECT count(*) FROM domains;").out == "0\n0\n"


def test_missing_popuser_is_fatal(mailhost):
    sb = mailhost
    passwd = sb.read_text("/etc/passwd")
    sb.write("/etc/passwd", "".join(line for line in passwd.splitlines(keepends=True)
                                    if not line.startswith("popuser:")))
    for args in (["--add-redirect", "--redirect-email=x@y.example"],
                 ["--set-mailbox-disk-quota", "--disk-quota=5"]):
        r = sb.mailtend(args[0], f"--domain-name={DOMAIN}", "--mailname=info", *args[1:])
        assert r.rc == 1 and r.err.startswith("Fatal error: zarnet::SystemError(user popuser "
                                              "not found"), r
    assert sb.read_text(home(DOMAIN, "info") + "/.qmail") == "| true\n"


# Options of each command in help order; "!" marks a mandatory one.
OPTION_SETS = {
    "--add-mailbox": ["!--domain-name", "!--mailname", "-D [ --mail-domain-disabled ]"],
    "--set-password": ["!--domain-name", "!--mailname", "-D [ --mail-domain-disabled ]"],
    "--remove-mailbox": ["!--domain-name", "!--mailname"],
    "--get-mailbox-size": ["--in-blocks", "!--domain-name", "!--mailname"],
    "--set-mailbox-disk-quota": ["!--domain-name", "!--mailname", "!--disk-quota"],
    "--add-redirect": ["!--domain-name", "!--mailname", "!--redirect-email"],
    "--remove-redirect": ["!--domain-name", "!--mailname", "!--redirect-email"],
    "--set-domain-disk-quota": ["!--domain-name", "!--disk-quota"],
}


def test_option_sets(sandbox):
    for command, want in OPTION_SETS.items():
        r = sandbox.mailtend(command, "--help")
        lines = r.out.split("Allowed options to ", 1)[1].splitlines()[1:-2]
        got = [("!" if line.endswith("(mandatory)") else "") + line.split(" arg")[0].strip()
               .split("  ")[0] for line in lines]
        assert (r.rc, got) == (0, want), r
        # the last mandatory option missing is the one reported, before anything changes
        last = [o for o in want if o.startswith("!")][-1][1:]
        r = sandbox.mailtend(command)
        assert (r.rc, r.err) == (1, f'mandatory option "{last}" is not specified\n'), r
