"""Processes changing one domain at once end where a serial run would: each owns its keys (next
to the others' in the same tables and files), and shared keys only ever get the same change.
bench/concurrency runs the same workload larger."""

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


def handler(command, name, mailname):
    return [command, f"--handler-name={name}", "--handler-type=recipient", "--hook=before-local",
            f"--handler-type-name={mailname}@{DOMAIN}"] + (
        [f"--executable={EXE}", "--context=c", "--priority=10"] if command == "--add-handler" else [])


def workload(w, count, seed=0):
    """count (argv, env) operations of process w and the final state they leave behind."""
    rng, me = random.Random(f"{seed}:{w}"), f"m{w}"
    mailbox = [f"--domain-name={DOMAIN}", f"--mailname={me}"]
    ops, want = [], {"table": set(), "qmail": ["| true"], "info": [], "handlers": set(),
                     "login": None}
    for i in range(count):
        kind, k = rng.randrange(6), rng.randrange(3)
        if i == 0:  # every process at about the same moment
            ops.append((handler("--add-handler", "shared", "info"), {}))
        elif kind == 0:
            key, add = f"w{w}k{k}.example", rng.random() < 0.6
            ops.append(([f"--{'add' if add else 'remove'}-badmailfrom", f"--domain-name={key}"], {}))
            (want["table"].add if add else want["table"].discard)(key)
        elif kind == 1:
            ops.append((["--add-badmailfrom", f"--domain-name=shared{k}.example"], {}))
            want["table"].add(f"shared{k}.example")
        elif kind == 2:  # forwards: in its own mailbox, and its own one in the shared "info"
            box, line = (me, f"&r{k}@x.example") if k else ("info", f"&w{w}@x.example")
            add, lines = rng.random() < 0.6, want["qmail" if k else "info"]
            ops.append(([f"--{'add' if add else 'remove'}-redirect", f"--domain-name={DOMAIN}",
                         f"--mailname={box}", "--redirect-email=" + line[1:]], {}))
            lines[:] = [line] * add + [x for x in lines if x != line]
        elif kind == 3:
            name, present = f"h{w}k{k}", f"h{w}k{k}" in want["handlers"]
            ops.append((handler("--remove-handler" if present else "--add-handler", name, me), {}))
            want["handlers"] ^= {name}
        else:
            command = rng.choice(["--add-mailbox", "--set-password", "--remove-mailbox"])
            password = f"pw{w}.{i}" if command != "--remove-mailbox" else None
            ops.append(([command, *mailbox], {"ZRN_PASSWORD": password} if password else {}))
            want["login"] = password
            if command != "--set-password":
                want["qmail"] = [DELIVERY] * bool(password) + [
                    x for x in want["qmail"] if x != DELIVERY]
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
    shared = []
    for (ops, _), got in zip(loads, results):
        for (argv, _), (rc, out, err) in zip(ops, got):
            if "--handler-name=shared" in argv:
                shared.append((rc, out, err))
            else:
                assert (rc, out, err) == (0, "", ""), (argv, rc, out, err)
    assert sorted(shared) == [(0, "", "")] + [(1, TAKEN, TAKEN)] * (len(loads) - 1), shared
    wants = [want for _, want in loads]
    assert sb.postmap_s("blacklists") == {k: "REJECT" for w in wants for k in w["table"]}
    info = sb.read_text(f"{HOME}/info/.qmail")  # its order is the interleaving's
    assert info.endswith("| true\n") and sorted(info.splitlines()[:-1]) == sorted(
        line for want in wants for line in want["info"])
    for w, want in enumerate(wants):
        assert sb.read_text(f"{HOME}/m{w}/.qmail") == "".join(x + "\n" for x in want["qmail"]), w
    handlers = sorted(n.rsplit("-", 1)[0] for n in sb.listdir(f"{HANDLERS}/info"))
    assert handlers == sorted(["10-shared"] + [f"10-{h}" for w in wants for h in w["handlers"]])
    rows = sb.sqlite("SELECT name || ' ' || userPassword FROM users ORDER BY name;")
    assert rows.check().out.split("\n")[:-1] == sorted(
        f"m{w} {want['login']}" for w, want in enumerate(wants) if want["login"])


def test_concurrent_changes_end_as_if_serial(sandbox, panel_db):
    prepare(sandbox, panel_db, 8)
    loads = [workload(w, 200) for w in range(8)]
    verify(sandbox, loads, run_all(sandbox, loads))
