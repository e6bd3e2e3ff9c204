"""The control panel's MariaDB database inside a sandbox.

A template datadir (system tables, the panel database "zrn" with its tables) is built once and
copied into each sandbox, where a private mariadbd serves it on /run/mysqld/mysqld.sock and
ends with the sandbox. The user admin@localhost gets a fresh password per start, written where
the tool reads it.

Command line for scripts/demo:
    panel_db.py template DIR     build a template datadir at DIR
    panel_db.py up ROOT [DIR]    start the sandbox at ROOT with the panel database
                                 (template DIR; a temporary one is built when not given)
"""

import os
import secrets
import subprocess
import sys
import tempfile
from pathlib import Path

import pymysql

sys.path.insert(0, str(Path(__file__).resolve().parent))
from sandbox import Sandbox, SandboxError, wait_for  # noqa: E402

SCHEMA = Path(__file__).resolve().with_name("panel_schema.sql")
DATADIR = "/var/lib/mysql"
PASSWORD_FILE = "/etc/zrn/.zrn.shadow"
ERROR_LOG = "/run/mysqld/error.log"
# Small files keep the per-sandbox copy cheap; the same sizes are needed at every start.
STORAGE_OPTS = ["--innodb-log-file-size=4M", "--innodb-data-file-path=ibdata1:4M:autoextend",
                "--innodb-autoextend-increment=1", "--innodb-buffer-pool-size=16M",
                "--innodb-temp-data-file-path=ibtmp1:1M:autoextend"]
SERVER_OPTS = ["--no-defaults", "--user=mysql", f"--datadir={DATADIR}",
               "--socket=/run/mysqld/mysqld.sock", "--pid-file=/run/mysqld/mysqld.pid",
               "--skip-networking", f"--log-error={ERROR_LOG}", "--skip-innodb-doublewrite",
               "--innodb-flush-log-at-trx-commit=2", *STORAGE_OPTS]


def _datadir_in(sb):
    """The datadir in the sandbox's upper layer; the parent is made only while stopped."""
    upper = sb.root / "upper" / DATADIR.lstrip("/")
    if not sb.started:
        upper.parent.mkdir(exist_ok=True)
    return upper


def build_template(dest):
    """Creates a datadir at dest (which must not exist), working in a scratch sandbox."""
    scratch = Sandbox.create(Path(dest).parent / f".{Path(dest).name}.build")
    try:
        datadir = _datadir_in(scratch)
        datadir.mkdir()
        subprocess.run(["chown", "mysql:mysql", str(datadir)], check=True)
        # opaque: the host's own datadir never shows through, so it is never touched
        os.setxattr(datadir, "trusted.overlay.opaque", b"y")
        (scratch.root / "tmp" / SCHEMA.name).write_bytes(SCHEMA.read_bytes())
        scratch.run(["mariadb-install-db", "--no-defaults", "--user=mysql",
                     f"--datadir={DATADIR}", "--auth-root-authentication-method=socket",
                     "--skip-test-db", f"--extra-file=/tmp/{SCHEMA.name}",
                     *STORAGE_OPTS]).check()
        os.rename(datadir, dest)
    finally:
        scratch.destroy()
    return Path(dest)


class PanelDB:
    """The panel database of one sandbox, reached from the host as root."""

    def __init__(self, sandbox, template):
        self.sandbox, self.template, self._conn, self._run_dir = sandbox, Path(template), None, None

    def start(self):
        """Starts mariadbd in the (then started) sandbox; the datadir is copied from the
        template the first time and kept in ROOT afterwards."""
        sb = self.sandbox
        if not _datadir_in(sb).exists():
            if sb.started:
                sb.stop()
            datadir = _datadir_in(sb)
            subprocess.run(["cp", "-a", "--", str(self.template), str(datadir)], check=True)
            os.setxattr(datadir, "trusted.overlay.opaque", b"y")
        sb.spawn(["mariadbd", *SERVER_OPTS])
        # ROOT/run/mysqld/mysqld.sock may be too long for a socket address: go through an fd
        self._run_dir = os.open(sb.root / "run" / "mysqld", os.O_PATH | os.O_DIRECTORY)
        if not wait_for(self._connect, 20):
            raise SandboxError("mariadbd did not come up:\n" + sb.read_text(ERROR_LOG)[-3000:])
        password = secrets.token_urlsafe(18)
        self.query("CREATE USER IF NOT EXISTS 'admin'@'localhost'")
        self.query("ALTER USER 'admin'@'localhost' IDENTIFIED BY %s", (password,))
        self.query("GRANT ALL PRIVILEGES ON zrn.* TO 'admin'@'localhost'")
        sb.write(PASSWORD_FILE, password + "\n", mode=0o600)
        return self

    def _connect(self):
        try:
            self._conn = pymysql.connect(unix_socket=f"/proc/self/fd/{self._run_dir}/mysqld.sock",
                                         user="root", database="zrn", autocommit=True,
                                         charset="utf8mb4")
            return True
        except pymysql.err.OperationalError:
            return False

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        if self._conn is not None:
            try:
                self._conn.close()
            except pymysql.err.Error:  # the server ended with its sandbox
                pass
            os.close(self._run_dir)
            self._conn = None

    def query(self, sql, params=()):
        """Rows (tuples) of one statement on the panel database."""
        with self._conn.cursor() as cur:
            cur.execute(sql, params)
            return list(cur.fetchall())

    def insert(self, table, **columns):
        """One row; returns its id."""
        with self._conn.cursor() as cur:
            cur.execute(f"INSERT INTO {table} ({', '.join(columns)}) VALUES "
                        f"({', '.join(['%s'] * len(columns))})", list(columns.values()))
            return cur.lastrowid

    def add_mail_domain(self, domain, aliases):
        """domain (mbox quota 7000), its aliases, info with the mail alias sales; its id."""
        self.insert("Limits", id=1, limit_name="mbox_quota", value=7000)
        dom = self.insert("domains", name=domain, limits_id=1)
        for alias in aliases:
            self.insert("domainaliases", dom_id=dom, name=alias)
        self.insert("mail_aliases", mn_id=self.insert("mail", dom_id=dom, mail_name="info"),
                    alias="sales")
        return dom


def _main(argv):
    if len(argv) == 2 and argv[0] == "template":
        build_template(argv[1])
    elif len(argv) == 3 and argv[0] == "up":
        PanelDB(Sandbox(argv[1]), argv[2]).start().close()
    elif len(argv) == 2 and argv[0] == "up":
        with tempfile.TemporaryDirectory(prefix="panel-template.") as tmp:
            PanelDB(Sandbox(argv[1]), build_template(Path(tmp) / "datadir")).start().close()
    else:
        print(__doc__.split("Command line for scripts/demo:\n", 1)[1], file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(_main(sys.argv[1:]))
