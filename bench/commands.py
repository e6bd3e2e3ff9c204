"""Every command that changes something, through the real tool in one started sandbox, timed
interleaved with its floor: the steps the command cannot avoid, done by bench/floor.c in one
process. Per command: median time, floor median, ratio (target 1.3, start-up included) and the
processes the command starts (children's execve, counted once under strace, untimed).

The host side builds the sandbox (bench/server_bench.py) and runs this file inside it ("inside"
mode). Each command is undone after its timed run and after its floor's, untimed: by tool
commands (lists) or floor steps (strings), so that every run changes something. BENCH_RUNS=N
sets the runs per command (15); BENCH_ONLY=WORD,... picks commands by their first word.
"""
import os
import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import server_bench  # noqa: E402

TARGET = 1.3
US = "\037"
TOOL = server_bench.TOOL
T = server_bench.TABLE_DIR
D, A = "example.com", "alias.com"  # the panel's domain and its domain alias
MN = "/var/qmail/mailnames/" + D
POP = 30110
MAIN_CF = "/etc/postfix/main.cf"
FLOORS = "/usr/local/bin"
HANDLERS = "/usr/local/zrn/handlers"
COURIER = ("imapd", "imapd-ssl", "pop3d", "pop3d-ssl")
COURIER_INIT = ("courier-imap", "courier-imap-ssl", "courier-pop", "courier-pop-ssl")
STD = server_bench.STD
KEY, ATTACHMENT = "/tmp/bench-key.pem", "/tmp/bench-attachment.txt"


# --- floor steps ----------------------------------------------------------------------------

def step(*fields):
    return US.join(map(str, fields))


def run(*argv, data="", kind="x"):
    return step(kind, data, *argv)


def insert(table, *records):
    return run("/usr/sbin/postmap", "-r", "-i", f"hash:{T}/{table}",
               data="".join(r + "\n" for r in records))


def delete(table, *keys):
    return run("/usr/sbin/postmap", "-d", "-", f"hash:{T}/{table}",
               data="".join(k + "\n" for k in keys), kind="y")


def postconf(name, value, read=()):
    """Reads the parameters the command must read, sets one, backdates main.cf as the tool
    does and signals the master."""
    return [*(run("/usr/sbin/postconf", "-h", r) for r in read),
            run("/usr/sbin/postconf", "-e", f"{name}={value}"), step("t", MAIN_CF),
            step("h", "/var/spool/postfix/pid/master.pid")]


def restore(name, value):
    return [run("/usr/sbin/postconf", "-e", f"{name}={value}"), step("t", MAIN_CF)]


def sqlite(sql):
    return step("s", f"{T}/passwd.db", sql)


def panel(*queries):
    return step("q", *queries)


ALIASES_Q = ("SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id "
             f"AND d.name='{D}'")


def mail_aliases_q(name):
    return ("SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE ma.mn_id=m.id "
            f"AND m.mail_name='{name}' AND m.dom_id=d.id AND d.name='{D}'")


def dom_id(name):
    return f"(SELECT id FROM domains WHERE name='{name}')"


def users_insert(name, password="pw1"):
    return sqlite("".join(f"INSERT INTO users (dom_id, name, userPassword) VALUES "
                          f"({dom_id(d)}, '{name}', '{password}');" for d in (D, A)))


def users_delete(name):
    return sqlite(f"DELETE FROM users WHERE name='{name}';")


def write(path, text, mode="600", uid=POP):
    return step("w", path, text, mode, uid)


def home_tree(name):
    """A mailname's home as the tool lays it out, with its .qmail and maildirsize."""
    h = f"{MN}/{name}"
    dirs = [h, h + "/Maildir"] + [f"{h}/Maildir/{s}" for s in ("tmp", "new", "cur", ".Spam")]
    dirs += [f"{h}/Maildir/.Spam/{s}" for s in ("tmp", "new", "cur")] + [h + "/@attachments"]
    return [step("m", d, "700", POP) for d in dirs] + [
        write(h + "/.qmail", f"| true\n{h}/Maildir/\n"),
        write(h + "/Maildir/maildirsize", "0S\n0 0\n", "644")]


def mailname_records(name):
    return [f"{name}@{d} {name}@{D}" for d in (D, A)]


def handler_info(name, kind, extra):
    """The info directory of one mail handler."""
    info = f"{HANDLERS}/info/{name}"
    return [step("m", f"{HANDLERS}/info", "755", 0), step("m", info, "755", 0),
            step("f", info + "/hook", "h"),
            step("f", info + "/context", "ctx"), step("f", info + "/handler-type", kind),
            step("f", f"{info}/{extra}", ""), step("l", "/bin/true", info + "/executable")]


def entry(directory, name):
    return [step("m", os.path.dirname(directory), "755", 0), step("m", directory, "755", 0),
            step("f", f"{directory}/{name}", "")]


def courier(text):
    """Rewrites the four Courier settings files and restarts their servers."""
    return ([write(f"/etc/courier-imap/{c}", text[c], "644", 0) for c in COURIER]
            + [run(f"/etc/init.d/{s}", "restart") for s in COURIER_INIT])


# --- the commands ---------------------------------------------------------------------------

class Item:
    """argv (a tool command), its undo, its floor steps; floor_undo (default undo) after the
    floor; prep once before the first run; env for the tool."""

    def __init__(self, argv, undo, floor, floor_undo=None, prep=(), env=None):
        self.argv, self.undo, self.floor = argv, undo, floor
        self.floor_undo = undo if floor_undo is None else floor_undo
        self.prep, self.env = list(prep), env


def items(orig):
    """The table; orig holds the main.cf values the undo steps put back."""
    d, m = f"--domain-name={D}", "--mailname="
    pw = lambda p: {"ZRN_PASSWORD": p}  # noqa: E731
    std = [f"{s}@new.com" for s in STD]
    ar_dir, hd_dir = f"{HANDLERS}/before-local/recipient/far@{D}", f"{HANDLERS}/before-remote/global"
    ar_set = handler_info("90-ar-floor", "recipient", "recipient") + entry(ar_dir, "90-ar-floor")
    ar_reset = [step("r", ar_dir), step("r", f"{HANDLERS}/info/90-ar-floor")]
    hd_add = handler_info("10-h1-floor", "global", "global") + entry(hd_dir, "10-h1-floor")
    hd_remove = [step("r", hd_dir), step("r", f"{HANDLERS}/info/10-h1-floor")]
    hd_update = (handler_info("20-h1-floor", "global", "global") + entry(hd_dir, "20-h1-floor")
                 + [step("r", f"{hd_dir}/10-h1-floor"), step("r", f"{HANDLERS}/info/10-h1-floor")])
    hd_back = hd_add + [step("r", f"{hd_dir}/20-h1-floor"), step("r", f"{HANDLERS}/info/20-h1-floor")]
    h = "--handler-name=h1 --handler-type=global --hook=before-queue".split()
    mynet = orig["mynetworks"]
    att = lambda: run("/bin/cp", KEY + ".txt", ATTACHMENT)  # noqa: E731
    key = lambda: run("/bin/cp", KEY + ".keep", KEY)  # noqa: E731
    return {
        "--add-mailname": Item(
            ["--add-mailname", d, m + "new"], [["--remove-mailname", d, m + "new"]],
            home_tree("new") + [panel(ALIASES_Q), insert("vmailbox", f"new@{D} {D}/new/Maildir/"),
                                insert("virtual", *mailname_records("new"))]),
        "--remove-mailname": Item(
            ["--remove-mailname", d, m + "gone"],
            [["--add-mailname", d, m + "gone"], ["--add-mailbox", d, m + "gone"]],
            [panel(ALIASES_Q, mail_aliases_q("gone")), users_delete("gone"),
             delete("vmailbox", f"gone@{D}"), delete("virtual", f"gone@{D}", f"gone@{A}"),
             step("r", f"{MN}/gone")]),
        "--rename-mailname": Item(
            ["--rename-mailname", d, "--old-mailname=ren", "--new-mailname=ren2"],
            [["--rename-mailname", d, "--old-mailname=ren2", "--new-mailname=ren"]],
            [panel(ALIASES_Q), sqlite("UPDATE users SET name='ren2' WHERE name='ren';"),
             delete("vmailbox", f"ren@{D}"), insert("vmailbox", f"ren2@{D} {D}/ren2/Maildir/"),
             delete("virtual", f"ren@{D}", f"ren@{A}"), insert("virtual", *mailname_records("ren2")),
             step("n", f"{MN}/ren", f"{MN}/ren2")]),
        "--add-mailbox": Item(
            ["--add-mailbox", d, m + "mb"], [["--remove-mailbox", d, m + "mb"]],
            [panel(ALIASES_Q, mail_aliases_q("mb")), users_insert("mb"),
             write(f"{MN}/mb/.qmail", f"{MN}/mb/Maildir/\n")], env=pw("pw1")),
        "--remove-mailbox": Item(
            ["--remove-mailbox", d, m + "info"], [["--add-mailbox", d, m + "info"]],
            [panel(ALIASES_Q, mail_aliases_q("info")), users_delete("info"),
             write(f"{MN}/info/.qmail", "| true\n")]),
        "--set-password": Item(
            ["--set-password", d, m + "info"], [["--set-password", d, m + "info"]],
            [panel(ALIASES_Q, mail_aliases_q("info")),
             sqlite("UPDATE users SET userPassword='pw2' WHERE name IN ('info', 'sales');")],
            env=pw("pw2")),
        "--set-mailbox-disk-quota": Item(
            ["--set-mailbox-disk-quota", d, m + "info", "--disk-quota=100000"],
            [["--set-mailbox-disk-quota", d, m + "info", "--disk-quota=-1"]],
            [write(f"{MN}/info/Maildir/maildirsize", "100000S\n0 0\n", "644")]),
        "--add-redirect": Item(
            ["--add-redirect", d, m + "info", "--redirect-email=x@y.org"],
            [["--remove-redirect", d, m + "info", "--redirect-email=x@y.org"]],
            [write(f"{MN}/info/.qmail", f"{MN}/info/Maildir/\n&x@y.org\n")]),
        "--remove-redirect": Item(
            ["--remove-redirect", d, m + "info", "--redirect-email=r@y.org"],
            [["--add-redirect", d, m + "info", "--redirect-email=r@y.org"]],
            [write(f"{MN}/info/.qmail", f"{MN}/info/Maildir/\n")],
            prep=[["--add-redirect", d, m + "info", "--redirect-email=r@y.org"]]),
        "--set-autoresponder": Item(
            ["--set-autoresponder", d, m + "ar"], [["--reset-autoresponder", d, m + "ar"]],
            ar_set, floor_undo=ar_reset),
        "--reset-autoresponder": Item(
            ["--reset-autoresponder", d, m + "ar"], [["--set-autoresponder", d, m + "ar"]],
            ar_reset, floor_undo=ar_set, prep=[["--set-autoresponder", d, m + "ar"]] + ar_set),
        "--add-alias": Item(
            ["--add-alias", d, m + "info", "--alias=al"],
            [["--remove-alias", d, m + "info", "--alias=al"]],
            [panel(ALIASES_Q), users_insert("al"), insert("virtual", *mailname_records("al"))]),
        "--remove-alias": Item(
            ["--remove-alias", d, m + "info", "--alias=al2"],
            [["--add-alias", d, m + "info", "--alias=al2"]],
            [panel(ALIASES_Q), users_delete("al2"), delete("virtual", f"al2@{D}", f"al2@{A}")],
            prep=[["--add-alias", d, m + "info", "--alias=al2"]]),
        "--add-domain": Item(
            ["--add-domain", "--domain-name=new.com"], [["--remove-domain", "--domain-name=new.com"]],
            [insert("virtual_domains", "new.com new.com/"),
             insert("virtual", *(f"{s} {s.split('@')[0]}@localhost.localdomain" for s in std)),
             step("m", "/var/qmail/mailnames/new.com", "755", POP)]),
        "--remove-domain": Item(
            ["--remove-domain", "--domain-name=new.com"], [["--add-domain", "--domain-name=new.com"]],
            [panel(ALIASES_Q.replace(D, "new.com")), sqlite(f"DELETE FROM domains WHERE name='new.com';"),
             delete("virtual_domains", "new.com"), delete("virtual", *std),
             delete("aliases", "_zarnet_bounce_new.com"), step("r", "/var/qmail/mailnames/new.com")],
            prep=[["--add-domain", "--domain-name=new.com"]]),
        "--turn-off-domain": Item(
            ["--turn-off-domain", d], [["--turn-on-domain", d]],
            [panel(ALIASES_Q), sqlite(f"UPDATE domains SET status=1 WHERE name IN ('{D}', '{A}');"),
             delete("virtual_domains", D, A),
             delete("virtual", *(f"{s}@{x}" for s in STD for x in (D, A)))]),
        "--turn-on-domain": Item(
            ["--turn-on-domain", d], [["--turn-off-domain", d]],
            [panel(ALIASES_Q), sqlite(f"UPDATE domains SET status=0 WHERE name IN ('{D}', '{A}');"),
             insert("virtual_domains", f"{D} {D}/", f"{A} {A}/"),
             insert("virtual", *(f"{s}@{x} {s}@localhost.localdomain" for s in STD for x in (D, A)))],
            prep=[["--turn-off-domain", d]]),
        "--set-domain-disk-quota": Item(
            ["--set-domain-disk-quota", d, "--disk-quota=100000"],
            [["--set-domain-disk-quota", d, "--disk-quota=-1"]],
            [panel("SELECT m.mail_name, m.mbox_quota FROM mail m, domains d WHERE d.id = m.dom_id "
                   f"AND d.name='{D}'"),
             write(f"{MN}/info/Maildir/maildirsize", "100000S\n0 0\n", "644")]),
        "--add-badmailfrom": Item(
            ["--add-badmailfrom", "--domain-name=bad.org"],
            [["--remove-badmailfrom", "--domain-name=bad.org"]],
            [insert("blacklists", "bad.org REJECT")]),
        "--remove-badmailfrom": Item(
            ["--remove-badmailfrom", "--domain-name=bad.org"],
            [["--add-badmailfrom", "--domain-name=bad.org"]],
            [delete("blacklists", "bad.org")], prep=[["--add-badmailfrom", "--domain-name=bad.org"]]),
        "--set-bounce": Item(
            ["--set-bounce", d], [["--set-reject", d]],
            [insert("aliases", f'_zarnet_bounce_{D} "|/usr/lib/zarnet-9.0/bouncemessage"'),
             insert("virtual", f"@{D} _zarnet_bounce_{D}")]),
        "--set-catchall": Item(
            ["--set-catchall", d, "--email=x@y.org"], [["--set-reject", d]],
            [insert("virtual", f"@{D} x@y.org")]),
        "--set-reject": Item(
            ["--set-reject", d], [["--set-bounce", d]],
            [panel(ALIASES_Q), delete("virtual", f"@{D}", f"@{A}")]),
        "--unset-reject": Item(
            ["--unset-reject", d], [["--set-reject", d]],
            [panel(ALIASES_Q), delete("virtual", f"@{D}", f"@{A}")], prep=[["--set-reject", d]]),
        "--add-whitelist": Item(
            ["--add-whitelist", "--ip-address=10.1.0.0", "--netmask=16"],
            restore("mynetworks", mynet),
            postconf("mynetworks", mynet + ", 10.1.0.0/16", ["mynetworks"])),
        "--remove-whitelist": Item(
            ["--remove-whitelist", "--ip-address=10.2.0.0", "--netmask=16"],
            restore("mynetworks", mynet + ", 10.2.0.0/16"),
            postconf("mynetworks", mynet, ["mynetworks"]), prep=restore("mynetworks", mynet + ", 10.2.0.0/16")),
        "--set-maps-protection": Item(
            ["--set-maps-protection", "--maps-zones=bl.example.org"],
            restore("smtpd_client_restrictions", orig["smtpd_client_restrictions"]),
            postconf("smtpd_client_restrictions", "reject_rbl_client bl.example.org",
                     ["smtpd_client_restrictions"])),
        "--set-max-letter-size": Item(
            ["--set-max-letter-size", "--size=20000000"],
            restore("message_size_limit", orig["message_size_limit"]),
            postconf("message_size_limit", "20000000", ["mailbox_size_limit"])),
        "--set-mail-params": Item(
            ["--set-mail-params", "--smtpauth"],
            restore("smtpd_recipient_restrictions", orig["smtpd_recipient_restrictions"]),
            courier(orig) + postconf("smtpd_recipient_restrictions",
                                 "permit_sasl_authenticated, reject_unauth_destination",
                                 ["smtpd_recipient_restrictions"])),
        "--set-accounts-format": Item(
            ["--set-accounts-format", "--account-format=compound"], [], courier(orig)),
        "--update-spf": Item(
            ["--update-spf", "--spf-behavior=3", "--spf-rules=a", "--spf-guess=b", "--spf-exp=c"],
            [["--update-spf", "--spf-behavior=1", "--spf-rules=-", "--spf-guess=-", "--spf-exp=-"]],
            [step("f", f"/etc/zrn-spf/{f}", v) for f, v in
             (("spfbehavior", "3"), ("spfrules", "a"), ("spfguess", "b"), ("spfexp", "c"))]),
        "--add-attachment": Item(
            ["--add-attachment", d, m + "info", f"--file-name={ATTACHMENT}",
             "--attachment-file-name=a.txt"],
            [["--remove-attachment", d, m + "info", "--attachment-file-name=a.txt"], att()],
            [write(f"{MN}/info/@attachments/a.txt", "attached\n")], prep=[att()]),
        "--remove-attachment": Item(
            ["--remove-attachment", d, m + "info", "--attachment-file-name=b.txt"],
            [att(), ["--add-attachment", d, m + "info", f"--file-name={ATTACHMENT}",
                     "--attachment-file-name=b.txt"]],
            [step("r", f"{MN}/info/@attachments/b.txt")],
            prep=[att(), ["--add-attachment", d, m + "info", f"--file-name={ATTACHMENT}",
                          "--attachment-file-name=b.txt"]]),
        "--add-domain-alias": Item(
            ["--add-domain-alias", d, "--domain-alias-name=al2.com", "--set-reject"],
            [["--del-domain-alias", d, "--domain-alias-name=al2.com"]],
            [panel("SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND "
                   f"d.name='{D}'", mail_aliases_q("info")),
             sqlite("INSERT INTO domains (name) VALUES ('al2.com');"),
             insert("virtual_domains", "al2.com al2.com/"),
             insert("virtual", *(f"{s}@al2.com {s}@{D}" for s in STD + ("info",))),
             step("l", D, "/var/qmail/mailnames/al2.com")]),
        "--del-domain-alias": Item(
            ["--del-domain-alias", d, "--domain-alias-name=al3.com"],
            [["--add-domain-alias", d, "--domain-alias-name=al3.com", "--set-reject"]],
            [panel("SELECT d.name FROM domains d JOIN domainaliases da WHERE d.id=da.dom_id AND "
                   "da.name='al3.com'"), sqlite("DELETE FROM domains WHERE name='al3.com';"),
             delete("virtual_domains", "al3.com"),
             delete("virtual", *(f"{s}@al3.com" for s in STD + ("info",))),
             delete("aliases", "_zarnet_bounce_al3.com"), step("r", "/var/qmail/mailnames/al3.com")],
            prep=[["--add-domain-alias", d, "--domain-alias-name=al3.com", "--set-reject"]]),
        "--rename-domain-alias": Item(
            ["--rename-domain-alias", d, "--old-domain-alias-name=al4.com",
             "--new-domain-alias-name=al5.com", "--set-reject"],
            [["--rename-domain-alias", d, "--old-domain-alias-name=al5.com",
              "--new-domain-alias-name=al4.com", "--set-reject"]],
            [panel("SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND "
                   f"d.name='{D}'", mail_aliases_q("info")),
             sqlite("UPDATE domains SET name='al5.com' WHERE name='al4.com';"),
             delete("virtual_domains", "al4.com"), insert("virtual_domains", "al5.com al5.com/"),
             delete("virtual", *(f"{s}@al4.com" for s in STD + ("info",))),
             insert("virtual", *(f"{s}@al5.com {s}@{D}" for s in STD + ("info",))),
             step("l", D, "/var/qmail/mailnames/al5.com"), step("r", "/var/qmail/mailnames/al4.com")],
            prep=[["--add-domain-alias", d, "--domain-alias-name=al4.com", "--set-reject"]]),
        "--add-handler": Item(
            ["--add-handler", *h, "--executable=/bin/true", "--context=ctx", "--priority=10"],
            [["--remove-handler", *h]], hd_add, floor_undo=hd_remove),
        "--update-handler": Item(
            ["--update-handler", *h, "--priority=20"], [["--update-handler", *h, "--priority=10"]],
            hd_update, floor_undo=hd_back,
            prep=[["--add-handler", *h, "--executable=/bin/true", "--context=ctx",
                   "--priority=10"]] + hd_add),
        "--disable-handler": Item(
            ["--disable-handler", *h], [["--enable-handler", *h]],
            [step("r", hd_dir)], floor_undo=entry(hd_dir, "10-h1-floor")),
        "--enable-handler": Item(
            ["--enable-handler", *h], [["--disable-handler", *h]],
            entry(hd_dir, "10-h1-floor"), floor_undo=[step("r", hd_dir)],
            prep=[["--disable-handler", *h], step("r", hd_dir)]),
        "--remove-handler": Item(
            ["--remove-handler", *h],
            [["--add-handler", *h, "--executable=/bin/true", "--context=ctx", "--priority=10"]],
            hd_remove, floor_undo=hd_add, prep=entry(hd_dir, "10-h1-floor")),
        "--set-domain-key": Item(
            ["--set-domain-key", d, f"--file-name={KEY}"], [["--remove-domain-key", d], key()],
            [step("m", f"/etc/domainkeys/{D}", "755", 0),
             write(f"/etc/domainkeys/{D}/default", "key\n", "600", 0), step("r", KEY)],
            prep=[key()]),
        "--remove-domain-key": Item(
            ["--remove-domain-key", d], [key(), ["--set-domain-key", d, f"--file-name={KEY}"]],
            [step("r", f"/etc/domainkeys/{D}")],
            floor_undo=[step("m", f"/etc/domainkeys/{D}", "755", 0),
                        write(f"/etc/domainkeys/{D}/default", "key\n", "600", 0)],
            prep=[key(), ["--set-domain-key", d, f"--file-name={KEY}"]]),
        "--reload-service": Item(
            ["--reload-service", "--mail-component=mta"], [],
            [step("h", "/var/spool/postfix/pid/master.pid")]),
        "--stop-service": Item(
            ["--stop-service", "--mail-component=imap"],
            [["--start-service", "--mail-component=imap"]],
            [run(f"/etc/init.d/{n}", "stop") for n in COURIER_INIT]),
        "--start-service": Item(
            ["--start-service", "--mail-component=imap"],
            [["--stop-service", "--mail-component=imap"]],
            [run(f"/etc/init.d/{n}", "start") for n in COURIER_INIT], prep=[["--stop-service", "--mail-component=imap"]]),
        "--restart-service": Item(
            ["--restart-service", "--mail-component=imap"], [],
            [run(f"/etc/init.d/{n}", "restart") for n in COURIER_INIT],
            prep=[["--start-service", "--mail-component=imap"]]),
    }


# --- inside the sandbox ---------------------------------------------------------------------

def backdate():
    past = time.time() - 3
    os.utime(MAIN_CF, (past, past))


def floor_binary(steps):
    kinds = {s[0] for s in steps}
    return FLOORS + "/" + {(False, False): "floor", (True, False): "floor_sqlite",
                           (False, True): "floor_mysql", (True, True): "floor_db"}[
        ("s" in kinds, "q" in kinds)]


def timed(argv, env=None):
    """Milliseconds of one run, start-up included; the run must succeed."""
    start = time.perf_counter()
    p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, env={**os.environ, **(env or {})})
    err = p.stderr.read()
    if p.wait() != 0:
        raise SystemExit(f"{argv[:3]} failed: {err.decode(errors='replace')}")
    return (time.perf_counter() - start) * 1000


def tool(argv, env=None):
    return timed([TOOL, *argv], {"ZRN_PASSWORD": "pw1", **(env or {})})


def floor(steps):
    return timed([floor_binary(steps), *steps])


def perform(actions):
    """Tool commands (lists) and runs of floor steps (strings), in order, untimed."""
    pending = []
    for a in list(actions) + [None]:
        if isinstance(a, str):
            pending.append(a)
            continue
        if pending:
            floor(pending)
            pending = []
        if a is not None:
            tool(a)
    if os.path.exists(MAIN_CF) and time.time() - os.stat(MAIN_CF).st_mtime < 2.5:
        backdate()


def processes(item):
    """Processes the command starts: its children's execve calls, from one traced run. The
    tracer is ended once the tool has exited, leaving any daemon started behind."""
    log = "/tmp/bench-execve.log"
    tracer = subprocess.Popen(["strace", "-f", "-q", "-e", "trace=execve", "-o", log, TOOL,
                               *item.argv], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, env={**os.environ, **(item.env or {})})
    first, done = None, False
    deadline = time.monotonic() + 120
    while not done and tracer.poll() is None and time.monotonic() < deadline:
        time.sleep(0.05)
        with open(log) as f:
            text = f.read()
        first = first or (re.match(r"(\d+) ", text) or [None, None])[1]
        done = first is not None and re.search(rf"^{first}\s+\+\+\+ exited", text, re.M)
    if tracer.poll() is None:  # it would stay with the daemons the command started
        tracer.kill()
        tracer.wait()
    with open(log) as f:
        lines = f.read().splitlines()
    os.remove(log)
    return sum(1 for line in lines if "execve(" in line and line.endswith("= 0")) - 1


def setup():
    """The state the commands work on (the panel's domain came from the host side)."""
    perform([["--add-domain", f"--domain-name={D}"],
             ["--add-domain-alias", f"--domain-name={D}", f"--domain-alias-name={A}",
              "--set-reject"]])
    for name in ("info", "gone", "ren", "mb", "ar"):
        perform([["--add-mailname", f"--domain-name={D}", f"--mailname={name}"]])
    for name in ("info", "gone", "ren"):
        perform([["--add-mailbox", f"--domain-name={D}", f"--mailname={name}"]])
    subprocess.run(["openssl", "genrsa", "-out", KEY + ".keep", "1024"], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(KEY + ".txt", "w") as f:
        f.write("attached\n")
    hooks = "/usr/local/zrn/handlers/hooks"
    os.makedirs(hooks, exist_ok=True)
    subprocess.run(["cp", "/bin/true", hooks + "/autoresponder"], check=True)
    orig = {}
    for name in ("mynetworks", "smtpd_client_restrictions", "message_size_limit",
                 "smtpd_recipient_restrictions"):
        orig[name] = subprocess.run(["postconf", "-h", name], check=True, capture_output=True,
                                    text=True).stdout.strip()
    for c in COURIER:
        with open(f"/etc/courier-imap/{c}") as f:
            orig[c] = f.read()
    return orig


def inside(runs, only):
    table = items(setup())
    failed = 0
    for word, item in table.items():
        if only and word not in only:
            continue
        perform(item.prep)
        count = processes(item)
        perform(item.undo)
        ms, fl = [], []
        for _ in range(runs):
            ms.append(tool(item.argv, item.env))
            perform(item.undo)
            fl.append(floor(item.floor))
            perform(item.floor_undo)
        t, f = statistics.median(ms), statistics.median(fl)
        ok = t / f <= TARGET
        failed += not ok
        print(f"{word:<26} {t:9.2f} ms  floor {f:8.2f} ms  ratio {t / f:5.2f}  target {TARGET} "
              f"{'met' if ok else 'MISSED'}  {count:3d} processes", flush=True)
    return 1 if failed else 0


def main(build, runs, only):
    import tempfile
    with tempfile.TemporaryDirectory(prefix="mailtend-bench.") as work:
        server = server_bench.Server(build, work)
        try:
            sb = server.sb
            for variant in ("floor", "floor_sqlite", "floor_mysql", "floor_db"):
                sb.install(Path(build) / variant, f"{FLOORS}/{variant}")
            server.db.add_mail_domain(D, [A])
            sb.start_postfix()
            for script in COURIER_INIT:
                sb.run([f"/etc/init.d/{script}", "start"]).check()
            sys.stdout.flush()
            # the lines as they come: a full run takes minutes
            return sb._script("exec", sb.root, "/usr/bin/python3", __file__, "inside", runs, only,
                              timeout=3600, output=sys.stdout).rc
        finally:
            server.close()


if __name__ == "__main__":
    if sys.argv[1] == "inside":
        sys.exit(inside(int(sys.argv[2]), [w for w in sys.argv[3].split(",") if w]))
    sys.exit(main(sys.argv[1], int(os.environ.get("BENCH_RUNS", 15)),
                  os.environ.get("BENCH_ONLY", "")))
