"""The sandbox rig itself: isolation from the host, the two run modes, the file view, the
panel database, the Postfix set-up and Courier's authentication and quota delivery that the
other system tests build on."""

import os
import pwd
import signal
import subprocess
import tempfile
import time
import uuid
from pathlib import Path

import pymysql
import pytest

import courier
import host_state
from sandbox import MAIN_CF, SANDBOX_SCRIPT, TABLE_DIR, TABLES, TOOL_PATH, Sandbox


def _in_mode(sandbox, mode):
    if mode == "started":
        sandbox.start()
    return sandbox


def _host_pids_with_env(marker):
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/environ", "rb") as f:
                if marker.encode() in f.read():
                    found.append(int(entry))
        except OSError:
            continue
    return found


# --- isolation -------------------------------------------------------------------------------

# (path inside, where ROOT keeps it); every write must land in ROOT and nowhere on the host
PRIVATE_WRITES = [
    ("/etc/passwd", "upper/etc/passwd"),
    ("/etc/postfix/main.cf", "upper/etc/postfix/main.cf"),
    ("/etc/zrn/probe", "upper/etc/zrn/probe"),
    ("/usr/local/zrn/handlers/probe", "upper/usr/local/zrn/handlers/probe"),
    ("/usr/share/probe-{id}", "upper/usr/share/probe-{id}"),
    ("/var/spool/postfix/zarnet/probe", "upper/var/spool/postfix/zarnet/probe"),
    ("/var/lib/probe-{id}", "upper/var/lib/probe-{id}"),
    ("/opt/probe-{id}", "upper/opt/probe-{id}"),
    ("/run/probe-{id}", "run/probe-{id}"),
    ("/var/run/probe-{id}", "run/probe-{id}"),
    ("/var/lock/probe-{id}", "run/lock/probe-{id}"),
    ("/tmp/probe-{id}", "tmp/probe-{id}"),
]


@pytest.mark.parametrize("mode", ["one-shot", "started"])
def test_writes_inside_land_in_root_not_on_host(sandbox, mode):
    _in_mode(sandbox, mode)
    probe = uuid.uuid4().hex
    cases = [(inside.format(id=probe), kept.format(id=probe)) for inside, kept in PRIVATE_WRITES]
    host_before = {inside: Path(inside).read_bytes() if os.path.isfile(inside) else None
                   for inside, _ in cases}
    line = f"probe {probe}\n".encode()
    sandbox.run(["tee", "-a", *(inside for inside, _ in cases)], stdin=line).check()
    for inside, kept in cases:
        assert os.path.exists(inside) == (host_before[inside] is not None), inside
        if host_before[inside] is not None:
            assert Path(inside).read_bytes() == host_before[inside], f"{inside} changed on the host"
        assert sandbox.read(inside).endswith(line), inside
        assert (sandbox.root / kept).read_bytes().endswith(line), f"{inside} not kept in {kept}"


def test_host_paths_outside_the_private_trees_are_refused_by_the_file_view(sandbox):
    with pytest.raises(PermissionError):
        sandbox.write("/root/probe", b"x")
    with pytest.raises(PermissionError):
        sandbox.remove("/home")
    assert not os.path.exists("/root/probe")


def test_namespaces_are_private(sandbox):
    assert sandbox.run(["readlink", "/proc/self"]).check().out == "1\n"
    host = sandbox.run(["hostname"]).check().out.strip()
    assert host == "mail.sandbox.test" and host != os.uname().nodename
    assert sandbox.run(["getent", "hosts", host]).check().out.startswith("127.")
    links = sandbox.run(["ip", "-o", "link"]).check()
    assert [line.split(":")[1].strip() for line in links.out.splitlines()] == ["lo"], links
    addrs = sandbox.run(["ip", "-o", "-4", "addr", "show", "up"]).check()
    assert "inet 127.0.0.1/8" in addrs.out, addrs


# --- running commands --------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["one-shot", "started"])
def test_exit_status_and_streams_pass_through(sandbox, mode):
    _in_mode(sandbox, mode)
    for rc in (0, 1, 7, 255):
        res = sandbox.run(["sh", "-c", 'cat; echo "to err" >&2; exit "$0"', str(rc)],
                          stdin=b"in\xffput\n")
        assert (res.rc, res.out_b, res.err) == (rc, b"in\xffput\n", "to err\n"), res
    assert res.out == "in\udcffput\n"
    if mode == "started":
        # (a one-shot command is pid 1: signals it sends itself are ignored by design)
        killed = sandbox.run(["sh", "-c", "kill -TERM $$"])
        assert killed.rc == -signal.SIGTERM, killed
    missing = sandbox.run(["/no/such/program"])
    assert missing.rc == 127 and "/no/such/program" in missing.err, missing


def test_environment_is_minimal_plus_overrides(sandbox, monkeypatch):
    monkeypatch.setenv("MAILTEND_RIG_LEAK", "host-only")
    res = sandbox.run(["env"], env={"ZRN_PASSWORD": "sec ret", "HOME": None}).check()
    env = dict(line.split("=", 1) for line in res.out.splitlines())
    assert env["ZRN_PASSWORD"] == "sec ret"
    assert "MAILTEND_RIG_LEAK" not in env and "HOME" not in env
    assert env["PWD"] == "/" and "/usr/sbin" in env["PATH"].split(":")


def test_binary_under_test_is_installed(sandbox, mailtend_bin):
    st = sandbox.stat(TOOL_PATH)
    assert st.st_mode & 0o777 == 0o755 and st.st_uid == 0
    assert sandbox.read(TOOL_PATH) == mailtend_bin.read_bytes()
    res = sandbox.mailtend("--help")
    assert res.argv == [TOOL_PATH, "--help"] and res.rc >= 0, res


def test_one_shot_run_leaves_nothing_running(sandbox):
    marker = f"MAILTEND_RIG_MARKER={uuid.uuid4().hex}"
    key, value = marker.split("=")
    sandbox.run(["sh", "-c", "sleep 300 & sleep 300 & exit 0"], env={key: value}).check()
    assert _host_pids_with_env(marker) == []


def test_daemon_mode_survives_stop_and_start(sandbox):
    sandbox.start()
    first_pid = sandbox.pid
    marker = f"MAILTEND_RIG_MARKER={uuid.uuid4().hex}"
    key, value = marker.split("=")
    sandbox.spawn(["sleep", "300"], env={key: value})
    sandbox.spawn(["ls", "/no-such-probe"], log="/var/log/rig/spawn.log")
    sandbox.run(["tee", "/var/lib/kept-state"], stdin="kept\n").check()
    assert len(_host_pids_with_env(marker)) == 1
    deadline = time.monotonic() + 5
    while b"no-such-probe" not in (sandbox.read("/var/log/rig/spawn.log") or b""):
        assert time.monotonic() < deadline, "spawned output not logged"
        time.sleep(0.02)
    refused = subprocess.run([str(SANDBOX_SCRIPT), "run", str(sandbox.root), "true"],
                             capture_output=True, text=True)
    assert refused.returncode != 0 and "started" in refused.stderr

    sandbox.stop()
    assert not sandbox.started and not os.path.exists(f"/proc/{first_pid}/stat")
    assert _host_pids_with_env(marker) == []
    assert sandbox.read("/var/lib/kept-state") == b"kept\n"

    sandbox.start()
    assert sandbox.pid != first_pid
    assert sandbox.run(["cat", "/var/lib/kept-state"]).check().out == "kept\n"
    assert sandbox.run(["hostname"]).check().out == "mail.sandbox.test\n"
    sandbox.stop(kill=True)
    assert sandbox.run(["cat", "/var/lib/kept-state"]).check().out == "kept\n"


def test_holder_reaps_orphans(sandbox):
    sandbox.start()
    sandbox.run(["sh", "-c", "(sleep 0.05 &) ; exit 0"]).check()
    deadline = time.monotonic() + 3
    while True:
        procs = sandbox.run(["ps", "-e", "-o", "stat=,comm="]).check().out.splitlines()
        if not any(p.split()[1] == "sleep" for p in procs):
            break
        assert time.monotonic() < deadline, f"orphan left behind: {procs}"
        time.sleep(0.05)


def test_destroy_ends_everything_and_removes_root(sandbox_base, mailtend_bin):
    sb = Sandbox.create(tempfile.mkdtemp(dir=sandbox_base), mailtend_bin)
    sb.start()
    marker = f"MAILTEND_RIG_MARKER={uuid.uuid4().hex}"
    key, value = marker.split("=")
    sb.spawn(["sleep", "300"], env={key: value})
    sb.destroy()
    assert _host_pids_with_env(marker) == []
    assert not sb.root.exists()
    with open("/proc/self/mountinfo") as f:
        assert str(sb.root) not in f.read()


# --- where ROOT may lie ------------------------------------------------------------------------

def test_root_under_tmp_works(mailtend_bin):
    holder = tempfile.mkdtemp(prefix="mailtend-rig-", dir="/tmp")
    sb = Sandbox.create(os.path.join(holder, "root"), mailtend_bin)
    try:
        probe = f"/tmp/probe-{uuid.uuid4().hex}"
        for mode in ("one-shot", "started"):
            _in_mode(sb, mode)
            sb.run(["touch", probe]).check()
            assert (sb.root / "tmp" / probe[5:]).exists()
            assert not os.path.exists(probe)
            assert sb.postmap_q("nobody@example.com", "virtual") is None
            assert sb.run([TOOL_PATH, "--help"]).rc >= 0
            # inside, the host's /tmp (and ROOT with it) is out of sight
            assert sb.run(["test", "-e", str(sb.root)]).rc == 1
    finally:
        sb.destroy()
        os.rmdir(holder)


@pytest.mark.parametrize("root", ["/etc/mailtend-rig", "/usr/mailtend-rig", "/var/tmp/mailtend-rig",
                                  "/opt/mailtend-rig", "/run/mailtend-rig", "/", "/tmp/a,b",
                                  "/tmp/a:b"])
def test_unusable_roots_are_refused(root):
    res = subprocess.run([str(SANDBOX_SCRIPT), "init", root], capture_output=True, text=True)
    assert res.returncode != 0 and "must not" in res.stderr, res
    if root != "/":
        assert not os.path.exists(root)


# --- file view ----------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["stopped", "started"])
def test_file_view_agrees_with_the_inside(sandbox, mode):
    _in_mode(sandbox, mode)
    popuser = 30110
    sandbox.write("/var/qmail/mailnames/probe/file", b"data\n", mode=0o600, uid=popuser,
                  gid=popuser)
    inside = sandbox.run(["stat", "-c", "%a %U %G %s", "/var/qmail/mailnames/probe/file"])
    assert inside.check().out == "600 popuser popuser 5\n"
    assert sandbox.run(["cat", "/var/qmail/mailnames/probe/file"]).out == "data\n"

    # the host's files show through; symlinks resolve inside the sandbox
    assert sandbox.read("/etc/os-release") == Path("/etc/os-release").read_bytes()
    sandbox.write("/run/lock/files/probe", b"lock")
    assert sandbox.read("/var/lock/files/probe") == b"lock"
    assert sandbox.exists("/var/run/mysqld") and not sandbox.exists("/var/run/nothing-here")
    assert sandbox.readlink("/etc/courier-imap") == "courier"
    assert sandbox.stat("/etc/courier-imap").st_ino == sandbox.stat("/etc/courier").st_ino

    # merged listing: the host's files plus ours, minus what was removed inside
    sandbox.write("/etc/postfix/probe.cf", b"")
    sandbox.remove("/etc/postfix/master.cf")
    listing = sandbox.listdir("/etc/postfix")
    assert {"main.cf", "probe.cf", "dynamicmaps.cf"} <= set(listing)
    assert "master.cf" not in listing and not sandbox.exists("/etc/postfix/master.cf")
    assert os.path.exists("/etc/postfix/master.cf")
    inside_ls = sandbox.run(["ls", "-A", "/etc/postfix"]).check().out.split()
    assert sorted(inside_ls) == listing

    # a host file changed from here is copied up first
    sandbox.chmod("/etc/mailname", 0o600)
    assert sandbox.run(["stat", "-c", "%a", "/etc/mailname"]).out == "600\n"
    assert os.stat("/etc/mailname").st_mode & 0o777 != 0o600


# --- Postfix set-up ------------------------------------------------------------------------------

def test_initial_tables_are_empty_indexed_tables(sandbox):
    for table in TABLES:
        assert sandbox.exists(f"{TABLE_DIR}/{table}.db"), table
        assert not sandbox.exists(f"{TABLE_DIR}/{table}"), f"{table}: no text source is kept"
        assert sandbox.postmap_q("probe@example.com", table) is None, table
        sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/{table}"],
                    stdin=f"probe@example.com {table}, value\n").check()
    for table in TABLES:
        assert sandbox.postmap_s(table) == {"probe@example.com": f"{table}, value"}, table


MAIN_CF_SETTINGS = {
    "mydestination": "localhost, localhost.localdomain",
    "inet_interfaces": "loopback-only",
    "virtual_mailbox_domains": f"hash:{TABLE_DIR}/virtual_domains",
    "virtual_mailbox_maps": f"hash:{TABLE_DIR}/vmailbox",
    "virtual_alias_maps": f"hash:{TABLE_DIR}/virtual",
    "virtual_mailbox_base": "/var/qmail/mailnames",
    "virtual_uid_maps": "static:30110",
    "virtual_gid_maps": "static:30110",
    "maillog_file": "/var/log/postfix.log",
}


def test_main_cf_is_private_and_back_dated(sandbox):
    res = sandbox.run(["postconf", *MAIN_CF_SETTINGS]).check()
    assert dict(line.split(" = ", 1) for line in res.out.splitlines()) == MAIN_CF_SETTINGS
    assert time.time() - sandbox.stat(MAIN_CF).st_mtime >= 2.5
    sandbox.postconf_e("message_size_limit = 12345")
    assert time.time() - sandbox.stat(MAIN_CF).st_mtime >= 2.5
    started = time.monotonic()
    assert sandbox.postconf_h("message_size_limit") == "12345"
    assert time.monotonic() - started < 1.5, "postconf waited for main.cf to settle"


def test_accounts_and_directories_of_a_fresh_sandbox(sandbox):
    res = sandbox.run(["id", "popuser"]).check()
    assert res.out.startswith("uid=30110(popuser) gid=30110(popuser)"), res
    with pytest.raises(KeyError):
        pwd.getpwnam("popuser")
    # the host's system accounts stay as they are
    assert sandbox.read("/etc/passwd").startswith(Path("/etc/passwd").read_bytes())
    expected = {"/etc/zrn": "root", "/var/qmail/mailnames": "root", TABLE_DIR: "root",
                "/usr/local/zrn/handlers": "root", "/usr/lib/zarnet-9.0": "root",
                "/etc/domainkeys": "root", "/etc/zrn-spf": "root", "/run/lock/files": "root",
                "/run/mysqld": "mysql", "/etc/courier-imap": "root"}
    res = sandbox.run(["stat", "-L", "-c", "%F %U", *expected]).check()
    assert res.out.splitlines() == [f"directory {owner}" for owner in expected.values()]
    assert sandbox.readlink("/etc/courier-imap") == "courier"


def test_postfix_delivers_to_a_virtual_mailbox(sandbox):
    sandbox.start_postfix()
    sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/virtual_domains"],
                stdin="example.com example.com/\n").check()
    sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/vmailbox"],
                stdin="john@example.com example.com/john/Maildir/\n").check()
    sandbox.makedirs("/var/qmail/mailnames/example.com/john", mode=0o700, uid=30110, gid=30110)
    sandbox.run(["sendmail", "-f", "root@localhost", "john@example.com"],
                stdin="Subject: rig probe\n\nhello\n").check()
    new = "/var/qmail/mailnames/example.com/john/Maildir/new"
    deadline = time.monotonic() + 15
    while not (sandbox.exists(new) and sandbox.listdir(new)):
        assert time.monotonic() < deadline, sandbox.read_text("/var/log/postfix.log")
        time.sleep(0.05)
    (name,) = sandbox.listdir(new)
    assert b"Subject: rig probe" in sandbox.read(f"{new}/{name}")
    assert sandbox.stat(f"{new}/{name}").st_uid == 30110
    sandbox.stop()
    sandbox.start()
    assert not sandbox.postfix_running(), "a stale master.pid must not count as running"


# --- panel database ----------------------------------------------------------------------------

def test_panel_db_seed_and_the_tools_queries(panel_db):
    dom = panel_db.add_domain("example.com", limits={"mbox_quota": 1048576})
    other = panel_db.add_domain("other.org")
    john = panel_db.add_mailname(dom, "john", quota=2048)
    jane = panel_db.add_mailname(dom, "jane")
    panel_db.add_mailname(other, "john")
    panel_db.add_mail_alias(john, "jj")
    panel_db.add_mail_alias(john, "johnny")
    panel_db.add_domain_alias(dom, "example.net")
    panel_db.set_misc("allow_short_names", "true")
    panel_db.set_misc("allow_short_names", "false")
    assert jane != john

    with panel_db.connect_as_admin() as conn, conn.cursor() as cur:
        def rows(sql):
            cur.execute(sql)
            return sorted(tuple(r) for r in cur.fetchall())

        assert rows("SELECT da.name FROM domainaliases da JOIN domains d "
                    "WHERE da.dom_id=d.id and d.name='example.com'") == [("example.net",)]
        assert rows("SELECT m.mail_name FROM mail m JOIN domains d "
                    "WHERE m.dom_id=d.id AND d.name='example.com'") == [("jane",), ("john",)]
        assert rows("SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d "
                    "WHERE ma.mn_id=m.id AND m.mail_name='john' AND m.dom_id=d.id "
                    "AND d.name='example.com'") == [("jj",), ("johnny",)]
        assert rows("SELECT d.name FROM domains d JOIN domainaliases da "
                    "WHERE d.id=da.dom_id AND da.name='example.net'") == [("example.com",)]
        assert rows(f"select l.value from domains d, Limits l \t\t\t\t where d.id='{dom}' "
                    "and d.limits_id=l.id  and l.limit_name='mbox_quota'") == [(1048576,)]
        assert rows(f"select l.value from domains d, Limits l \t\t\t\t where d.id='{other}' "
                    "and d.limits_id=l.id  and l.limit_name='mbox_quota'") == []
        assert rows("SELECT m.mail_name, m.mbox_quota FROM mail m, domains d "
                    "WHERE d.id = m.dom_id AND d.name='example.com' ") == [("jane", -1),
                                                                          ("john", 2048)]
        assert rows("SELECT    val  FROM misc    WHERE param='allow_short_names'") == [("false",)]
    assert panel_db.query("SELECT COUNT(*) FROM mail") == [(3,)]


def test_panel_db_reachable_inside_the_way_the_tool_connects(panel_db):
    st = panel_db.sandbox.stat("/etc/zrn/.zrn.shadow")
    assert (st.st_mode & 0o777, st.st_uid) == (0o600, 0)
    password = panel_db.sandbox.read_text("/etc/zrn/.zrn.shadow")
    assert password == panel_db.password + "\n" and len(panel_db.password) >= 16
    panel_db.add_domain("inside.example")
    # host "localhost" means the client library's default socket
    res = panel_db.sandbox.run(["mariadb", "--no-defaults", "-h", "localhost", "-u", "admin",
                                f"-p{panel_db.password}", "zrn", "-N", "-e",
                                "SELECT name FROM domains"]).check()
    assert res.out == "inside.example\n"
    with pytest.raises(pymysql.err.OperationalError):
        pymysql.connect(unix_socket=panel_db.socket, user="admin", password="wrong",
                        database="zrn")


def test_panel_db_is_fresh_per_test_and_kept_across_stop_start(panel_db):
    assert panel_db.query("SELECT COUNT(*) FROM domains") == [(0,)]
    panel_db.add_domain("kept.example")
    panel_db.close()
    panel_db.sandbox.stop()
    assert not panel_db.server_running()
    panel_db.start()
    assert panel_db.query("SELECT name FROM domains") == [("kept.example",)]


# --- Courier authentication and quota delivery ------------------------------------------------

# "s3cret" in MD5-crypt
S3CRET_MD5 = "$1$abcdefgh$7.vq19w/w3Vm.hk1FOA7Q/"

# (fault caught, login, password, accepted)
AUTH_CASES = [
    ("clear column not compared", "plain@example.com", "pw-plain", True),
    ("crypt column not checked as a hash", "hashed@example.com", "s3cret", True),
    ("crypt column compared as clear text", "hashed@example.com", S3CRET_MD5, False),
    ("any password accepted", "plain@example.com", "pw-other", False),
    ("users joined without their domain", "plain@example.com", "pw-other-domain", False),
    ("disabled user accepted", "off@example.com", "pw-off", False),
    ("disabled domain accepted", "plain@off.example", "pw-in-off-domain", False),
]


def test_authdaemon_reads_the_tools_passwd_db(sandbox):
    sandbox.init_auth_db()
    sandbox.start_authdaemon()
    sandbox.sqlite(
        "INSERT INTO domains (id, name, status) VALUES (1, 'example.com', 0), "
        "(2, 'off.example', 1), (3, 'other.example', 0);"
        "INSERT INTO users (dom_id, name, userPassword, status) VALUES "
        "(1, 'plain', 'pw-plain', 0), (1, 'off', 'pw-off', 1), "
        "(2, 'plain', 'pw-in-off-domain', 0), (3, 'plain', 'pw-other-domain', 0);"
        "INSERT INTO users (dom_id, name, cmusaslsecretPLAIN) VALUES (1, 'hashed', "
        f"'{S3CRET_MD5}');").check()
    for fault, login, password, accepted in AUTH_CASES:
        res = sandbox.authtest(login, password)
        assert (res.rc == 0) == accepted, f"{fault}: {res!r}"
    account = sandbox.authtest("plain@example.com", "pw-plain").out
    for want in ("(uid 30110, gid 30110)", "Home Directory: /var/qmail/mailnames/example.com/plain",
                 "Maildir: Maildir"):
        assert want in account, f"want {want!r} in:\n{account}"


def test_deliverquota_refuses_over_quota_with_77(sandbox):
    maildir = "/var/qmail/mailnames/example.com/john/Maildir"
    sandbox.make_maildir(maildir, quota=1000)
    message = "Subject: quota\n\n".ljust(599, "x") + "\n"
    first = sandbox.deliverquota(maildir, message)
    assert first.rc == 0, first
    second = sandbox.deliverquota(maildir, message)
    assert second.rc == courier.QUOTA_EXCEEDED, second
    (name,) = sandbox.listdir(f"{maildir}/new")
    assert sandbox.stat(f"{maildir}/new/{name}").st_uid == 30110


# --- the host, once more, at the end -----------------------------------------------------------

@pytest.mark.run_last
def test_host_unchanged_after_writes_inside(sandbox, host_snapshot):
    """Runs late: after the writes above and a few more here, the host's files are as they
    were when the session began."""
    sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/virtual"], stdin="a@b.c a@b.c\n").check()
    sandbox.postconf_e("mydomain = changed.example")
    sandbox.run(["tee", "-a", "/etc/passwd"], stdin="intruder:x:0:0::/:/bin/sh\n").check()
    sandbox.start()
    sandbox.postconf_e("myorigin = changed.example")
    sandbox.run(["useradd", "-M", "-N", "-u", "30999", "rigprobe"]).check()
    sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/vmailbox"], stdin="x@y.z y/\n").check()
    assert sandbox.postmap_q("x@y.z", "vmailbox") == "y/"
    assert "intruder:" in sandbox.read_text("/etc/passwd")
    assert host_state.diff(host_snapshot, host_state.snapshot()) == []
