"""Mailnames: their lookup-table records, homes and logins; renames undone on failure."""

import pytest

from panel_db import PanelDB
from sandbox import AUTH_DB, MAILNAMES, POPUSER, REAL, TABLE_DIR

DOMAIN, ALIASES = "example.com", ("example.net", "example.org")
HOME, POSTMAP = f"{MAILNAMES}/{DOMAIN}", "/usr/sbin/postmap"
D = [f"--domain-name={DOMAIN}"]
PASSWORD = {"ZRN_PASSWORD": "s3cret"}
HANDLER = ["--handler-name=spam", "--handler-type=recipient", "--hook=before-local"]
FOLDERS = {f"info/{f}/": None for f in ("Maildir/tmp", "Maildir/new", "Maildir/cur",
           "Maildir/.Spam/tmp", "Maildir/.Spam/new", "Maildir/.Spam/cur", "@attachments")}


@pytest.fixture(scope="module")
def host(module_sandbox, panel_template):
    """example.com with two domain aliases; its mailname info has the mail alias sales."""
    sb = module_sandbox
    with PanelDB(sb, panel_template).start() as db:
        db.add_mail_domain(DOMAIN, ALIASES)
        sb.init_auth_db()
        sb.start_authdaemon()
        yield sb


@pytest.fixture
def sb(host):
    """Empty tables, no logins, no homes."""
    host.sqlite("DELETE FROM users; DELETE FROM domains;").check()
    for table in ("virtual", "vmailbox"):
        host.write(f"{TABLE_DIR}/{table}", "")
        host.run([POSTMAP, f"hash:{TABLE_DIR}/{table}"]).check()
        host.remove(f"{TABLE_DIR}/{table}")
    if host.exists(HOME):
        host.remove(HOME)
    return host


def everywhere(local, target=None):
    return {f"{local}@{d}": target for d in (DOMAIN, *ALIASES)}


def state(sb):
    """Tables, logins (address: password) and the homes."""
    rows = sb.sqlite("SELECT u.name || '@' || d.name, u.userPassword FROM users u "
                     "JOIN domains d ON d.id = u.dom_id;").check().out.splitlines()
    return {"virtual": sb.postmap_s("virtual"), "vmailbox": sb.postmap_s("vmailbox"),
            "logins": dict(r.split("|") for r in rows), "homes": sb.tree(HOME)}


def add_mailbox(sb, name="info"):
    sb.mailtend("--add-mailname", *D, f"--mailname={name}").expect()
    sb.mailtend("--add-mailbox", *D, f"--mailname={name}", env=PASSWORD).expect()


def test_mailname_life_cycle(sb):
    warning = "WARNING: @attachments directory is big enough to disable delivery!\n"
    for quota, limit in (([], 7000), (["--disk-quota=5000"], 5000), (["--disk-quota=0"], 0)):
        sb.mailtend("--add-mailname", *D, "--mailname=info", *quota).expect(
            0, *[warning if limit == 0 else ""] * 2)
        attachments = sb.stat(f"{HOME}/info/@attachments").st_size
        want = f"{limit - attachments}S,0C" if limit else "1S,0C"
        assert sb.read_text(f"{HOME}/info/Maildir/maildirsize").split("\n")[0] == want, quota
    s = state(sb)
    assert s["virtual"] == everywhere("info", f"info@{DOMAIN}")
    assert s["vmailbox"] == {f"info@{DOMAIN}": f"{DOMAIN}/info/Maildir/"}
    assert s["homes"]["info/Maildir/maildirsize"] and s["homes"]["info/.qmail"] == "| true\n"
    assert {k: v for k, v in s["homes"].items() if k.endswith("/")} == FOLDERS
    st = sb.stat(f"{HOME}/info/.qmail")
    assert (st.st_uid, st.st_gid, st.st_mode & 0o7777) == (POPUSER, POPUSER, 0o600)

    # mail aliases: records and logins in the domain and every domain alias
    sb.mailtend("--add-mailbox", *D, "--mailname=info", env=PASSWORD).expect()
    sb.mailtend("--add-alias", *D, "--mailname=info", "--alias=sales").expect()
    s = state(sb)
    assert s["virtual"] == {**everywhere("info", f"info@{DOMAIN}"),
                            **everywhere("sales", f"info@{DOMAIN}")}
    assert s["logins"] == {**everywhere("info", "s3cret"), **everywhere("sales", "s3cret")}
    for _ in range(2):  # the second time the records are gone already
        sb.mailtend("--remove-alias", *D, "--mailname=info", "--alias=sales").expect()
        s = state(sb)
        assert (s["virtual"], s["logins"]) == (everywhere("info", f"info@{DOMAIN}"),
                                               everywhere("info", "s3cret"))

    # the mailname takes its mail aliases' records, logins and handlers with it
    sb.mailtend("--add-alias", *D, "--mailname=info", "--alias=sales").expect()
    sb.record("/usr/lib/zarnet-9.0/handlers-tmpfs", exit_code=0)
    sb.write("/usr/local/bin/filter", "#!/bin/sh\n", mode=0o755)
    owners = [*everywhere("info"), *everywhere("sales"), f"boss@{DOMAIN}"]
    for owner in owners:
        sb.mailtend("--add-handler", *HANDLER, f"--handler-type-name={owner}", "--context=c",
                    "--executable=/usr/local/bin/filter", "--priority=1").expect()
    for _ in range(2):
        sb.mailtend("--remove-mailname", *D, "--mailname=info").expect()
        assert state(sb) == {"virtual": {}, "vmailbox": {}, "logins": {}, "homes": {}}
    assert [sb.mailtend("--check-handler", *HANDLER, f"--handler-type-name={owner}").rc
            for owner in owners] == [1] * 6 + [0]


def test_logins_unlocked_while_tables_change(sb):
    """passwd.db is free while postmap runs: its lock held while waiting for a table deadlocks."""
    add_mailbox(sb)
    probe = f"sqlite3 {AUTH_DB} 'BEGIN IMMEDIATE; ROLLBACK;' >/dev/null 2>&1 && echo free || echo held"
    sb.write(REAL + POSTMAP, sb.read(POSTMAP), mode=0o755)
    sb.write(POSTMAP, f'#!/bin/sh\n({probe}) >> /tmp/probe\nexec {REAL}{POSTMAP} "$@"\n', mode=0o755)
    try:
        for args in (["--add-alias", "--mailname=info", "--alias=sales"],
                     ["--rename-mailname", "--old-mailname=info", "--new-mailname=help"],
                     ["--remove-mailname", "--mailname=help"]):
            sb.mailtend(args[0], *D, *args[1:], env=PASSWORD).expect()
    finally:
        sb.restore(POSTMAP)
    probes = sb.read_text("/tmp/probe").split()
    # sales keeps its logins: the panel still lists it under info
    assert (set(probes), state(sb)["logins"]) == ({"free"}, everywhere("sales", "s3cret"))


BAD = "Fatal error: std::invalid_argument(a..b)\n"


@pytest.mark.parametrize("args", [
    ["--add-mailname", "--mailname=a..b"], ["--remove-mailname", "--mailname=a..b"],
    ["--rename-mailname", "--old-mailname=info", "--new-mailname=a..b"],
    ["--rename-mailname", "--old-mailname=a..b", "--new-mailname=help"]], ids=lambda a: a[0])
def test_mailname_check_refuses_before_any_change(sb, args):
    add_mailbox(sb)
    before = state(sb)
    sb.mailtend(args[0], *D, *args[1:], env=PASSWORD).expect(1, BAD, BAD)
    assert state(sb) == before


@pytest.mark.parametrize("env,logins", [(PASSWORD, everywhere("help", "s3cret")),
                                        ({}, {})], ids=["password", "no password"])
def test_rename_moves_records_home_and_logins(sb, env, logins):
    add_mailbox(sb)
    sb.write(f"{HOME}/info/Maildir/new/1.msg", "Subject: kept\n")
    sb.mailtend("--rename-mailname", *D, "--old-mailname=info", "--new-mailname=help",
                env=env).expect()
    s = state(sb)
    assert s["virtual"] == everywhere("help", f"help@{DOMAIN}")
    assert s["vmailbox"] == {f"help@{DOMAIN}": f"{DOMAIN}/help/Maildir/"}
    assert s["logins"] == logins
    assert [sb.authtest(f"{n}@{ALIASES[0]}", "s3cret").rc for n in ("help", "info")] == [not env, 1]
    assert sorted({k.split("/")[0] for k in s["homes"]}) == ["help"]
    assert s["homes"]["help/Maildir/new/1.msg"] == "Subject: kept\n"


CRITICAL = ("CRITICAL ERROR: Unable to properly restore Postfix Virtual Aliases Database used by "
            "Zarnet.\nMail system may be not usable at the moment and it cannot be repaired "
            "automatically.\nConstact Orvanta support to resolve this issue.\n")
# fault, what is at the new name, the postmap call that fails, what is said first
RENAME_FAULTS = [
    ("tables left renamed after a failed home rename", "home", 0,
     "Fatal error: boost::filesystem::filesystem_error("),
    ("vmailbox left renamed after a failed virtual rewrite", None, 3,
     "Fatal error: zarnet::mail::postfix::PostfixConfigurationError(postmap: fatal: injected"),
    ("failed undo not reported", "home", 5, CRITICAL),
    ("existing mailname's records taken by the undo", "mailname", 0,
     f"Fatal error: std::runtime_error(help@{DOMAIN} is already in use)\n"),
]


@pytest.mark.parametrize("fault,in_the_way,failing,said", RENAME_FAULTS,
                         ids=[f[0] for f in RENAME_FAULTS])
def test_failed_rename_restores_everything(sb, fault, in_the_way, failing, said):
    add_mailbox(sb)
    if in_the_way == "home":
        sb.write(f"{HOME}/help/mail", "someone else's")
    elif in_the_way:  # no login, so the tables are what refuses
        sb.mailtend("--add-mailname", *D, "--mailname=help").expect()
    before = state(sb)
    sb.fail_call(POSTMAP, failing)
    try:
        r = sb.mailtend("--rename-mailname", *D, "--old-mailname=info", "--new-mailname=help",
                        env=PASSWORD)
    finally:
        sb.restore(POSTMAP)
    assert r.rc == 1 and r.out == r.err and r.out.startswith(said), r
    after = state(sb)
    if failing == 5:  # the undo of "virtual" failed: only that table keeps the new name
        assert after["virtual"] == everywhere("help", f"help@{DOMAIN}")
        after["virtual"] = before["virtual"]
    assert after == before
