#!/usr/bin/python3
"""Stands in front of the table compiler in tests: records each run's
arguments, then runs the real compiler with them."""
import os
import sys

with open(os.environ["MAILTEND_COMPILER_LOG"], "a") as log:
    log.write(" ".join(sys.argv[1:]) + "\n")
os.execv("/usr/sbin/postmap", ["/usr/sbin/postmap"] + sys.argv[1:])
