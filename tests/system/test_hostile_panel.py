"""Names that carry SQL stay values; a panel database that never answers ends the command."""

import time

import pytest

from panel_db import PanelDB
from sandbox import MAILNAMES

HERE = ("example.com", "example.net")
# example.com (alias example.net): boss, and o'brien with the mail alias o'b; another
# customer's other.example (alias other.net): boss. All log in with "old" everywhere.
PANEL = ["INSERT INTO domains (id, name) VALUES (1, 'example.com'), (2, 'other.example')",
         "INSERT INTO domainaliases (dom_id, name) VALUES (1, 'example.net'), (2, 'other.net')",
         "INSERT INTO mail VALUES (1, 1, 'boss', -1), (2, 1, 'o''brien', -1), (3, 2, 'boss', -1)",
         "INSERT INTO mail_aliases (mn_id, alias) VALUES (2, 'o''b')"]
OLD = {f"{n}@{d}": "old" for n in ("boss", "o'brien", "o'b") for d in HERE} | {
    "boss@other.example": "old", "boss@other.net": "old"}
SEED = "DELETE FROM users; DELETE FROM domains;" + "".join(f"INSERT OR IGNORE INTO domains (name)"
    f" VALUES ('{d}'); INSERT INTO users (name, userPassword, dom_id) SELECT '{n}', 'old', id FROM"
    f" domains WHERE name = '{d}';" for n, d in (a.replace("'", "''").split("@") for a in OLD))
# The first two never pass the name checks; the third is a valid local part, so only the
# escaping keeps it a value. Their mailbox homes exist, as for any name the panel passes.
HOSTILE_NAME, HOSTILE_DOMAIN = "x' UNION SELECT 'boss'#", "example.com' or 'a'='a"
QUOTED_NAME = "x'or'1'='1"
NEW = {"ZRN_PASSWORD": "new"}


@pytest.fixture(scope="module")
def sb(module_sandbox, panel_template):
    with PanelDB(module_sandbox, panel_template).start() as db:
        list(map(db.query, PANEL))
    for home in ("example.com", HOSTILE_NAME), (HOSTILE_DOMAIN, "boss"), ("example.com", QUOTED_NAME):
        module_sandbox.make_home(*home)
    module_sandbox.init_auth_db()
    return module_sandbox


def logins(sb):
    rows = sb.sqlite("SELECT u.name || '@' || d.name || '=' || u.userPassword FROM users u"
                     " JOIN domains d ON u.dom_id = d.id;").check().out.splitlines()
    return dict(row.rsplit("=", 1) for row in rows)


CASES = [  # what a fault would do, command, mailname, domain, env, exit status, logins changed
    ("password set for another mailbox", "--set-password", HOSTILE_NAME, "example.com", NEW, 1, {}),
    ("logins added in another customer's alias domains", "--add-mailbox", "boss", HOSTILE_DOMAIN,
     NEW, 1, {}),
    ("every mailbox's password set", "--set-password", QUOTED_NAME, "example.com", NEW, 0,
     {f"{QUOTED_NAME}@{d}": "new" for d in HERE}),
    ("every mailbox's logins removed", "--remove-mailbox", QUOTED_NAME, "example.com", {}, 0, {}),
    ("quoted name failed half-way", "--set-password", "o'brien", "example.com", NEW, 0,
     {f"{n}@{d}": "new" for n in ("o'brien", "o'b") for d in HERE}),
]


@pytest.mark.parametrize("fault,cmd,mailname,domain,env,rc,changed", CASES, ids=[c[0] for c in CASES])
def test_names_stay_values(sb, fault, cmd, mailname, domain, env, rc, changed):
    sb.sqlite(SEED).check()
    r = sb.mailtend(cmd, f"--domain-name={domain}", f"--mailname={mailname}", env=env)
    assert (r.rc, bool(r.err), logins(sb)) == (rc, rc != 0, {**OLD, **changed}), r


def test_stalled_panel_database_ends_the_command(sb):
    pid, before = sb.read_text("/run/mysqld/mysqld.pid").strip(), sb.tree(MAILNAMES)
    sb.sqlite(SEED).check()
    sb.run(["kill", "-STOP", pid]).check()
    try:
        for cmd in ["--add-mailbox", "--mailname=x"], ["--set-domain-disk-quota", "--disk-quota=1"]:
            start = time.monotonic()
            r = sb.mailtend(*cmd, "--domain-name=example.com", env=NEW)
            assert (r.rc, r.err.split(": Lost connection")[0], time.monotonic() - start < 10) == (
                1, "Unable to connect to Zarnet Database", True), r
    finally:
        sb.run(["kill", "-CONT", pid]).check()
    assert (logins(sb), sb.tree(MAILNAMES)) == (OLD, before)
