"""Names that carry SQL reach the panel database as plain values, and a panel database that
accepts connections but never answers ends the command within seconds."""

import json
import time

import pytest

from panel_db import PanelDB
from sandbox import MAILNAMES

# example.com (alias example.net): boss, and o'brien with the mail alias o'b;
# another customer's other.example (alias other.net): boss.
PANEL = {"example.com": ("example.net", {"boss": (), "o'brien": ("o'b",)}),
         "other.example": ("other.net", {"boss": ()})}
ALL_DOMAINS = ("example.com", "example.net", "other.example", "other.net")
NEW = {"ZRN_PASSWORD": "new"}


@pytest.fixture(scope="module")
def host(module_sandbox, panel_template):
    sb = module_sandbox
    with PanelDB(sb, panel_template).start() as db:
        for domain, (alias, mailnames) in PANEL.items():
            dom = db.insert("domains", name=domain)
            db.insert("domainaliases", dom_id=dom, name=alias)
            for name, aliases in mailnames.items():
                mn = db.insert("mail", dom_id=dom, mail_name=name)
                for mail_alias in aliases:
                    db.insert("mail_aliases", mn_id=mn, alias=mail_alias)
                sb.make_home(domain, name)
    for domain, name in HOMES:
        sb.make_home(domain, name)
    sb.init_auth_db()
    return sb


def logins(sb):
    """{(name, domain): password} of every row of passwd.db."""
    rows = sb.sqlite(".mode json\nSELECT u.name, d.name AS domain, u.userPassword AS pw"
                     " FROM users u JOIN domains d ON u.dom_id = d.id;").check().out
    return {(r["name"], r["domain"]): r["pw"] for r in json.loads(rows or "[]")}


@pytest.fixture
def sb(host):
    """Every mailbox and mail alias of the panel logs in with "old" in its domain and alias."""
    rows = [(n.replace("'", "''"), d) for domain, (alias, mailnames) in PANEL.items()
            for name, aliases in mailnames.items() for n in (name, *aliases) for d in (domain, alias)]
    host.sqlite("DELETE FROM users; DELETE FROM domains; INSERT INTO domains (name) VALUES "
                + ", ".join(f"('{d}')" for d in ALL_DOMAINS) + "; INSERT INTO users (name,"
                " userPassword, dom_id) VALUES " + ", ".join(
                    f"('{n}', 'old', (SELECT id FROM domains WHERE name = '{d}'))" for n, d in rows)
                + ";").check()
    return host


# Quoted, they are just odd names: their mailbox homes exist, as for any name the panel passes.
HOSTILE_NAME, HOSTILE_DOMAIN = "x' UNION SELECT 'boss'#", "example.com' or 'a'='a"
HOMES = [("example.com", HOSTILE_NAME), (HOSTILE_DOMAIN, "boss")]
HERE = ("example.com", "example.net")
CASES = [  # what a fault would do, command, mailname, domain, env, logins added, logins removed
    ("password set for another mailbox", "--set-password", HOSTILE_NAME, "example.com", NEW,
     {(HOSTILE_NAME, d): "new" for d in HERE}, ()),
    ("another mailbox's logins removed", "--remove-mailbox", HOSTILE_NAME, "example.com", {}, {},
     ()),
    ("logins added in another customer's alias domains", "--add-mailbox", "boss", HOSTILE_DOMAIN,
     NEW, {("boss", HOSTILE_DOMAIN): "new"}, ()),
    ("logins removed in every customer's alias domains", "--remove-mailbox", "boss",
     HOSTILE_DOMAIN, {}, {}, ()),
    ("quoted name failed half-way", "--set-password", "o'brien", "example.com", NEW,
     {(n, d): "new" for n in ("o'brien", "o'b") for d in HERE}, ()),
    ("quoted name left behind", "--remove-mailbox", "o'brien", "example.com", {}, {},
     [(n, d) for n in ("o'brien", "o'b") for d in HERE]),
]


@pytest.mark.parametrize("fault,command,mailname,domain,env,added,removed", CASES,
                         ids=[c[0] for c in CASES])
def test_names_stay_values(sb, fault, command, mailname, domain, env, added, removed):
    before = logins(sb)
    r = sb.mailtend(command, f"--domain-name={domain}", f"--mailname={mailname}", env=env)
    want = {k: v for k, v in {**before, **added}.items() if k not in removed}
    assert (r.rc, r.err, logins(sb)) == (0, "", want), r


@pytest.mark.parametrize("command", [["--add-mailbox", "--mailname=boss"],
                                     ["--set-domain-disk-quota", "--disk-quota=100000"]])
def test_stalled_panel_database_ends_the_command(sb, command):
    """The server keeps accepting on its listening socket but never answers."""
    pid, home = sb.read_text("/run/mysqld/mysqld.pid").strip(), f"{MAILNAMES}/example.com"
    before = (logins(sb), sb.tree(home))
    sb.run(["kill", "-STOP", pid]).check()
    try:
        start = time.monotonic()
        r = sb.mailtend(command[0], "--domain-name=example.com", *command[1:], env=NEW)
        took = time.monotonic() - start
    finally:
        sb.run(["kill", "-CONT", pid]).check()
    assert (r.rc, r.err.split(": Lost connection")[0], took < 10) == (
        1, "Unable to connect to Zarnet Database", True), (r, took)
    assert (logins(sb), sb.tree(home)) == before
