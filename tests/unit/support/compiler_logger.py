#!/usr/bin/python3
"""Logs each table-compiler run to $MAILTEND_COMPILER_LOG, then runs the real one.
MAILTEND_PROBE_LOCK: lock file to probe, " held" or " free" ends the line.
MAILTEND_COMPILER_FAIL: "[ARG:]exit" fails (a run whose first argument is ARG),
"[ARG:]kill" compiles, then dies by SIGKILL. MAILTEND_COMPILER_FAIL_RUNS: "N,M" fails the
Nth and Mth runs the log holds."""
import fcntl, os, signal, sys

args = sys.argv[1:]
line = " ".join(args)
if os.environ.get("MAILTEND_PROBE_LOCK"):
    with open(os.environ["MAILTEND_PROBE_LOCK"], "a") as f:
        try:
            fcntl.flock(f, fcntl.LOCK_EX | fcntl.LOCK_NB)
            line += " free"
        except BlockingIOError:
            line += " held"
with open(os.environ["MAILTEND_COMPILER_LOG"], "a+") as log:
    log.write(line + "\n")
    log.seek(0)
    run = str(len(log.readlines()))
if run in os.environ.get("MAILTEND_COMPILER_FAIL_RUNS", "").split(","):
    sys.exit("postmap: fatal: injected")
when, _, how = os.environ.get("MAILTEND_COMPILER_FAIL", "").rpartition(":")
postmap = ["/usr/sbin/postmap"] + args
if how == "exit" and when in ("", args[0]):
    sys.exit("postmap: fatal: injected")
if how == "kill" and when in ("", args[0]):
    if os.fork() == 0:
        os.execv(postmap[0], postmap)
    os.wait()
    os.kill(os.getpid(), signal.SIGKILL)
os.execv(postmap[0], postmap)
