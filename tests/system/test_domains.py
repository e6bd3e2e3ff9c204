"""Domains and domain aliases: the records of every table, logins, storage and mail acceptance."""

import re
import stat

import pytest

from panel_db import PanelDB
from sandbox import MAILNAMES, POSTFIX_LOG, wait_for

D, D_ARG = "xn--bcher-kva.example", "--domain-name=Bücher.Example"
TABLES = ("virtual_domains", "virtual", "vmailbox", "aliases")
STD = ("postmaster", "mailer-daemon", "root", "anonymous", "drweb", "kluser")
BOUNCE = '"|/usr/lib/zarnet-9.0/bouncemessage'
NO_ACTION = ("Action for notexisting mail names is not specified "
             "(--set-bounce/--set-catchall/--set-reject)\n")


def std(domain):
    return {f"{n}@{domain}": f"{n}@localhost.localdomain" for n in STD}


def records(sb, *names):
    """Per table, the records whose key or value mentions one of names."""
    found = {t: {k: v for k, v in sb.postmap_s(t).items() if any(n in k + v for n in names)}
             for t in TABLES}
    return {t: rows for t, rows in found.items() if rows}


def links(sb):
    """The links in the mail-names root as {name: target}."""
    return {k: v[3:] for k, v in sb.tree(MAILNAMES).items() if "/" not in k and (v or "").startswith("-> ")}


def auth(sb):
    """Domain rows as {name: status} and users as addresses."""
    out = sb.sqlite("SELECT 'd', name, status FROM domains; SELECT 'u', u.name || '@' || d.name"
                    " FROM users u JOIN domains d ON u.dom_id = d.id;").check().out
    rows = [line.split("|") for line in out.splitlines()]
    return {r[1]: int(r[2]) for r in rows if r[0] == "d"}, {r[1] for r in rows if r[0] == "u"}


@pytest.fixture(scope="module")
def host(module_sandbox, panel_template):
    """Bücher.Example with the domain alias alias.example (in the panel only) and mailnames
    info (mail alias sales) and boss, logins for both."""
    sb = module_sandbox
    with PanelDB(sb, panel_template).start() as db:
        dom = db.insert("domains", name=D)
        db.insert("domainaliases", dom_id=dom, name="alias.example")
        db.insert("mail_aliases", mn_id=db.insert("mail", dom_id=dom, mail_name="info"),
                  alias="sales")
        db.insert("mail", dom_id=dom, mail_name="boss")
        sb.init_auth_db()
        yield sb


def add_logins(sb):
    for name in ("info", "boss"):
        sb.make_home(D, name)
        sb.mailtend("--add-mailbox", D_ARG, f"--mailname={name}", env={"ZRN_PASSWORD": "pw"}).expect()


MULTI = BOUNCE + r" No\\\ such\\\ user\\\ Bye" + '"'
BOUNCED = {"@" + D: f"_zarnet_bounce_{D}@localhost.localdomain"}
CAUGHT, PANEL_ALIAS = {"@" + D: "Boss@" + D}, {"@alias.example": "boss@" + D}


def state(virtual=(), bounce=None, enabled=True):
    """The records of D: its mailbox, enabled with its standard addresses and more, its bounce
    command."""
    found = {"virtual_domains": {D: D + "/"}, "virtual": {**std(D), **dict(virtual)}} if enabled else {}
    return {**found, "vmailbox": {"info@" + D: D + "/info/Maildir/"},
            **({"aliases": {f"_zarnet_bounce_{D}": bounce}} if bounce else {})}


# Each step: arguments, then the records of D after it.
LIFE = [
    (["--add-domain", D_ARG, "--disk-quota=-1"], state()),
    (["--set-bounce", D_ARG], state(BOUNCED, BOUNCE + '"')),
    (["--set-bounce", D_ARG, "--phrase=it's gone"], state(BOUNCED, BOUNCE + r" it\\\'s\\\ gone" + '"')),
    (["--set-bounce", D_ARG, "--phrase=No such user\nBye"], state(BOUNCED, MULTI)),
    # the catch-all replaces the bounce's "@D"; the bounce command stays
    (["--set-catchall", D_ARG, "--email=Boss@BÜCHER.example"], state(CAUGHT, MULTI)),
    # added again: nothing of the domain is taken for an alias's leftovers
    (["--add-domain", D_ARG], state(CAUGHT, MULTI)),
    (["--set-catchall", "--domain-name=alias.example", "--email=boss@" + D],
     state({**CAUGHT, **PANEL_ALIAS}, MULTI)),
    # both switches drop the catch-all of the domain and of its aliases in the panel
    (["--set-reject", D_ARG], state((), MULTI)),
    (["--turn-off-domain", D_ARG], state(bounce=MULTI, enabled=False)),
    (["--turn-on-domain", D_ARG], state((), MULTI)),
    (["--set-catchall", "--domain-name=alias.example", "--email=boss@" + D], state(PANEL_ALIAS, MULTI)),
    (["--unset-reject", D_ARG], state((), MULTI)),
    (["--remove-domain", D_ARG], {}),
]


def test_domain_life_cycle(host):
    sb = host
    add_logins(sb)
    sb.mailtend("--set-catchall", D_ARG).expect(
        1, None, 'mandatory option "--email" is not specified\n')
    seen = []
    sb.run(["postmap", "-i", "hash:/var/spool/postfix/zarnet/vmailbox"],
           stdin=f"info@{D} {D}/info/Maildir/\n").check()
    for argv, want in LIFE:
        sb.mailtend(*argv).expect()
        assert records(sb, D) == want, argv
        seen.append((sb.exists(f"{MAILNAMES}/{D}"), auth(sb)[0].get(D)))
    # the storage root from creation to removal; the login status follows the switches
    assert seen == [(True, 0)] * 8 + [(True, 1)] + [(True, 0)] * 3 + [(False, None)]
    assert auth(sb)[1] == set()


def test_alias_records_logins_and_removal(host):
    sb = host
    sb.mailtend("--add-domain", D_ARG).expect()
    add_logins(sb)
    A, N = "xn--bcher-kva.net", "renamed.example"
    target = {"info@" + A: "info@" + D, "sales@" + A: "info@" + D, "boss@" + A: "boss@" + D}
    cases = [  # group options, exit status, standard output, the "@A" record, the bounce record
        ([], 1, NO_ACTION, {}, {}),
        (["--set-reject"], 0, "", {}, {}),
        (["--set-catchall", "--email=x@Bücher.Example"], 0, "", {"@" + A: "x@" + D}, {}),
        (["--set-bounce", "--phrase=bye"], 0, "",
         {"@" + A: f"_zarnet_bounce_{A}@localhost.localdomain"},
         {"aliases": {f"_zarnet_bounce_{A}": BOUNCE + ' bye"'}}),
    ]
    for extra, rc, out, at, bounce in cases:
        res = sb.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=Bücher.NET", *extra)
        assert (res.rc, res.out) == (rc, out), res
        assert records(sb, A) == {"virtual": {**std(A), **target, **at, A: D}, **bounce}
        assert (auth(sb)[1] >= {"info@" + A, "boss@" + A}, links(sb)) == (True, {A: D}), extra
        sb.mailtend("--del-domain-alias", D_ARG, "--domain-alias-name=bücher.net").expect()
        assert (records(sb, A), A in auth(sb)[0], links(sb)) == ({}, False, {}), extra
    sb.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=" + A, "--set-catchall").expect(
        1, None, 'Fatal error: zarnet::mail::postfix::mailtend_commands::MissingMandatoryOption('
        'mandatory option "--email" is not specified)\n')

    # a rename with a bounce: everything of the old name moves, the bounce is the new name's
    sb.mailtend("--set-bounce", "--domain-name=" + A, "--phrase=bye").expect()
    sb.mailtend("--rename-domain-alias", D_ARG, "--old-domain-alias-name=" + A,
                "--new-domain-alias-name=" + N, "--set-bounce").expect()
    moved = {k.replace(A, N): v for k, v in target.items()}
    assert records(sb, A) == {}
    assert records(sb, N) == {"virtual": {**std(N), **moved, N: D,
                                          "@" + N: f"_zarnet_bounce_{N}@localhost.localdomain"},
                              "aliases": {f"_zarnet_bounce_{N}": BOUNCE + '"'}}
    assert links(sb) == {N: D}
    domains, users = auth(sb)
    assert (A in domains, {"info@" + N, "boss@" + N} <= users) == (False, True)
    # reject drops the catch-all or bounce an alias brings from its old name
    sb.mailtend("--rename-domain-alias", D_ARG, "--old-domain-alias-name=" + N,
                "--new-domain-alias-name=" + A, "--set-reject").expect()
    assert "@" + A not in records(sb, A)["virtual"]


def test_new_domain_purges_an_alias_of_its_name(host):
    host.mailtend("--add-domain", D_ARG).expect()
    host.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=was.example",
                  "--set-catchall", f"--email=info@{D}").expect()
    host.mailtend("--add-domain", "--domain-name=was.example").expect()
    assert records(host, "was.example") == {"virtual_domains": {"was.example": "was.example/"},
                                            "virtual": std("was.example")}
    # the alias's link made way for the domain's own directory
    assert stat.S_ISDIR(host.stat(f"{MAILNAMES}/was.example", follow=False).st_mode)


def test_failed_table_change_takes_back_the_login_status(host):
    host.mailtend("--add-domain", D_ARG).expect()
    host.fail_call("/usr/sbin/postmap", 1)
    r = host.mailtend("--turn-off-domain", D_ARG)
    host.restore("/usr/sbin/postmap")
    assert (r.rc, auth(host)[0].get(D)) == (1, 0), r


def test_alias_warns_when_the_domain_key_cannot_follow(host):
    host.mailtend("--add-domain", D_ARG).expect()
    for path, text in ((f"/etc/domainkeys/{D}/default", "key\n"), ("/etc/domainkeys/warn.example", "")):
        host.write(path, text)
    r = host.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=warn.example", "--set-reject")
    assert r.rc == 0 and "WARNING: cannot clone domain key for warn.example\n" in r.err, r


def test_alias_link_never_replaces_or_follows_what_is_not_its_own(host):
    sb = host
    sb.mailtend("--add-domain", D_ARG).expect()
    sb.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=gone.example", "--set-reject").expect()
    sb.write(f"{MAILNAMES}/taken.example/keep", "mine\n")
    taken = ('Fatal error: boost::filesystem::filesystem_error(domain alias link: File exists: '
             '"/var/qmail/mailnames/taken.example")\n')
    sb.mailtend("--add-domain-alias", D_ARG, "--domain-alias-name=taken.example", "--set-reject").expect(
        1, taken, taken)
    assert (records(sb, "taken.example"), sb.tree(f"{MAILNAMES}/taken.example")) == ({}, {"keep": "mine\n"})
    # another domain's alias keeps its link: its logins must not move
    sb.mailtend("--add-domain", "--domain-name=other.example").expect()
    r = sb.mailtend("--add-domain-alias", "--domain-name=other.example",
                    "--domain-alias-name=gone.example", "--set-reject")
    assert (r.rc, links(sb)["gone.example"]) == (1, D), r
    sb.mailtend("--remove-domain", "--domain-name=other.example").expect()
    # a link where a domain root is expected goes, what it points at stays; the domain's
    # alias links go with it
    sb.write("/var/canary/mail", "keep\n")
    sb.run(["ln", "-s", "/var/canary", f"{MAILNAMES}/planted.example"]).check()
    for name in ("planted.example", D):
        sb.mailtend("--remove-domain", "--domain-name=" + name).expect()
    assert (sb.tree("/var/canary"), links(sb)) == ({"mail": "keep\n"}, {})


def test_running_postfix_follows_at_once(sandbox, panel_db):
    """A running mail server answers for a domain and its mailnames as soon as a command
    returns: no pause between the commands."""
    sb = sandbox
    dom = panel_db.insert("domains", name="fresh.example")
    panel_db.insert("mail", dom_id=dom, mail_name="new")
    sb.postconf_e("mynetworks = 127.0.0.1/32")  # clients at 127.0.0.2 are outsiders
    sb.start_postfix()
    # (command or rig step, its exit status, then swaks's for postmaster@, new@ and nobody@:
    # 24 is RCPT refused); without the password database a removal is refused, the domain stays
    steps = [(None, 0, (24, 24, 24)), ("--add-domain", 0, (0, 24, 24)),
             ("--remove-domain", 1, (0, 24, 24)), (sb.init_auth_db, 0, (0, 24, 24)),
             (["--add-mailname", "--mailname=new"], 0, (0, 0, 24)),
             (["--set-catchall", "--email=new@fresh.example"], 0, (0, 0, 0)),
             ("--set-reject", 0, (0, 0, 24)), ("--turn-off-domain", 0, (24, 24, 24)),
             ("--turn-on-domain", 0, (0, 0, 24)), ("--remove-domain", 0, (24, 24, 24))]
    got = []
    for step, _, _ in steps:
        rc = step() and 0 if callable(step) else 0
        if step is not None and not callable(step):
            argv = [step] if isinstance(step, str) else step
            rc = sb.mailtend(*argv, "--domain-name=fresh.example").rc
        got.append((rc, tuple(sb.run(["swaks", "--local-interface", "127.0.0.2", "--server",
                                      "127.0.0.1", "--quit-after", "RCPT", "--helo", "client.example",
                                      "--from", "a@client.example", "--to", f"{name}@fresh.example"]).rc
                              for name in ("postmaster", "new", "nobody"))))
    assert got == [(rc, swaks) for _, rc, swaks in steps]
    # each change of "virtual" reached the address-rewriting daemon of the Postfix that runs
    assert len(re.findall(r"process /usr/lib/postfix/sbin/trivial-rewrite pid \d+ killed by signal 2",
                          sb.read_text(POSTFIX_LOG))) >= 4


def test_unknown_mailname_bounces_with_the_phrase(sandbox, panel_db):
    """The sender of mail for an unknown mailname gets the domain's phrase back."""
    sb = sandbox
    sb.start_postfix()
    sb.mailtend("--add-domain", "--domain-name=fresh.example").expect()
    sb.mailtend("--set-bounce", "--domain-name=fresh.example", "--phrase=Gone\nfishing").expect()
    sb.run(["sendmail", "-f", "root@localhost", "nobody@fresh.example"],
           stdin="Subject: lost\n\nbody\n").check()
    assert wait_for(lambda: "Gone fishing" in sb.read_text("/var/mail/root")
                    if sb.exists("/var/mail/root") else False), sb.read_text(POSTFIX_LOG)
    notice = sb.read_text("/var/mail/root")
    assert "Undelivered Mail Returned to Sender" in notice and "Subject: lost" in notice
    assert "dsn=5.1.1, status=bounced (user unknown. Command output: Gone fishing )" in \
        sb.read_text(POSTFIX_LOG)


def test_alias_takes_mail_from_outside_and_serves_logins(sandbox, panel_db):
    """An outside client's mail for a domain alias reaches the domain's Maildir, where a POP3
    login through the alias finds it."""
    sb, A, N, home = sandbox, "alias.example", "new.example", f"{MAILNAMES}/example.com/info"
    panel_db.add_mail_domain("example.com", [A])
    sb.init_auth_db()
    sb.start_authdaemon()
    sb.make_home("example.com", "info")
    for args in (["--add-domain"], ["--add-mailname", "--mailname=info"], ["--add-mailbox", "--mailname=info"]):
        sb.mailtend(*args, "--domain-name=example.com", env={"ZRN_PASSWORD": "s3cret"}).expect()
    sb.postconf_e("mynetworks = 127.0.0.1/32")
    sb.start_postfix()
    # command (no pause between them), then swaks's status for info@A and info@N (24: refused)
    steps = [([], (24, 24)), (["--add-domain-alias", "--domain-alias-name=" + A, "--set-reject"], (0, 24)),
             (["--turn-off-domain"], (24, 24)), (["--turn-on-domain"], (0, 24)),
             (["--rename-domain-alias", "--old-domain-alias-name=" + A, "--new-domain-alias-name=" + N,
               "--set-reject"], (24, 0)), (["--del-domain-alias", "--domain-alias-name=" + N], (24, 24)),
             (["--add-domain-alias", "--domain-alias-name=" + A, "--set-reject"], (0, 24))]
    got = []
    for argv, _ in steps:
        rc = sb.mailtend(*argv, "--domain-name=example.com").rc if argv else 0
        got.append((rc, tuple(sb.run(["swaks", "--local-interface", "127.0.0.2", "--server", "127.0.0.1",
                                      "--helo", "client.example", "--from", "a@client.example", "--to",
                                      "info@" + name]).rc for name in (A, N))))
    assert got == [(0, want) for _, want in steps]
    assert wait_for(lambda: len(sb.listdir(home + "/Maildir/new")) == 4), sb.read_text(POSTFIX_LOG)
    r = sb.authtest("info@" + A, "s3cret")
    assert r.rc == 0 and f"Home Directory: {MAILNAMES}/{A}/info\n" in r.out, r
    sb.run(["/etc/init.d/courier-pop", "start"]).check()
    assert wait_for(lambda: 110 in sb.listening_ports())
    pop = ("import poplib; p = poplib.POP3('127.0.0.1'); p.user('info@alias.example'); p.pass_('s3cret'); "
           "print(len(p.list()[1]))")
    assert sb.run(["/usr/bin/python3", "-c", pop]).check().out == "4\n"
