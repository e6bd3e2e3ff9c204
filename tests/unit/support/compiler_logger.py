#!/usr/bin/python3
"""Stands in front of the table compiler in tests, then runs the real one.

MAILTEND_COMPILER_LOG   file each run's arguments are appended to
MAILTEND_PROBE_LOCK     lock file to probe: " held" or " free" ends the line
MAILTEND_COMPILER_FAIL  "ARG:exit" fails a run whose first argument is ARG (any
                        run without "ARG:"); "kill" compiles, then dies by SIGKILL
"""
import fcntl
import os
import signal
import sys

args = sys.argv[1:]
line = " ".join(args)
probe = os.environ.get("MAILTEND_PROBE_LOCK")
if probe:
    with open(probe, "a") as f:
        try:
            fcntl.flock(f, fcntl.LOCK_EX | fcntl.LOCK_NB)
            line += " free"
        except BlockingIOError:
            line += " held"
with open(os.environ["MAILTEND_COMPILER_LOG"], "a") as log:
    log.write(line + "\n")

when, _, how = os.environ.get("MAILTEND_COMPILER_FAIL", "").rpartition(":")
postmap = ["/usr/sbin/postmap"] + args
if how and (when == "" or when == args[0]):
    if how == "exit":
        print("postmap: fatal: injected", file=sys.stderr)
        sys.exit(1)
    if os.fork() == 0:
        os.execv(postmap[0], postmap)
    os.wait()
    os.kill(os.getpid(), signal.SIGKILL)
os.execv(postmap[0], postmap)
