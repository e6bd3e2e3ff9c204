"""The mail services' start/stop scripts inside a sandbox, for the service-control tests.

    record_script(sb, name)        wraps /etc/init.d/NAME in a script that records each call
                                   (its arguments and its whole environment) and then runs the
                                   real script, or exits with a given code instead
    listening_ports(sb)            TCP ports something listens on inside the started sandbox
    master_pid(sb)                 the pid recorded in Postfix's master.pid, or None

The Courier POP3/IMAP servers are the Debian packages' own init scripts; with the packages'
settings they listen on 110 (POP3), 995 (POP3 over TLS), 143 (IMAP) and 993 (IMAP over TLS).
"""

import time

INIT_D = "/etc/init.d"
POSTFIX = "postfix"
MASTER_PID = "/var/spool/postfix/pid/master.pid"
POSTFIX_LOG = "/var/log/postfix.log"

# script name: the port its server listens on
COURIER_SCRIPTS = {
    "courier-imap": 143,
    "courier-imap-ssl": 993,
    "courier-pop": 110,
    "courier-pop-ssl": 995,
}
COURIER_PIDFILES = {
    "courier-imap": "/run/courier/imapd.pid",
    "courier-imap-ssl": "/run/courier/imapd-ssl.pid",
    "courier-pop": "/run/courier/pop3d.pid",
    "courier-pop-ssl": "/run/courier/pop3d-ssl.pid",
}

_RECORD_DIR = "/run/script-records"
REAL_INIT_D = "/etc/init.d-real"
_END = "--end of call--"


class Recorder:
    """The calls of one wrapped script: each a (arguments, environment entries) pair."""

    def __init__(self, sb, name):
        self.sb = sb
        self.name = name
        self.path = f"{_RECORD_DIR}/{name}"

    def calls(self):
        if not self.sb.exists(self.path):
            return []
        found = []
        for block in self.sb.read_text(self.path).split(_END + "\n"):
            if not block:
                continue
            lines = block.split("\n")
            env = [e for e in lines[1:] if e]
            found.append((lines[0].split(" ") if lines[0] else [], env))
        return found

    def actions(self):
        return [args[0] if args else "" for args, _ in self.calls()]

    def clear(self):
        if self.sb.exists(self.path):
            self.sb.remove(self.path)


def record_script(sb, name, exit_code=None):
    """Puts a recording wrapper at /etc/init.d/NAME. The real script moves to real_script(NAME)
    (same base name: the scripts derive file names from it) and is run by the wrapper with the
    same arguments and environment, unless exit_code is given."""
    script = f"{INIT_D}/{name}"
    real = real_script(name)
    if not sb.exists(real):
        sb.write(real, sb.read(script), mode=0o755)
    sb.makedirs(_RECORD_DIR)
    tail = f"exit {int(exit_code)}" if exit_code is not None else f'exec {real} "$@"'
    # the shell sees only what it was given: it exports nothing of its own
    sb.write(script,
             "#!/bin/sh\n"
             f"{{ printf '%s\\n' \"$*\"; /usr/bin/tr '\\0' '\\n' < /proc/$$/environ; "
             f"printf '\\n%s\\n' '{_END}'; }} >> {_RECORD_DIR}/{name}\n"
             f"{tail}\n", mode=0o755)
    return Recorder(sb, name)


def real_script(name):
    """Where record_script keeps the wrapped script."""
    return f"{REAL_INIT_D}/{name}"


def listening_ports(sb):
    """TCP ports in the LISTEN state, IPv4 or IPv6, in the started sandbox's network."""
    pid = sb.pid
    if pid is None:
        return set()
    ports = set()
    for table in ("tcp", "tcp6"):
        try:
            with open(f"/proc/{pid}/net/{table}") as f:
                next(f)
                for line in f:
                    fields = line.split()
                    if fields[3] == "0A":
                        ports.add(int(fields[1].rsplit(":", 1)[1], 16))
        except FileNotFoundError:
            pass
    return ports


def wait_for(predicate, timeout=10, step=0.05):
    """True as soon as predicate() is; False when it still is not after timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        if predicate():
            return True
        if time.monotonic() > deadline:
            return False
        time.sleep(step)


def master_pid(sb):
    try:
        return int(sb.read_text(MASTER_PID).split()[0])
    except (FileNotFoundError, ValueError, IndexError):
        return None


def courier_pid(sb, script):
    """The pid in the server's pid file, or None."""
    try:
        return int(sb.read_text(COURIER_PIDFILES[script]).split()[0])
    except (FileNotFoundError, ValueError, IndexError):
        return None
