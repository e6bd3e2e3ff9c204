"""Python face of scripts/sandbox for the system tests.

A Sandbox is a throwaway root (see scripts/sandbox) in which mailtend and the real Postfix,
MariaDB and Courier programs run as root against private /etc, /usr, /var, /opt, /run and /tmp.
Commands run one-shot (the command is pid 1 of fresh namespaces, with pid 1's signal rules)
until start() is called; after that they enter the started namespaces, where daemons keep
running between commands. Postfix can be started there (start_postfix), and Courier's
authentication daemon reading the tool's passwd.db (courier.py has its configuration); IMAP
over a pipe is to join the same way:

    sb.init_auth_db()             an empty passwd.db, made by the installer program
                                  (install_dbinit puts it in; done on demand)
    sb.start_authdaemon()         authsqlite set up, authdaemond running (starts the sandbox)
    sb.sqlite(sql)                SQL on passwd.db, run by the sqlite3 shell inside
    sb.authtest(login, password)  rc 0: the login is accepted; 1: refused
    sb.deliverquota(maildir, msg) the quota-enforcing delivery program as popuser: rc 0
                                  delivered, 77 over quota, 75 not delivered
    sb.make_maildir(path, quota)  an empty Maildir of popuser's, with maildirsize if quota

Create passwd.db before starting the daemon and change it in place afterwards: the daemon
keeps the file open and would not see a replaced one.

Files inside are read and written from the host without starting a process: through the
started sandbox's /proc/<pid>/root, or, while stopped, straight in ROOT's overlay upper layers
(the overlay is not mounted then, so editing the upper layer is safe). Symbolic links are
resolved against the sandbox's own root, never the host's.
"""

import errno
import os
import shutil
import stat as stat_mod
import subprocess
import time
from pathlib import Path

import courier

REPO = Path(__file__).resolve().parents[2]
SANDBOX_SCRIPT = REPO / "scripts" / "sandbox"

TOOL_PATH = "/usr/local/zrn/admin/sbin/mailtend"
TABLE_DIR = "/var/spool/postfix/zarnet"
TABLES = ("virtual_domains", "virtual", "vmailbox", "aliases", "blacklists", "poplock")
MAIN_CF = "/etc/postfix/main.cf"

# Trees that are private to the sandbox; everything else inside is the host's own.
OVERLAID = ("etc", "usr", "var", "opt")
BOUND = ("run", "tmp")

BASE_ENV = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "USER": "root",
    "LOGNAME": "root",
}

DEFAULT_TIMEOUT = 120
_OPAQUE = "trusted.overlay.opaque"


class SandboxError(RuntimeError):
    pass


class Result:
    """Outcome of one command: rc (negative: killed by that signal), output as bytes and text."""

    def __init__(self, argv, rc, out_b, err_b):
        self.argv = list(argv)
        self.rc = rc
        self.out_b = out_b
        self.err_b = err_b

    @property
    def out(self):
        return self.out_b.decode("utf-8", "surrogateescape")

    @property
    def err(self):
        return self.err_b.decode("utf-8", "surrogateescape")

    def check(self):
        """Returns self when rc is 0; raises with the whole result otherwise."""
        if self.rc != 0:
            raise SandboxError(f"command failed: {self!r}")
        return self

    def __repr__(self):
        def block(name, text, limit=4000):
            if len(text) > limit:
                text = text[:limit] + f"\n... ({len(text) - limit} more characters)"
            return f"--- {name} ---\n{text}" if text else f"--- {name}: empty ---"

        return "\n".join([f"Result(argv={self.argv!r}, rc={self.rc})",
                          block("stdout", self.out), block("stderr", self.err)])


def _parts(path):
    path = os.fspath(path)
    if not path.startswith("/"):
        raise ValueError(f"sandbox paths are absolute: {path!r}")
    return [p for p in path.split("/") if p not in ("", ".")]


def _is_whiteout(st):
    return stat_mod.S_ISCHR(st.st_mode) and st.st_rdev == 0


def _is_opaque(host_path):
    try:
        return os.getxattr(host_path, _OPAQUE, follow_symlinks=False) == b"y"
    except OSError:
        return False


def _lstat(path):
    try:
        return os.lstat(path)
    except (FileNotFoundError, NotADirectoryError):
        return None


class Sandbox:
    """One sandbox root. Create one with Sandbox.create(root); remove it with destroy()."""

    def __init__(self, root):
        self.root = Path(os.path.abspath(root))

    # --- life cycle -----------------------------------------------------------------------

    @classmethod
    def create(cls, root, binary=None):
        sb = cls(root)
        sb._script("init", sb.root).check()
        if binary is not None:
            sb.install(binary)
        return sb

    @classmethod
    def clone(cls, template, root):
        """A copy of the stopped sandbox template (with whatever was installed in it)."""
        sb = cls(root)
        sb._script("clone", Path(template.root if isinstance(template, Sandbox) else template),
                   sb.root).check()
        return sb

    def _script(self, *args, env=None, stdin=None, timeout=DEFAULT_TIMEOUT, output=None):
        """Runs scripts/sandbox; output (an open file) takes stdout and stderr instead of pipes."""
        argv = [str(SANDBOX_SCRIPT), *map(str, args)]
        run_env = dict(BASE_ENV)
        for k, v in (env or {}).items():
            if v is None:
                run_env.pop(k, None)
            else:
                run_env[k] = str(v)
        if isinstance(stdin, str):
            stdin = stdin.encode()
        cp = subprocess.run(argv, env=run_env, input=stdin,
                            stdin=subprocess.DEVNULL if stdin is None else None,
                            stdout=output or subprocess.PIPE,
                            stderr=output or subprocess.PIPE, timeout=timeout)
        return Result(argv, cp.returncode, cp.stdout or b"", cp.stderr or b"")

    def install(self, binary, path=TOOL_PATH):
        if path == TOOL_PATH:
            self._script("install", self.root, binary).check()
        else:
            self.write(path, Path(binary).read_bytes(), mode=0o755)

    @property
    def pid(self):
        """Host pid of the started sandbox's pid 1, or None while stopped."""
        try:
            fields = (self.root / "holder.pid").read_text().split()
            pid, start = int(fields[0]), fields[1]
            stat = Path(f"/proc/{pid}/stat").read_text()
        except (OSError, ValueError, IndexError):
            return None
        rest = stat[stat.rindex(")") + 2:].split()
        # same rule as scripts/sandbox: the pid counts only with its recorded start time
        if rest[0] == "Z" or rest[19] != start:
            return None
        return pid

    @property
    def started(self):
        return self.pid is not None

    def start(self):
        self._script("start", self.root).check()

    def stop(self, kill=False):
        """Ends everything inside. kill=True skips the grace time daemons get to shut down."""
        self._script("stop", *(["--kill"] if kill else []), self.root).check()

    def destroy(self):
        self._script("destroy", self.root).check()

    # --- commands ---------------------------------------------------------------------------

    def run(self, argv, env=None, stdin=None, timeout=DEFAULT_TIMEOUT):
        """Runs argv inside: one-shot while stopped, entering the namespaces while started.
        env adds to (None removes from) a minimal root environment; stdin is bytes or text."""
        if isinstance(argv, (str, bytes)):
            raise TypeError("argv is a sequence of arguments, not a command line")
        mode = "exec" if self.started else "run"
        res = self._script(mode, self.root, *argv, env=env, stdin=stdin, timeout=timeout)
        res.argv = list(argv)
        return res

    def mailtend(self, *args, env=None, stdin=None, timeout=DEFAULT_TIMEOUT):
        return self.run([TOOL_PATH, *args], env=env, stdin=stdin, timeout=timeout)

    def spawn(self, argv, log="/dev/null", env=None):
        """Starts a daemon-like command in the started sandbox and returns once it is forked
        off; it is reparented to the sandbox's pid 1 and ends with the sandbox. Its output is
        appended to log (a path inside)."""
        if not self.started:
            raise SandboxError("spawn needs a started sandbox")
        if log == "/dev/null":
            out = open(os.devnull, "ab")
        else:
            self.makedirs(os.path.dirname(log))
            out = open(self._writable(log), "ab")
        with out:
            res = self._script("exec", self.root, "setsid", "--fork", *argv, env=env,
                               output=out)
        if res.rc != 0:
            raise SandboxError(f"could not spawn {argv!r}: {res!r}")

    # --- files ------------------------------------------------------------------------------

    def _map(self, parts, pid):
        """Host path showing the sandbox path given as symlink-free components (pid: the
        started sandbox's, or None); None when the stopped overlay hides the path."""
        if pid is not None:
            return f"/proc/{pid}/root/" + "/".join(parts)
        if not parts:
            return "/"
        if parts[0] in BOUND:
            return str(self.root.joinpath(*parts))
        if parts[0] not in OVERLAID:
            return "/" + "/".join(parts)
        up = str(self.root.joinpath("upper", *parts))
        st = _lstat(up)
        if st is not None:
            return None if _is_whiteout(st) else up
        return "/" + "/".join(parts) if self._lower_visible(parts) else None

    def _lower_visible(self, parts):
        """Whether the stopped overlay lets the host's entry at parts show through."""
        for k in range(1, len(parts) + 1):
            st = _lstat(str(self.root.joinpath("upper", *parts[:k])))
            if st is None:
                return True
            if _is_whiteout(st) or not stat_mod.S_ISDIR(st.st_mode):
                return False
            if _is_opaque(str(self.root.joinpath("upper", *parts[:k]))):
                return False
        return True

    def _resolve(self, path, follow=True):
        """(components, pid, host path or None) of path, the sandbox's symlinks resolved."""
        pid = self.pid
        todo = _parts(path)
        done = []
        links = 0
        while todo:
            comp = todo.pop(0)
            if comp == "..":
                if done:
                    done.pop()
                continue
            host = self._map(done + [comp], pid)
            if host is not None and (follow or todo) and os.path.islink(host):
                links += 1
                if links > 40:
                    raise OSError(errno.ELOOP, "too many levels of symbolic links", path)
                target = os.readlink(host)
                if target.startswith("/"):
                    done = []
                todo = [p for p in target.split("/") if p not in ("", ".")] + todo
                continue
            done.append(comp)
        return done, pid, self._map(done, pid)

    def host_path(self, path, follow=True):
        """Host path through which the sandbox path can be read now; None if it does not exist.
        Valid only while the sandbox stays in its current state (started or stopped)."""
        host = self._resolve(path, follow)[2]
        if host is None or _lstat(host) is None:
            return None
        return host

    def _existing(self, path, follow=True):
        host = self.host_path(path, follow)
        if host is None:
            raise FileNotFoundError(errno.ENOENT, "no such file in the sandbox", path)
        return host

    def exists(self, path):
        host = self.host_path(path)
        return host is not None and os.path.exists(host)

    def stat(self, path, follow=True):
        return os.stat(self._existing(path, follow), follow_symlinks=follow)

    def read(self, path):
        with open(self._existing(path), "rb") as f:
            return f.read()

    def read_text(self, path):
        return self.read(path).decode("utf-8", "surrogateescape")

    def readlink(self, path):
        return os.readlink(self._existing(path, follow=False))

    def listdir(self, path):
        parts, pid, host = self._resolve(path)
        if host is None or not os.path.isdir(host):
            raise FileNotFoundError(errno.ENOENT, "no such directory in the sandbox", path)
        if pid is not None or not parts or parts[0] not in OVERLAID:
            return sorted(os.listdir(host))
        # stopped: the upper layer merged over the host's directory
        names, whiteouts = set(), set()
        up = self.root.joinpath("upper", *parts)
        if up.is_dir():
            for name in os.listdir(up):
                (whiteouts if _is_whiteout(os.lstat(up / name)) else names).add(name)
        lower = "/" + "/".join(parts)
        if self._lower_visible(parts) and not _is_opaque(str(up)) and os.path.isdir(lower):
            names.update(n for n in os.listdir(lower) if n not in whiteouts)
        return sorted(names)

    @staticmethod
    def _private(parts, path):
        if not parts or parts[0] not in OVERLAID + BOUND:
            raise PermissionError(errno.EACCES,
                                  "only /etc, /usr, /var, /opt, /run and /tmp are private", path)

    def _upper_dir(self, parts, mode=0o755, uid=0, gid=0):
        """Makes the directory exist in ROOT of a stopped sandbox, the way the overlay would:
        directories the host has are copied up with its mode and owner, new ones get ours."""
        for k in range(1, len(parts) + 1):
            sub = parts[:k]
            bound = sub[0] in BOUND
            target = self.root.joinpath(*sub) if bound else self.root.joinpath("upper", *sub)
            st = _lstat(str(target))
            if st is not None and stat_mod.S_ISDIR(st.st_mode):
                continue
            whiteout = st is not None and _is_whiteout(st)
            if st is not None and not whiteout:
                raise NotADirectoryError(errno.ENOTDIR, "not a directory", "/" + "/".join(sub))
            lower = "/" + "/".join(sub)
            if not bound and not whiteout and self._lower_visible(sub) and os.path.isdir(lower):
                lst = os.stat(lower)
                m, u, g = stat_mod.S_IMODE(lst.st_mode), lst.st_uid, lst.st_gid
            else:
                m, u, g = mode, uid, gid
            if whiteout:
                os.unlink(target)
            os.mkdir(target)
            os.chown(target, u, g)
            os.chmod(target, m)
            if whiteout:
                os.setxattr(target, _OPAQUE, b"y")
        if parts[0] in BOUND:
            return self.root.joinpath(*parts)
        return self.root.joinpath("upper", *parts)

    def makedirs(self, path, mode=0o755, uid=0, gid=0):
        """Creates the directory and its missing parents; new ones get mode, uid and gid."""
        parts, pid, _ = self._resolve(path)
        self._private(parts, path)
        if pid is None:
            self._upper_dir(parts, mode, uid, gid)
            return
        for k in range(1, len(parts) + 1):
            d = self._map(parts[:k], pid)
            if not os.path.isdir(d):
                os.mkdir(d)
                os.chown(d, uid, gid)
                os.chmod(d, mode)

    def _writable(self, path, follow=True):
        """Host path at which path may be created or changed without touching the host."""
        parts, pid, host = self._resolve(path, follow)
        self._private(parts, path)
        if pid is not None or parts[0] in BOUND:
            return host
        if len(parts) == 1 or (host is not None and os.path.isdir(host)
                               and not os.path.islink(host)):
            return str(self._upper_dir(parts))
        up = str(self._upper_dir(parts[:-1]) / parts[-1])
        st = _lstat(up)
        if st is not None and _is_whiteout(st):
            os.unlink(up)
            st = None
        if st is None and host is not None and _lstat(host) is not None:
            # copy up the host's file, as the overlay does on the first change
            shutil.copy2(host, up, follow_symlinks=False)
            hst = os.lstat(host)
            os.chown(up, hst.st_uid, hst.st_gid, follow_symlinks=False)
        return up

    def write(self, path, data, mode=0o644, uid=0, gid=0):
        """Writes a file (creating missing parent directories) with the given mode and owner."""
        if isinstance(data, str):
            data = data.encode()
        parts = self._resolve(path)[0]
        if len(parts) > 1:
            self.makedirs("/" + "/".join(parts[:-1]))
        fd = os.open(self._writable(path), os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_NOFOLLOW,
                     mode)
        try:
            os.write(fd, data)
            os.fchown(fd, uid, gid)
            os.fchmod(fd, mode)
        finally:
            os.close(fd)

    def chmod(self, path, mode):
        os.chmod(self._writable(path), mode)

    def chown(self, path, uid, gid):
        os.chown(self._writable(path), uid, gid)

    def utime(self, path, mtime):
        os.utime(self._writable(path), (mtime, mtime))

    def remove(self, path):
        """Removes a file or a whole directory tree."""
        parts, pid, host = self._resolve(path, follow=False)
        self._private(parts, path)
        if host is None or _lstat(host) is None:
            raise FileNotFoundError(errno.ENOENT, "no such file in the sandbox", path)
        if pid is None and parts[0] in OVERLAID:
            # leaves the whiteouts the overlay needs where the host has the names
            self.run(["rm", "-rf", "--", "/" + "/".join(parts)]).check()
        elif os.path.isdir(host) and not os.path.islink(host):
            shutil.rmtree(host)
        else:
            os.unlink(host)

    # --- Postfix ------------------------------------------------------------------------------

    def backdate_main_cf(self, seconds=3):
        """Postfix programs stall until main.cf is about 2 s old; make it older than that."""
        self.utime(MAIN_CF, time.time() - seconds)

    def postconf_h(self, name):
        return self.run(["postconf", "-h", name]).check().out.rstrip("\n")

    def postconf_e(self, *settings):
        """Sets main.cf parameters ("name = value") and back-dates main.cf."""
        self.run(["postconf", "-e", *settings]).check()
        self.backdate_main_cf()

    @staticmethod
    def table_name(table):
        """Full table name; the tool's tables may be named by their short names."""
        if ":" in table or "/" in table:
            return table
        return f"hash:{TABLE_DIR}/{table}"

    def postmap_q(self, key, table):
        """Value of key in the table, or None when the key is absent."""
        res = self.run(["postmap", "-q", key, self.table_name(table)])
        if res.rc == 1 and not res.err_b:
            return None
        return res.check().out.rstrip("\n")

    def postmap_s(self, table):
        """Every record of the table as a {key: value} dict."""
        out = self.run(["postmap", "-s", self.table_name(table)]).check().out
        records = {}
        for line in out.splitlines():
            key, _, value = line.replace("\t", " ", 1).partition(" ")
            records[key] = value.strip(" \t")
        return records

    def start_postfix(self, timeout=20):
        """Starts Postfix in the started sandbox and waits until its queue manager runs."""
        if not self.started:
            self.start()
        self.backdate_main_cf()
        self.run(["postfix", "start"]).check()
        deadline = time.monotonic() + timeout
        while not self.postfix_running():
            if time.monotonic() > deadline:
                raise SandboxError("postfix did not come up:\n"
                                   + self.read_text("/var/log/postfix.log")[-2000:])
            time.sleep(0.02)

    def postfix_running(self):
        """True while the master recorded in master.pid has its qmgr child (pids are reused,
        and master.pid outlives a stop)."""
        pid = self.pid
        if pid is None:
            return False
        try:
            master = int(self.read_text("/var/spool/postfix/pid/master.pid").split()[0])
            proc = f"/proc/{pid}/root/proc"
            for entry in os.listdir(proc):
                if not entry.isdigit():
                    continue
                with open(f"{proc}/{entry}/stat") as f:
                    stat = f.read()
                comm = stat[stat.index("(") + 1:stat.rindex(")")]
                ppid = int(stat[stat.rindex(")") + 2:].split()[1])
                if comm == "qmgr" and ppid == master:
                    return True
        except (OSError, ValueError, IndexError):
            pass
        return False

    def stop_postfix(self):
        self.run(["postfix", "stop"]).check()

    # --- processes and accounts ----------------------------------------------------------------

    def processes(self):
        """(pid, ppid, comm) of every process in the started sandbox, with its own pids."""
        pid = self.pid
        if pid is None:
            return []
        found = []
        proc = f"/proc/{pid}/root/proc"
        for entry in os.listdir(proc):
            if not entry.isdigit():
                continue
            try:
                with open(f"{proc}/{entry}/stat") as f:
                    stat = f.read()
            except OSError:
                continue
            comm = stat[stat.index("(") + 1:stat.rindex(")")]
            found.append((int(entry), int(stat[stat.rindex(")") + 2:].split()[1]), comm))
        return found

    def account(self, name):
        """(uid, gid) of an account in the sandbox's own passwd file."""
        for line in self.read_text("/etc/passwd").splitlines():
            fields = line.split(":")
            if len(fields) >= 4 and fields[0] == name:
                return int(fields[2]), int(fields[3])
        raise KeyError(f"no account {name!r} in the sandbox")

    # --- Courier authentication and delivery -------------------------------------------------

    def install_dbinit(self, binary=None):
        """Puts the authentication database installer at its install path inside (binary:
        MAILTEND_DBINIT_BIN, else build/mailauth-dbinit of this checkout)."""
        binary = Path(binary or courier.dbinit_binary())
        if not binary.is_file():
            raise SandboxError(f"no mailauth-dbinit at {binary} (set MAILTEND_DBINIT_BIN)")
        self.install(binary, courier.DBINIT_PATH)

    def init_auth_db(self):
        """Creates an empty passwd.db the way the installer does, with its program."""
        if self.authdaemon_running():
            raise SandboxError("authdaemond is running: it would keep reading the old passwd.db")
        if not self.exists(courier.DBINIT_PATH):
            self.install_dbinit()
        return self.run([courier.DBINIT_PATH, "1"]).check()

    def authdaemon_running(self):
        return any(comm == "authdaemond" for _, _, comm in self.processes())

    def start_authdaemon(self, timeout=10):
        """Configures authlib to read passwd.db and starts authdaemond in the (then started)
        sandbox; returns once it listens. Its messages go to courier.AUTHDAEMON_LOG."""
        uid, gid = self.account("popuser")
        self.write(courier.AUTHDAEMONRC, courier.authdaemonrc(), mode=0o640)
        self.write(courier.AUTHSQLITERC, courier.authsqliterc(uid, gid), mode=0o640)
        if not self.started:
            self.start()
        if self.authdaemon_running():
            raise SandboxError("authdaemond is already running")
        # a socket left in ROOT/run by an earlier start would look like a ready daemon
        if self.exists(courier.AUTHDAEMON_SOCKET):
            self.remove(courier.AUTHDAEMON_SOCKET)
        self.spawn([courier.AUTHDAEMOND], log=courier.AUTHDAEMON_LOG)
        # the daemon binds a temporary name, listens, then renames it to the socket
        started = time.monotonic()
        while not self.exists(courier.AUTHDAEMON_SOCKET):
            waited = time.monotonic() - started
            if waited > timeout or (waited > 1 and not self.authdaemon_running()):
                log = ""
                if self.exists(courier.AUTHDAEMON_LOG):
                    log = self.read_text(courier.AUTHDAEMON_LOG)[-2000:]
                raise SandboxError(f"authdaemond did not come up:\n{log}")
            time.sleep(0.01)

    def sqlite(self, sql, db=courier.AUTH_DB):
        """Runs SQL with the sqlite3 shell inside (rows as "a|b" lines on stdout). Not through
        host_path: SQLite resolves the /proc/<pid>/root link and would open the host's file."""
        return self.run(["sqlite3", "-bail", db], stdin=sql)

    def authtest(self, user, password):
        """authtest's verdict on the login: rc 0 accepted (the account on stdout), 1 refused."""
        return self.run(["authtest", user, password])

    def make_maildir(self, path, quota=None):
        """An empty Maildir of popuser's; missing parents become popuser's too. quota: the
        maildirsize quota in bytes (none when None)."""
        uid, gid = self.account("popuser")
        for sub in ("cur", "new", "tmp"):
            self.makedirs(f"{path}/{sub}", mode=0o700, uid=uid, gid=gid)
        if quota is not None:
            self.write(f"{path}/maildirsize", courier.maildirsize(quota), mode=0o600, uid=uid,
                       gid=gid)

    def deliverquota(self, maildir, message, user="popuser"):
        """Delivers message (bytes or text) into maildir through the quota-enforcing delivery
        program run as user: rc 0 delivered, 77 over quota, 75 not delivered."""
        return self.run(["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "--",
                         courier.DELIVERQUOTA, maildir], stdin=message)

    def __repr__(self):
        return f"Sandbox({str(self.root)!r}, {'started' if self.started else 'stopped'})"
