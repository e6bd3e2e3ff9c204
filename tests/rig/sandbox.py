"""scripts/sandbox for the system tests and scripts/demo: mailtend and the real Postfix, MariaDB
and Courier programs as root against private /etc, /usr, /var, /opt, /run and /tmp. Commands run
one-shot while a sandbox is stopped and enter it once started, where daemons live on. Files are
reached through the started sandbox's /proc/<pid>/root, links resolved against its own root (the
kernel would resolve absolute targets there against the host's). authdaemond keeps passwd.db
open: create it before the daemon starts, then change it in place, never by rename."""

import errno
import os
import shutil
import subprocess
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
SANDBOX_SCRIPT = REPO / "scripts" / "sandbox"

TOOL_PATH = "/usr/local/zrn/admin/sbin/mailtend"
DBINIT_PATH = "/usr/local/zrn/admin/sbin/mailauth-dbinit"
TABLE_DIR = "/var/spool/postfix/zarnet"
AUTH_DB = TABLE_DIR + "/passwd.db"
MAIN_CF = "/etc/postfix/main.cf"
MAILNAMES = "/var/qmail/mailnames"
POSTFIX_LOG = "/var/log/postfix.log"
POSTFIX_INIT = "/etc/init.d/postfix"
REAL = "/opt/rig-real"  # where recorded programs keep the originals
POPUSER = 30110
# Courier's POP3/IMAP init scripts: (the port its server listens on, its pid file)
COURIER = {
    "/etc/init.d/courier-imap": (143, "/run/courier/imapd.pid"),
    "/etc/init.d/courier-imap-ssl": (993, "/run/courier/imapd-ssl.pid"),
    "/etc/init.d/courier-pop": (110, "/run/courier/pop3d.pid"),
    "/etc/init.d/courier-pop-ssl": (995, "/run/courier/pop3d-ssl.pid"),
}

AUTHDAEMOND = "/usr/lib/courier/courier-authlib/authdaemond"
AUTHDAEMON_SOCKET = "/run/courier/authdaemon/socket"
AUTHDAEMON_LOG = "/var/log/authdaemond.log"
# authsqlite wants a table and a password field named even though the select clause replaces
# its query. A row counts only while both the user and its domain have status 0.
AUTHSQLITERC = (
    f"SQLITE_DATABASE\t{AUTH_DB}\nSQLITE_USER_TABLE\tusers\n"
    "SQLITE_CRYPT_PWFIELD\tcmusaslsecretPLAIN\nSQLITE_CLEAR_PWFIELD\tuserPassword\n"
    "SQLITE_SELECT_CLAUSE\tSELECT u.name || '@' || d.name, u.cmusaslsecretPLAIN, u.userPassword,"
    f" {POPUSER}, {POPUSER}, '{MAILNAMES}/' || d.name || '/' || u.name, 'Maildir', '', '', ''"
    " FROM users AS u, domains AS d WHERE u.dom_id = d.id AND u.name = '$(local_part)'"
    " AND d.name = '$(domain)' AND u.status = 0 AND d.status = 0\n##NAME: MARKER:0\n")
AUTHDAEMONRC = ('authmodulelist="authsqlite"\ndaemons=2\nauthdaemonvar=/run/courier/authdaemon\n'
                'DEBUG_LOGIN=0\nDEFAULTOPTIONS=""\n')

PRIVATE = ("etc", "usr", "var", "opt", "run", "tmp")
BASE_ENV = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "HOME": "/root", "USER": "root", "LOGNAME": "root"}
_RECORDS = "/run/script-records"
_END = "--end of call--"


class SandboxError(RuntimeError):
    pass


class Result:
    """Outcome of one command: rc (negative: killed by that signal), output as bytes and text."""

    def __init__(self, argv, rc, out_b, err_b):
        self.argv, self.rc, self.out_b, self.err_b = list(argv), rc, out_b, err_b

    @property
    def out(self):
        return self.out_b.decode("utf-8", "surrogateescape")

    @property
    def err(self):
        return self.err_b.decode("utf-8", "surrogateescape")

    def check(self):
        if self.rc != 0:
            raise SandboxError(f"command failed: {self!r}")
        return self

    def expect(self, rc=0, out="", err=""):
        """Asserts the exit status and both streams exactly; None leaves a stream unchecked."""
        got = (self.rc, None if out is None else self.out, None if err is None else self.err)
        assert got == (rc, out, err), self
        return self

    def __repr__(self):
        def block(name, text):
            return f"--- {name} ---\n{text[:4000]}" if text else f"--- {name}: empty ---"
        return "\n".join([f"Result(argv={self.argv!r}, rc={self.rc})",
                          block("stdout", self.out), block("stderr", self.err)])


def wait_for(predicate, timeout=10, step=0.02):
    """True as soon as predicate() is; False when it still is not after timeout seconds."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(step)
    return True


class Sandbox:
    def __init__(self, root):
        self.root = Path(os.path.abspath(root))

    # --- life cycle and commands ------------------------------------------------------------

    @classmethod
    def create(cls, root, binary=None):
        sb = cls(root)
        sb._script("init", sb.root).check()
        if binary is not None:
            sb._script("install", sb.root, binary).check()
        return sb

    @classmethod
    def clone(cls, template, root):
        """A copy of the stopped template sandbox."""
        sb = cls(root)
        sb._script("clone", template.root, sb.root).check()
        return sb

    def _script(self, *args, env=None, stdin=None, timeout=120, output=None):
        argv = [str(SANDBOX_SCRIPT), *map(str, args)]
        cp = subprocess.run(argv, env={**BASE_ENV, **(env or {})},
                            input=stdin.encode() if isinstance(stdin, str) else stdin,
                            stdin=subprocess.DEVNULL if stdin is None else None,
                            stdout=output or subprocess.PIPE, stderr=output or subprocess.PIPE,
                            timeout=timeout)
        return Result(argv, cp.returncode, cp.stdout or b"", cp.stderr or b"")

    @property
    def pid(self):
        """Host pid of the started sandbox's pid 1, or None while stopped."""
        try:
            fields = (self.root / "holder.pid").read_text().split()
            stat = Path(f"/proc/{int(fields[0])}/stat").read_text()
        except (OSError, ValueError, IndexError):
            return None
        rest = stat[stat.rindex(")") + 2:].split()
        # pids are reused: it counts only with its recorded start time
        return None if rest[0] == "Z" or rest[19] != fields[1] else int(fields[0])

    @property
    def started(self):
        return self.pid is not None

    def start(self):
        self._script("start", self.root).check()

    def stop(self, kill=False):
        self._script("stop", *(["--kill"] if kill else []), self.root).check()

    def destroy(self):
        self._script("destroy", self.root).check()

    def run(self, argv, env=None, stdin=None, timeout=120):
        """argv inside, with env added to a minimal root environment."""
        res = self._script("exec" if self.started else "run", self.root, *argv, env=env,
                           stdin=stdin, timeout=timeout)
        res.argv = list(argv)
        return res

    def mailtend(self, *args, env=None, stdin=None, timeout=120):
        return self.run([TOOL_PATH, *args], env=env, stdin=stdin, timeout=timeout)

    def spawn(self, argv, log="/dev/null", env=None):
        """Starts a daemon in the started sandbox, its output appended to log (inside); it ends
        with the sandbox."""
        if log != "/dev/null":
            self.makedirs(os.path.dirname(log))
        with open(self._host(log), "ab") as out:
            self._script("exec", self.root, "setsid", "--fork", *argv, env=env,
                         output=out).check()

    def install(self, binary, path=TOOL_PATH):
        self.write(path, Path(binary).read_bytes(), mode=0o755)

    # --- file view ----------------------------------------------------------------------------

    def _parts(self, path, follow=True):
        """Components of path with the sandbox's links resolved, and the host path to it."""
        if not self.started:
            self.start()
        base = f"/proc/{self.pid}/root"
        if not str(path).startswith("/"):
            raise ValueError(f"sandbox paths are absolute: {path!r}")
        todo, done, links = [p for p in str(path).split("/") if p not in ("", ".")], [], 0
        while todo:
            comp = todo.pop(0)
            if comp == "..":
                done = done[:-1]
                continue
            host = base + "".join("/" + p for p in done + [comp])
            if (follow or todo) and os.path.islink(host):
                links += 1
                if links > 40:
                    raise OSError(errno.ELOOP, "too many levels of symbolic links", path)
                target = os.readlink(host)
                done = [] if target.startswith("/") else done
                todo = [p for p in target.split("/") if p not in ("", ".")] + todo
                continue
            done.append(comp)
        return done, base + "".join("/" + p for p in done)

    def _host(self, path, follow=True, write=False):
        parts, host = self._parts(path, follow)
        # elsewhere the sandbox sees the host's own files: never write there
        if write and (not parts or parts[0] not in PRIVATE):
            raise PermissionError(errno.EACCES, "only /etc, /usr, /var, /opt, /run and /tmp "
                                  "are private", path)
        return host

    def exists(self, path):
        return os.path.exists(self._host(path))

    def stat(self, path, follow=True):
        return os.stat(self._host(path, follow), follow_symlinks=follow)

    def read(self, path):
        return Path(self._host(path)).read_bytes()

    def read_text(self, path):
        return self.read(path).decode("utf-8", "surrogateescape")

    def listdir(self, path):
        return sorted(os.listdir(self._host(path)))

    def tree(self, path):
        """{relative path: text, "-> target" for a link, None for an empty directory} of
        everything below path; {} when path does not exist."""
        top, found = self._host(path), {}
        for d, dirs, files in os.walk(top):
            rel = os.path.relpath(d, top)
            for name in files + dirs:
                p, key = os.path.join(d, name), os.path.normpath(os.path.join(rel, name))
                if os.path.islink(p):
                    found[key] = "-> " + os.readlink(p)
                elif not os.path.isdir(p):
                    found[key] = Path(p).read_text()
                elif not os.listdir(p):
                    found[key + "/"] = None
        return found

    def makedirs(self, path, mode=0o755, uid=0, gid=0):
        """The directory and its missing parents; new ones get mode, uid and gid."""
        parts, _ = self._parts(path)
        self._host(path, write=True)
        for k in range(1, len(parts) + 1):
            d = self._host("/" + "/".join(parts[:k]))
            if not os.path.isdir(d):
                os.mkdir(d)
                os.chown(d, uid, gid)
                os.chmod(d, mode)

    def write(self, path, data, mode=0o644, uid=0, gid=0):
        """A file with the given mode and owner; missing parent directories are created."""
        parts = self._parts(path)[0]
        if len(parts) > 1:
            self.makedirs("/" + "/".join(parts[:-1]))
        fd = os.open(self._host(path, write=True), os.O_WRONLY | os.O_CREAT | os.O_TRUNC
                     | os.O_NOFOLLOW, mode)
        with open(fd, "wb") as f:
            f.write(data.encode() if isinstance(data, str) else data)
            os.fchown(fd, uid, gid)
            os.fchmod(fd, mode)

    def remove(self, path):
        """Removes a file or a whole directory tree."""
        host = self._host(path, follow=False, write=True)
        if os.path.isdir(host) and not os.path.islink(host):
            shutil.rmtree(host)
        else:
            os.unlink(host)

    def processes(self):
        """(pid, ppid, comm) of every process in the started sandbox, with its own pids."""
        proc, found = f"/proc/{self.pid}/root/proc", []
        for entry in os.listdir(proc) if self.started else ():
            if not entry.isdigit():
                continue
            try:
                stat = Path(f"{proc}/{entry}/stat").read_text()
            except OSError:
                continue
            ppid = int(stat[stat.rindex(")") + 2:].split()[1])
            found.append((int(entry), ppid, stat[stat.index("(") + 1:stat.rindex(")")]))
        return found

    def make_home(self, domain, name):
        """A fresh mailbox home of popuser's as the mailname commands leave it: Maildir,
        @attachments and a .qmail that delivers nowhere; returns its path."""
        home = f"{MAILNAMES}/{domain}/{name}"
        if self.exists(home):
            self.remove(home)
        for sub in ("/Maildir/tmp", "/Maildir/new", "/Maildir/cur", "/@attachments"):
            self.makedirs(home + sub, mode=0o700, uid=POPUSER, gid=POPUSER)
        self.write(home + "/.qmail", "| true\n", mode=0o600, uid=POPUSER, gid=POPUSER)
        return home

    def courier_pids(self):
        return {script: self.pidfile(pidfile) for script, (_, pidfile) in COURIER.items()}

    def pidfile(self, path):
        """The pid a pid file records, or None."""
        try:
            return int(self.read_text(path).split()[0])
        except (FileNotFoundError, ValueError, IndexError):
            return None

    def listening_ports(self):
        """TCP ports something listens on (IPv4 or IPv6) in the started sandbox's network."""
        ports = set()
        for table in ("tcp", "tcp6"):
            with open(f"/proc/{self.pid}/net/{table}") as f:
                ports.update(int(line.split()[1].rsplit(":", 1)[1], 16)
                             for line in list(f)[1:] if line.split()[3] == "0A")
        return ports

    # --- Postfix ----------------------------------------------------------------------------

    def backdate_main_cf(self):
        """Postfix programs stall until main.cf is about 2 s old; make it older than that."""
        past = time.time() - 3
        os.utime(self._host(MAIN_CF, write=True), (past, past))

    def postconf_h(self, name):
        return self.run(["postconf", "-h", name]).check().out.rstrip("\n")

    def postconf_e(self, *settings):
        self.run(["postconf", "-e", *settings]).check()
        self.backdate_main_cf()

    def postmap_s(self, table):
        """Every record of one of the tool's tables as a {key: value} dict."""
        out = self.run(["postmap", "-s", f"hash:{TABLE_DIR}/{table}"]).check().out
        lines = (line.replace("\t", " ", 1).partition(" ") for line in out.splitlines())
        return {key: value.strip(" \t") for key, _, value in lines}

    def start_postfix(self):
        """Starts Postfix and returns once its queue manager runs."""
        self.backdate_main_cf()
        self.run(["postfix", "start"]).check()
        if not wait_for(self.postfix_running, 20):
            raise SandboxError("postfix did not come up:\n" + self.read_text(POSTFIX_LOG))

    def postfix_running(self):
        """Whether the master in master.pid has its qmgr child (master.pid outlives a stop)."""
        master = self.pidfile("/var/spool/postfix/pid/master.pid")
        return any(c == "qmgr" and pp == master for _, pp, c in self.processes())

    def record(self, program, exit_code=None):
        """Replaces program by a script that records each call (arguments, whole environment)
        and then runs the original, moved below REAL under its own base name (init scripts
        derive file names from theirs), or exits with exit_code instead."""
        real, log = REAL + program, f"{_RECORDS}/{os.path.basename(program)}"
        if exit_code is None and not self.exists(real):
            self.write(real, self.read(program), mode=0o755)
        tail = f"exit {int(exit_code)}" if exit_code is not None else f'exec {real} "$@"'
        self.makedirs(_RECORDS)
        self.write(program, "#!/bin/sh\n{ printf '%s\\n' \"$*\"; /usr/bin/tr '\\0' '\\n' < "
                   f"/proc/$$/environ; printf '\\n%s\\n' '{_END}'; }} >> {log}\n{tail}\n",
                   mode=0o755)

    def fail_call(self, program, n):
        """Replaces program by a wrapper that runs the original except on its n-th call from
        now, which reports a fatal error on stderr and exits 1; restore() puts it back."""
        real, count = REAL + program, f"{_RECORDS}/{os.path.basename(program)}.count"
        if not self.exists(real):
            self.write(real, self.read(program), mode=0o755)
        self.write(count, "", mode=0o666)  # callers may run unprivileged
        self.write(program, f"#!/bin/sh\necho >> {count}\n"
                   f'if [ "$(/usr/bin/wc -l < {count})" -eq {int(n)} ]; then\n'
                   f'  echo "{os.path.basename(program)}: fatal: injected failure" >&2; exit 1\n'
                   f'fi\nexec {real} "$@"\n', mode=0o755)

    def restore(self, program):
        """The original of a recorded or failing program back in its place."""
        self.write(program, self.read(REAL + program), mode=0o755)

    def calls(self, program):
        """The calls of a recorded program since the last look, as (arguments, environment)."""
        log, found = f"{_RECORDS}/{os.path.basename(program)}", []
        if self.exists(log):
            for block in self.read_text(log).split(_END + "\n")[:-1]:
                lines = block.split("\n")
                found.append((lines[0].split(" ") if lines[0] else [], [e for e in lines[1:] if e]))
            self.remove(log)
        return found

    # --- Courier authentication and delivery ------------------------------------------------

    def install_dbinit(self, binary):
        """The authentication database installer at its install path."""
        self.install(binary, DBINIT_PATH)

    def init_auth_db(self):
        """An empty passwd.db made by the installer program."""
        return self.run([DBINIT_PATH, "1"]).check()

    def start_authdaemon(self):
        """authlib set to read passwd.db, authdaemond running and listening."""
        self.write("/etc/courier/authdaemonrc", AUTHDAEMONRC, mode=0o640)
        self.write("/etc/courier/authsqliterc", AUTHSQLITERC, mode=0o640)
        if self.exists(AUTHDAEMON_SOCKET):  # left by an earlier start: no sign of readiness
            self.remove(AUTHDAEMON_SOCKET)
        self.spawn([AUTHDAEMOND], log=AUTHDAEMON_LOG)
        # it binds a temporary name, listens, then renames that to the socket
        if not wait_for(lambda: self.exists(AUTHDAEMON_SOCKET)):
            raise SandboxError("authdaemond did not come up:\n" + self.read_text(AUTHDAEMON_LOG))

    def sqlite(self, sql):
        """SQL on passwd.db by the sqlite3 shell inside (SQLite on the host would resolve the
        /proc/<pid>/root link and open the host's file)."""
        return self.run(["sqlite3", "-bail", AUTH_DB], stdin=sql)

    def authtest(self, user, password):
        """rc 0: the login is accepted (the account on stdout); 1: refused."""
        return self.run(["authtest", user, password])

    def deliverquota(self, maildir, message):
        """Delivery as popuser through the quota-enforcing program: rc 0 delivered, 77 over
        quota, 75 not delivered."""
        return self.run(["setpriv", "--reuid=popuser", "--regid=popuser", "--init-groups", "--",
                         "/usr/bin/deliverquota", maildir], stdin=message)
