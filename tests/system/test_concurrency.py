"""Processes changing one domain at once end where a serial run would: each owns its keys (beside
the others' in shared tables and files); shared keys only ever get the same change."""

import json
import random
import time
from concurrent.futures import ThreadPoolExecutor

from sandbox import MAILNAMES

DOMAIN, HOME = "example.com", f"{MAILNAMES}/example.com"
HANDLERS, EXE = "/usr/local/zrn/handlers", "/usr/local/bin/spamfilter"
REFRESH = "/usr/lib/zarnet-9.0/handlers-tmpfs"
DELIVERY = "| /usr/bin/deliverquota ./Maildir"
TAKEN = "Handler shared for info@example.com already exists in queue before-local\n"
# runs one process's operations inside the sandbox: one entry per sandbox, not per command;
# all processes begin at the same moment (argv[1]), so their first operations collide
RUNNER = ("import json, os, subprocess, sys, time\nres = []\n"
          "time.sleep(max(0, float(sys.argv[1]) - time.time()))\n"
          "for argv, env in json.load(sys.stdin):\n"
          "    p = subprocess.run(argv, env={**os.environ, **env}, capture_output=True)\n"
          "    res.append((p.returncode, p.stdout.decode(errors='replace'),"
          " p.stderr.decode(errors='replace')))\nprint(json.dumps(res))\n")


def handler(name, mailname, add=True):
    return [f"--handler-name={name}", "--handler-type=recipient", "--hook=before-local",
            f"--handler-type-name={mailname}@{DOMAIN}"] + (
        [f"--executable={EXE}", "--context=c", "--priority=10"] * add)


def workload(w, count, seed=0):
    """count (argv, env) operations of process w, the first adding the handler every process adds,
    and what they leave: table keys, .qmail lines (its own, its in "info"), handlers, password."""
    rng, me = random.Random(f"{seed}:{w}"), f"m{w}"
    ops = [(["--add-handler", *handler("shared", "info")], {})]
    want = {"table": [], "qmail": ["| true"], "info": [], "handlers": [], "login": None,
            "networks": []}

    def change(kind, key, add, command, *args, env=None):  # added lines go first, as in .qmail
        ops.append(([f"--{'add' if add else 'remove'}-{command}", *args], env or {}))
        want[kind] = [key] * add + [x for x in want[kind] if x != key]

    for i in range(1, count):
        kind, k, add = rng.randrange(6), rng.randrange(3), rng.random() < 0.6
        if kind < 2:  # its own keys, and shared ones that are only ever added
            key, add = (f"w{w}k{k}.example", add) if kind else (f"shared{k}.example", True)
            change("table", key, add, "badmailfrom", f"--domain-name={key}")
        elif kind == 2:
            box, line = (me, f"&r{k}@x.example") if k else ("info", f"&w{w}@x.example")
            change("qmail" if k else "info", line, add, "redirect", f"--mailname={box}",
                   f"--domain-name={DOMAIN}", "--redirect-email=" + line[1:])
        elif kind == 3:
            add = f"h{w}k{k}" not in want["handlers"]
            change("handlers", f"h{w}k{k}", add, "handler", *handler(f"h{w}k{k}", me, add))
        elif kind == 4:  # main.cf: a list every process edits
            change("networks", f"10.{w}.{k}.0/24", add, "whitelist", f"--ip-address=10.{w}.{k}.0",
                   "--netmask=24")
        else:
            mailbox, password = [f"--domain-name={DOMAIN}", f"--mailname={me}"], f"pw{w}.{i}"
            want["login"], env = password if add or k else None, {"ZRN_PASSWORD": password}
            if k:
                ops.append((["--set-password", *mailbox], env))
            else:
                change("qmail", DELIVERY, add, "mailbox", *mailbox, env=env if add else None)
    return ops, want


def prepare(sb, db, processes):
    """The domain in the panel, empty homes, an empty password database and handler store."""
    dom = db.insert("domains", name=DOMAIN)
    for name in ["info", *(f"m{w}" for w in range(processes))]:
        db.insert("mail", dom_id=dom, mail_name=name)
        sb.make_home(DOMAIN, name)
    sb.init_auth_db()
    for program in (REFRESH, EXE):
        sb.write(program, "#!/bin/sh\nexit 0\n", mode=0o755)


def run_all(sb, loads):
    start = time.time() + 2

    def one(ops):
        argvs = [(["/usr/local/zrn/admin/sbin/mailtend", *argv], env) for argv, env in ops]
        return json.loads(sb.run(["/usr/bin/python3", "-c", RUNNER, str(start)],
                                 stdin=json.dumps(argvs), timeout=900).check().out)
    with ThreadPoolExecutor(len(loads)) as pool:
        return list(pool.map(one, [ops for ops, _ in loads]))


def verify(sb, loads, results):
    done = [(" ".join(argv), tuple(res)) for (ops, _), got in zip(loads, results)
            for (argv, _), res in zip(ops, got)]
    first = "--handler-name=shared "  # exactly one process adds it; the others are told
    assert [(argv, res) for argv, res in done if res != (0, "", "") and first not in argv] == []
    assert sorted(res for argv, res in done if first in argv) == [(0, "", "")] + [
        (1, TAKEN, TAKEN)] * (len(loads) - 1)
    wants = [want for _, want in loads]
    assert sb.postmap_s("blacklists") == {k: "REJECT" for w in wants for k in w["table"]}
    info = sb.read_text(f"{HOME}/info/.qmail")  # its order is the interleaving's
    assert info.endswith("| true\n") and sorted(info.splitlines()[:-1]) == sorted(
        line for want in wants for line in want["info"])
    for w, want in enumerate(wants):
        assert sb.read_text(f"{HOME}/m{w}/.qmail") == "".join(x + "\n" for x in want["qmail"]), w
    handlers = sorted(n.rsplit("-", 1)[0] for n in sb.listdir(f"{HANDLERS}/info"))
    assert handlers == sorted(["10-shared"] + [f"10-{h}" for w in wants for h in w["handlers"]])
    networks = set(sb.postconf_h("mynetworks").replace(",", " ").split())
    assert {n for n in networks if n.startswith("10.")} == {n for w in wants for n in w["networks"]}
    rows = sb.sqlite("SELECT name || ' ' || userPassword FROM users ORDER BY name;")
    assert rows.check().out.split("\n")[:-1] == sorted(
        f"m{w} {want['login']}" for w, want in enumerate(wants) if want["login"])


def test_concurrent_changes_end_as_if_serial(sandbox, panel_db):
    prepare(sandbox, panel_db, 8)
    loads = [workload(w, 200) for w in range(8)]
    verify(sandbox, loads, run_all(sandbox, loads))
