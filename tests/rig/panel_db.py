"""The control panel's MariaDB database inside a sandbox.

A template datadir (system tables, the panel database "zrn" with its tables, the user
admin@localhost) is built once and copied into each sandbox, where a private mariadbd serves it
on /run/mysqld/mysqld.sock. The admin password is fresh per sandbox and written where the tool
reads it. mariadbd ends with the sandbox.

Also a command line for scripts/demo:
    panel_db.py template DIR     build a template datadir at DIR
    panel_db.py up ROOT [DIR]    start the sandbox at ROOT with the panel database
                                 (template DIR; a temporary one is built when not given)
"""

import os
import secrets
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pymysql

sys.path.insert(0, str(Path(__file__).resolve().parent))
from sandbox import Sandbox, SandboxError  # noqa: E402

SCHEMA = Path(__file__).resolve().with_name("panel_schema.sql")
DATADIR = "/var/lib/mysql"
SOCKET = "/run/mysqld/mysqld.sock"
PASSWORD_FILE = "/etc/zrn/.zrn.shadow"
ERROR_LOG = "/run/mysqld/error.log"
DATABASE = "zrn"
ADMIN = "admin"

# Small files keep the per-sandbox copy cheap; the same sizes are needed at every start.
STORAGE_OPTS = [
    "--innodb-log-file-size=4M",
    "--innodb-data-file-path=ibdata1:4M:autoextend",
    "--innodb-autoextend-increment=1",
    "--innodb-temp-data-file-path=ibtmp1:1M:autoextend",
    "--innodb-buffer-pool-size=16M",
]
SERVER_OPTS = [
    "--no-defaults", "--user=mysql", f"--datadir={DATADIR}", f"--socket={SOCKET}",
    "--pid-file=/run/mysqld/mysqld.pid", "--skip-networking", f"--log-error={ERROR_LOG}",
    "--innodb-flush-log-at-trx-commit=2", "--skip-innodb-doublewrite", *STORAGE_OPTS,
]


def build_template(dest):
    """Creates a datadir at dest (which must not exist). The work happens in a scratch
    sandbox next to it, so the host's MariaDB files are never touched."""
    dest = Path(dest)
    scratch = Sandbox.create(dest.parent / f".{dest.name}.build")
    try:
        datadir = scratch.root / "upper" / DATADIR.lstrip("/")
        _fresh_datadir(scratch, datadir)
        (scratch.root / "tmp" / SCHEMA.name).write_bytes(SCHEMA.read_bytes())
        scratch.run(["mariadb-install-db", "--no-defaults", "--user=mysql",
                     f"--datadir={DATADIR}", "--auth-root-authentication-method=socket",
                     "--skip-test-db", f"--extra-file=/tmp/{SCHEMA.name}",
                     *STORAGE_OPTS]).check()
        os.rename(datadir, dest)
    finally:
        scratch.destroy()
    return dest


def _fresh_datadir(sb, datadir):
    # Opaque: the host's own /var/lib/mysql must not show through the overlay.
    sb.makedirs(os.path.dirname(DATADIR))
    datadir.mkdir()
    os.chown(datadir, *_mysql_ids())
    os.setxattr(datadir, "trusted.overlay.opaque", b"y")


def _mysql_ids():
    import pwd
    pw = pwd.getpwnam("mysql")
    return pw.pw_uid, pw.pw_gid


class PanelDB:
    """The panel database of one sandbox; seed it with the add_* helpers."""

    def __init__(self, sandbox, template):
        self.sandbox = sandbox
        self.template = Path(template)
        self.password = None
        self._conn = None
        self._run_dir = None

    @property
    def socket(self):
        """A path to the server's socket usable from the host. ROOT/run/mysqld/mysqld.sock
        itself may be too long for a socket address, so it goes through a directory
        descriptor."""
        if self._run_dir is None:
            self._run_dir = os.open(self.sandbox.root / os.path.dirname(SOCKET).lstrip("/"),
                                    os.O_PATH | os.O_DIRECTORY)
        return f"/proc/self/fd/{self._run_dir}/{os.path.basename(SOCKET)}"

    def start(self, timeout=20):
        """Starts mariadbd in the (then started) sandbox; the datadir is copied from the
        template the first time and kept in ROOT afterwards."""
        sb = self.sandbox
        datadir = sb.root / "upper" / DATADIR.lstrip("/")
        if not datadir.exists():
            if sb.started:
                sb.stop()
            sb.makedirs(os.path.dirname(DATADIR))
            subprocess.run(["cp", "-a", "--", str(self.template), str(datadir)], check=True)
            os.setxattr(datadir, "trusted.overlay.opaque", b"y")
        if not sb.started:
            sb.start()
        sb.spawn(["mariadbd", *SERVER_OPTS])
        self._conn = self._await(timeout)
        self.password = secrets.token_urlsafe(18)
        with self._conn.cursor() as cur:
            cur.execute("CREATE USER IF NOT EXISTS 'admin'@'localhost'")
            cur.execute("ALTER USER 'admin'@'localhost' IDENTIFIED BY %s", (self.password,))
            cur.execute("GRANT ALL PRIVILEGES ON zrn.* TO 'admin'@'localhost'")
        sb.write(PASSWORD_FILE, self.password + "\n", mode=0o600)
        return self

    def _await(self, timeout):
        started = time.monotonic()
        while True:
            try:
                return pymysql.connect(unix_socket=self.socket, user="root", database=DATABASE,
                                       autocommit=True, charset="utf8mb4")
            except pymysql.err.OperationalError:
                waited = time.monotonic() - started
                # (right after the spawn the server may not have been exec'd yet)
                if waited > timeout or (waited > 1 and not self.server_running()):
                    log = ""
                    if self.sandbox.exists(ERROR_LOG):
                        log = self.sandbox.read_text(ERROR_LOG)[-3000:]
                    raise SandboxError(f"mariadbd did not come up:\n{log}")
                time.sleep(0.01)

    def server_running(self):
        pid = self.sandbox.pid
        if pid is None:
            return False
        proc = f"/proc/{pid}/root/proc"
        for entry in os.listdir(proc):
            try:
                with open(f"{proc}/{entry}/comm") as f:
                    if f.read().strip() == "mariadbd":
                        return True
            except OSError:
                continue
        return False

    def close(self):
        if self._conn is not None:
            try:
                self._conn.close()
            except pymysql.err.Error:
                pass
            self._conn = None
        if self._run_dir is not None:
            os.close(self._run_dir)
            self._run_dir = None

    # --- queries and seeding ----------------------------------------------------------------

    def query(self, sql, params=()):
        """Rows (tuples) of one statement, run as root on the panel database."""
        with self._conn.cursor() as cur:
            cur.execute(sql, params)
            return list(cur.fetchall())

    def _insert(self, sql, params):
        with self._conn.cursor() as cur:
            cur.execute(sql, params)
            return cur.lastrowid

    def add_domain(self, name, limits=None):
        """A domain; limits maps limit names (e.g. "mbox_quota") to values. Returns its id."""
        limits_id = None
        if limits:
            limits_id = self.query("SELECT COALESCE(MAX(id), 0) + 1 FROM Limits")[0][0]
            for limit_name, value in limits.items():
                self._insert("INSERT INTO Limits (id, limit_name, value) VALUES (%s, %s, %s)",
                             (limits_id, limit_name, value))
        return self._insert("INSERT INTO domains (name, limits_id) VALUES (%s, %s)",
                            (name, limits_id))

    def add_mailname(self, dom_id, name, quota=None):
        """A mailname of the domain; quota None means none of its own (-1). Returns its id."""
        return self._insert("INSERT INTO mail (dom_id, mail_name, mbox_quota) VALUES (%s, %s, %s)",
                            (dom_id, name, -1 if quota is None else quota))

    def add_mail_alias(self, mn_id, alias):
        return self._insert("INSERT INTO mail_aliases (mn_id, alias) VALUES (%s, %s)",
                            (mn_id, alias))

    def add_domain_alias(self, dom_id, name):
        return self._insert("INSERT INTO domainaliases (dom_id, name) VALUES (%s, %s)",
                            (dom_id, name))

    def set_misc(self, param, val):
        self._insert("REPLACE INTO misc (param, val) VALUES (%s, %s)", (param, val))

    def connect_as_admin(self):
        """A connection made the way the tool makes it: admin, password from the file."""
        password = self.sandbox.read_text(PASSWORD_FILE).split("\n", 1)[0]
        return pymysql.connect(unix_socket=self.socket, user=ADMIN, password=password,
                               database=DATABASE, autocommit=True)


def _main(argv):
    if len(argv) >= 2 and argv[0] == "template":
        build_template(argv[1])
        return 0
    if len(argv) in (2, 3) and argv[0] == "up":
        sb = Sandbox(argv[1])
        if len(argv) == 3:
            PanelDB(sb, argv[2]).start().close()
            return 0
        with tempfile.TemporaryDirectory(prefix="panel-template.") as tmp:
            template = build_template(Path(tmp) / "datadir")
            PanelDB(sb, template).start().close()
        return 0
    print(__doc__.split("Also a command line for scripts/demo:\n", 1)[1], file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(_main(sys.argv[1:]))
