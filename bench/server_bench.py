"""Commands timed on a server of many domains, in a sandbox, against the postmap calls they make.

The host side fills the tables with postmap from generated text and the panel in bulk, then runs
this file inside the sandbox ("inside" mode), where each command is first run once with postmap
replaced by a recorder (arguments and input), and then timed, interleaved with its floor: the
recorded one-record calls replayed against the real postmap, plus `postmap -s` and a rebuild of
each table the command rewrote. Every command is undone (untimed) after itself and its floor.
BENCH_DOMAINS=N shrinks the large server to N domains for a quick trial.
"""
import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
TABLE_DIR = "/var/spool/postfix/zarnet"
TABLES = ("virtual_domains", "virtual", "vmailbox", "aliases")
STD = ("postmaster", "mailer-daemon", "root", "anonymous", "drweb", "kluser")
TOOL = "/usr/local/zrn/admin/sbin/mailtend"
POSTMAP, REAL, CALLS = "/usr/sbin/postmap", "/tmp/bench-postmap.real", "/tmp/bench-postmap.calls"
SOURCES = "/tmp/bench-sources"  # the generated text of each table, for the regeneration figure
RECORDER = f"""#!/usr/bin/python3
import json, subprocess, sys
args = sys.argv[1:]
data = sys.stdin.buffer.read() if "-i" in args or "-" in args else None
with open("{CALLS}", "a") as f:
    f.write(json.dumps([args, None if data is None else data.decode()]) + "\\n")
sys.exit(subprocess.run(["{REAL}", *args], input=data).returncode)
"""


def domain(i):
    return f"d{i}.bench"


def alias(i, k):
    return f"a{i}-{k}.bench"


# --- host side ----------------------------------------------------------------------------------

class Server:
    """A sandbox with the optimised tool, the panel database and a password database."""

    def __init__(self, build, work):
        sys.path[:0] = [str(REPO / "tests" / "rig")]
        from panel_db import PanelDB, build_template
        from sandbox import Sandbox
        self.sb = Sandbox.create(Path(work) / "root", Path(build) / "mailtend")
        self.sb.install_dbinit(Path(build) / "mailauth-dbinit")
        self.db = PanelDB(self.sb, build_template(Path(work) / "panel")).start()
        self.sb.init_auth_db()

    def close(self):
        self.db.close()
        self.sb.destroy()

    def fill(self, domains, per_domain, aliases_per_domain):
        """domains d<i>.bench with mailnames u0.. and domain aliases a<i>-<k>.bench, as the tool
        leaves their records; returns the number of records in virtual."""
        text = {t: [] for t in TABLES}
        panel_domains, panel_aliases, panel_mail = [], [], []
        for i in range(domains):
            d = domain(i)
            panel_domains.append((i + 1, d))
            text["virtual_domains"].append(f"{d} {d}/")
            names = [f"u{j}" for j in range(per_domain)]
            for j, n in enumerate(names):
                panel_mail.append((i * per_domain + j + 1, i + 1, n))
                text["vmailbox"].append(f"{n}@{d} {d}/{n}/Maildir/")
            for name in [d] + [alias(i, k) for k in range(aliases_per_domain)]:
                if name != d:
                    panel_aliases.append((i + 1, name))
                text["virtual"] += [f"{s}@{name} {s}@localhost.localdomain" for s in STD]
                text["virtual"] += [f"{n}@{name} {n}@{d}" for n in names]
            text["aliases"].append(f'_zarnet_bounce_{d} "|/usr/lib/zarnet-9.0/bouncemessage"')
        for table in ("mail_aliases", "mail", "domainaliases", "domains"):
            self.db.query(f"DELETE FROM {table}")
        with self.db._conn.cursor() as cur:
            cur.executemany("INSERT INTO domains (id, name) VALUES (%s, %s)", panel_domains)
            cur.executemany("INSERT INTO domainaliases (dom_id, name) VALUES (%s, %s)", panel_aliases)
            cur.executemany("INSERT INTO mail (id, dom_id, mail_name) VALUES (%s, %s, %s)", panel_mail)
        # the password database's domain rows (no logins), which the switches and aliases update
        count = "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < %d) "
        self.sb.sqlite("BEGIN; DELETE FROM domains; " + count % (domains - 1)
                       + "INSERT INTO domains (name) SELECT 'd' || i || '.bench' FROM n; "
                       + "".join(count % (domains - 1) + f"INSERT INTO domains (name) SELECT 'a' || "
                                 f"i || '-{k}.bench' FROM n; " for k in range(aliases_per_domain))
                       + "COMMIT;").check()
        self.sb.makedirs(SOURCES)
        for table, lines in text.items():
            self.sb.write(f"{SOURCES}/{table}", "\n".join(lines) + "\n")
            self.sb.write(f"{TABLE_DIR}/{table}", "\n".join(lines) + "\n")
            self.sb.run(["postmap", f"hash:{TABLE_DIR}/{table}"]).check()
            self.sb.remove(f"{TABLE_DIR}/{table}")
        return len(text["virtual"])

    def measure(self, plan):
        """Runs the plan inside the sandbox; one result per item."""
        res = self.sb.run(["/usr/bin/python3", __file__, "inside"], stdin=json.dumps(plan),
                          timeout=3600).check()
        return json.loads(res.out)


def report(label, r, target, floor="one_record"):
    """One printed line: the command, its time, the floor (the one-record calls; "floor": with
    dump and rebuild of the rewritten tables; "dump": with their dump only), the ratio, the
    verdict, and beside them regenerating the touched tables from their whole text."""
    ratio = r["ms"] / r[floor]
    print(f"{label:<46} {r['ms']:8.2f} ms  floor {r[floor]:8.2f} ms  ratio {ratio:5.2f}  "
          f"target {target:.1f} {'met' if ratio <= target else 'MISSED'}  ({r['calls']} postmap "
          f"calls, {r['rewrites']} tables rewritten; regenerating from text {r['regen']:.1f} ms, "
          f"{r['regen'] / r['ms']:.1f} x the command)")
    return ratio <= target


def report_rss(label, small, large):
    """Peak RSS of a rewrite at two sizes: the tool's own, then with its postmap calls, and
    that of the floor's raw calls."""
    (n, rs), (m, rl) = small, large
    ratio = rl["own_rss"] / rs["own_rss"]
    print(f"{label:<46} peak RSS {rs['own_rss']} KiB at {n}, {rl['own_rss']} KiB at {m}  ratio "
          f"{ratio:.2f}  target 2.0 {'met' if ratio <= 2 else 'MISSED'}  (with its postmap "
          f"calls {rs['rss']} / {rl['rss']} KiB; the raw calls {rs['floor_rss']} / "
          f"{rl['floor_rss']} KiB)")
    return ratio <= 2


# --- inside the sandbox -------------------------------------------------------------------------

def tool(args, own_rss=False):
    """A command's time and peak RSS in KiB: with own_rss that of the tool alone (its VmHWM,
    polled until it exits), else of it and its postmap calls (wait4)."""
    start, own = time.perf_counter(), 0
    p = subprocess.Popen([TOOL, *args], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                         stderr=subprocess.DEVNULL)
    while own_rss:
        try:
            with open(f"/proc/{p.pid}/status") as f:
                own = max([own] + [int(line.split()[1]) for line in f if line.startswith("VmHWM")])
        except (OSError, ValueError):
            pass
        if os.waitid(os.P_PID, p.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None:
            break
        time.sleep(0.0005)
    _, status, usage = os.wait4(p.pid, 0)
    ms = (time.perf_counter() - start) * 1000
    if status != 0:
        raise SystemExit(f"mailtend {args} failed with status {status}")
    return ms, own if own_rss else usage.ru_maxrss


def record_calls(args):
    """The postmap calls of one run of a command, as [arguments, input or None]."""
    with open(POSTMAP + ".bench", "w") as f:
        f.write(RECORDER)
    os.chmod(POSTMAP + ".bench", 0o755)
    os.rename(POSTMAP + ".bench", POSTMAP)
    try:
        tool(args)
    finally:
        subprocess.run(["cp", REAL, POSTMAP + ".bench"], check=True)
        os.rename(POSTMAP + ".bench", POSTMAP)
    with open(CALLS) as f:
        calls = [json.loads(line) for line in f]
    os.remove(CALLS)
    return calls


def postmap(args, data=None, out=os.devnull):
    """One raw call; its peak RSS in KiB."""
    with open(out, "w") as sink:
        p = subprocess.Popen([POSTMAP, *args], stdout=sink, stderr=subprocess.DEVNULL,
                             stdin=subprocess.DEVNULL if data is None else subprocess.PIPE)
        if data is not None:
            p.stdin.write(data.encode())
            p.stdin.close()
        return os.wait4(p.pid, 0)[2].ru_maxrss


def floors(calls):
    """Timers for the replay of the one-record calls and for dump and rebuild of each rewritten
    table (a rewrite is a `-s` call); its rebuild call is then not replayed."""
    dumped = [c[0][-1] for c in calls if c[0][0] == "-s"]
    single = [c for c in calls if c[0][0] in ("-i", "-d", "-r")]

    def one_record():
        start = time.perf_counter()
        for args, data in single:
            postmap(args, data)
        return (time.perf_counter() - start) * 1000

    def rewrite():
        dump = build = peak = 0
        for table in dumped:
            path = table.split(":", 1)[1]
            start = time.perf_counter()
            peak = max(peak, postmap(["-s", table], out=path))
            mid = time.perf_counter()
            peak = max(peak, postmap([table]))
            dump, build = dump + mid - start, build + time.perf_counter() - mid
            os.remove(path)
        return dump * 1000, build * 1000, peak
    return one_record, rewrite


def regen(tables):
    start = time.perf_counter()
    for t in tables:
        path = f"{TABLE_DIR}/{t}.regen"
        subprocess.run(["cp", f"{SOURCES}/{t}", path], check=True)
        postmap([f"hash:{path}"])
    took = (time.perf_counter() - start) * 1000
    for t in tables:
        os.remove(f"{TABLE_DIR}/{t}.regen")
        os.remove(f"{TABLE_DIR}/{t}.regen.db")
    return took


def inside(plan):
    subprocess.run(["cp", POSTMAP, REAL], check=True)
    for args in plan["setup"]:
        tool(args)
    results = []
    for item in plan["items"]:
        calls = record_calls(item["do"])
        for undo in item["undo"]:
            tool(undo)
        one_record, rewrite = floors(calls)
        tables = sorted({os.path.basename(c[0][-1].split(":", 1)[1]) for c in calls
                         if c[0][0] in ("-s", "-i", "-d", "-r") and ":" in c[0][-1]})
        ms, single, dumps, full, rss, floor_rss = [], [], [], [], 0, 0
        for _ in range(item["reps"]):
            took, peak = tool(item["do"])
            ms.append(took)
            rss = max(rss, peak)
            for undo in item["undo"]:
                tool(undo)
            single.append(one_record())
            # a rename's undo holds only after the rename; its replay renamed nothing
            for undo in item["undo"] if not item["do"][0].startswith("--rename") else ():
                tool(undo)
            dump, build, peak = rewrite()
            dumps.append(single[-1] + dump)
            full.append(single[-1] + dump + build)
            floor_rss = max(floor_rss, peak)
        results.append({"ms": statistics.median(ms), "one_record": statistics.median(single),
                        "floor": statistics.median(full),
                        "dump": statistics.median(dumps), "calls": len(calls),
                        "rewrites": len({c[0][-1] for c in calls if c[0][0] == "-s"}),
                        "regen": regen(tables), "rss": rss, "floor_rss": floor_rss,
                        "own_rss": tool(item["do"], own_rss=True)[1]})
        for undo in item["undo"]:
            tool(undo)
    json.dump(results, sys.stdout)


def domains_bench(server):
    """10,000 domains, 100,000 mailnames, 20,000 domain aliases; rewrite memory against 10
    records."""
    size = server.fill(int(os.environ.get("BENCH_DOMAINS", 10000)), 10, 2)
    d, a = "--domain-name=d5.bench", "--domain-alias-name="
    items = [  # (label, command, undo commands, target, floor)
        ("--add-domain (no such alias)", ["--add-domain", "--domain-name=new.bench"],
         [["--remove-domain", "--domain-name=new.bench"]], 1.3, "one_record"),
        ("--turn-off-domain", ["--turn-off-domain", d], [["--turn-on-domain", d]], 1.3, "one_record"),
        ("--turn-on-domain", ["--turn-on-domain", d], [], 1.3, "one_record"),
        ("--set-catchall", ["--set-catchall", d, "--email=u0@d5.bench"], [], 1.3, "one_record"),
        ("--set-bounce", ["--set-bounce", d], [], 1.3, "one_record"),
        ("--set-reject", ["--set-reject", d], [["--set-bounce", d]], 1.3, "one_record"),
        ("--del-domain-alias", ["--del-domain-alias", d, a + "a5-0.bench"],
         [["--add-domain-alias", d, a + "a5-0.bench", "--set-reject"]], 1.2, "floor"),
        ("--rename-domain-alias", ["--rename-domain-alias", d, "--old-domain-alias-name=a5-1.bench",
                                   "--new-domain-alias-name=r5.bench", "--set-reject"],
         [["--rename-domain-alias", d, "--old-domain-alias-name=r5.bench",
           "--new-domain-alias-name=a5-1.bench", "--set-reject"]], 1.2, "floor"),
        ("--remove-domain", ["--remove-domain", "--domain-name=d7.bench"],
         [["--add-domain", "--domain-name=d7.bench"]], 1.2, "floor"),
        ("--del-domain-alias (changes nothing)", ["--del-domain-alias", d, a + "none.bench"], [],
         1.1, "dump"),
    ]
    ok, results = run_plan(server, items, [["--add-domain", d]], reps=5)
    small = server.fill(1, 4, 0)
    nothing = ["--del-domain-alias", "--domain-name=d0.bench", a + "none.bench"]
    _, tiny = run_plan(server, [(None, nothing, [], 0, "")], [], reps=3, quiet=True)
    return report_rss("--del-domain-alias (changes nothing)", (f"{small} records", tiny[0]),
                      (f"{size} records", results[-1])) and ok


def mailnames_bench(server):
    """100,000 mailnames in 10,000 domains with two domain aliases each, and 10 in one."""
    ok, rename = True, []
    for domains in (1, int(os.environ.get("BENCH_DOMAINS", 10000))):
        server.fill(domains, 10, 2)
        d, m = "--domain-name=d0.bench", "--mailname="
        items = [
            ("--add-mailname", ["--add-mailname", d, m + "new"],
             [["--remove-mailname", d, m + "new"]], 1.3, "one_record"),
            ("--add-alias", ["--add-alias", d, m + "u0", "--alias=al"],
             [["--remove-alias", d, m + "u0", "--alias=al"]], 1.3, "one_record"),
            ("--remove-alias", ["--remove-alias", d, m + "u0", "--alias=al"],
             [["--add-alias", d, m + "u0", "--alias=al"]], 1.3, "one_record"),
            ("--remove-mailname", ["--remove-mailname", d, m + "u1"],
             [["--add-mailname", d, m + "u1"]], 1.3, "one_record"),
            ("--rename-mailname", ["--rename-mailname", d, "--old-mailname=u2", "--new-mailname=r2"],
             [["--rename-mailname", d, "--old-mailname=r2", "--new-mailname=u2"]], 1.2, "floor"),
        ]
        setup = [["--add-mailname", d, m + n] for n in ("u1", "u2")]
        met, results = run_plan(server, items, setup, reps=5,
                                tag=f"({10 * domains} mailnames)")
        ok &= met
        rename.append((f"{10 * domains} mailnames", results[-1]))
    return report_rss("--rename-mailname", *rename) and ok


def run_plan(server, items, setup, reps, tag="", quiet=False):
    """Measures (label, command, undo commands, target, floor) items after the setup commands;
    whether each met its target, and the results."""
    plan = {"setup": setup, "items": [{"do": do, "undo": undo, "reps": reps}
                                      for _, do, undo, _, _ in items]}
    results, ok = server.measure(plan), True
    for (label, _, _, target, floor), r in zip(items, results) if not quiet else ():
        ok &= report(f"{label} {tag}".strip(), r, target, floor)
    return ok, results


def main(which, build):
    import tempfile
    with tempfile.TemporaryDirectory(prefix="mailtend-bench.") as work:
        server = Server(build, work)
        try:
            ok = {"domains": domains_bench, "mailnames": mailnames_bench}[which](server)
        finally:
            server.close()
    return 0 if ok else 1


if __name__ == "__main__":
    if sys.argv[1:] == ["inside"]:
        inside(json.load(sys.stdin))
    else:
        sys.exit(main(*sys.argv[1:]))
