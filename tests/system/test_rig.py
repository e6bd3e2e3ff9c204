"""The rig's own faults that would let the other tests pass wrongly or harm the host."""

import contextlib
import os
import signal
import subprocess
import tempfile
import uuid
from pathlib import Path

import pytest

import host_state
from conftest import HOST_STATE
from sandbox import POSTFIX_INIT, SANDBOX_SCRIPT, TABLE_DIR, TOOL_PATH, Sandbox

# (path inside, where ROOT keeps it): /var/run and /var/lock lead into the private /run
PRIVATE_WRITES = [("/etc/passwd", "upper/etc/passwd"), ("/usr/lib/p{id}", "upper/usr/lib/p{id}"),
                  ("/var/spool/p{id}", "upper/var/spool/p{id}"), ("/opt/p{id}", "upper/opt/p{id}"),
                  ("/run/p{id}", "run/p{id}"), ("/var/run/p{id}", "run/p{id}"),
                  ("/var/lock/p{id}", "run/lock/p{id}"), ("/tmp/p{id}", "tmp/p{id}")]


def marked_host_processes(marker):
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if marker.encode() in Path(f"/proc/{pid}/environ").read_bytes():
                found.append(pid)
    return found


@pytest.mark.parametrize("mode", ["one-shot", "started"])
def test_writes_stay_inside_and_the_file_view_sees_the_inside(request, sandbox, mode):
    if mode == "started":
        sandbox.start()
    probe = uuid.uuid4().hex
    cases = [(inside.format(id=probe), kept.format(id=probe)) for inside, kept in PRIVATE_WRITES]
    on_host = {p: Path(p).read_bytes() if os.path.isfile(p) else None for p, _ in cases}
    line = f"probe {probe}\n".encode()
    sandbox.run(["tee", "-a", *(p for p, _ in cases)], stdin=line).check()
    for inside, kept in cases:
        assert (Path(inside).read_bytes() if os.path.isfile(inside) else None) == on_host[inside]
        assert (sandbox.root / kept).read_bytes().endswith(line), inside
        assert sandbox.read(inside).endswith(line), inside
    sandbox.write("/var/lock/files/p", "view\n", mode=0o600, uid=30110)
    inside = sandbox.run(["stat", "-c", "%a %U %s", "/run/lock/files/p"]).check().out
    assert inside == "600 popuser 5\n"
    with pytest.raises(PermissionError):
        sandbox.write("/root/probe", b"x")
    # what the tests do most: tables, main.cf, accounts, init scripts
    sandbox.run(["postmap", "-i", f"hash:{TABLE_DIR}/virtual"], stdin="a@b.c a@b.c\n").check()
    sandbox.postconf_e("myorigin = changed.example")
    sandbox.run(["useradd", "-M", "-N", "-u", "30999", "rigprobe"]).check()
    sandbox.record(POSTFIX_INIT, exit_code=0)
    assert host_state.diff(request.config.stash[HOST_STATE], host_state.snapshot()) == []


@pytest.mark.parametrize("mode", ["one-shot", "started"])
def test_exit_status_and_streams_pass_through(sandbox, mailtend_bin, mode):
    if mode == "started":
        sandbox.start()
        # a one-shot command is pid 1, which ignores the signals it sends itself
        assert sandbox.run(["sh", "-c", "kill -TERM $$"]).rc == -signal.SIGTERM
    for rc in (0, 1, 255):
        res = sandbox.run(["sh", "-c", 'cat; echo "to err" >&2; exit "$0"', str(rc)],
                          stdin=b"in\xffput\n")
        assert (res.rc, res.out_b, res.err_b) == (rc, b"in\xffput\n", b"to err\n"), res
    assert sandbox.read(TOOL_PATH) == mailtend_bin.read_bytes(), "a stale binary under test"
    links = sandbox.run(["ip", "-o", "link"]).check().out.splitlines()
    assert [line.split(":")[1].strip() for line in links] == ["lo"]
    assert sandbox.run(["hostname"]).check().out == "mail.sandbox.test\n"


def test_nothing_outlives_its_sandbox(sandbox_base, mailtend_bin):
    sb = Sandbox.create(tempfile.mkdtemp(dir=sandbox_base), mailtend_bin)
    marker = f"MAILTEND_RIG_MARKER={uuid.uuid4().hex}"
    env = dict([marker.split("=")])
    sb.run(["sh", "-c", "sleep 300 & exit 0"], env=env).check()
    assert marked_host_processes(marker) == [], "one-shot run left a process"
    sb.spawn(["sleep", "300"], env=env)
    assert len(marked_host_processes(marker)) == 1
    sb.stop()
    assert marked_host_processes(marker) == [], "a daemon survived the stop"
    sb.spawn(["sleep", "300"], env=env)
    sb.destroy()
    assert marked_host_processes(marker) == [] and not sb.root.exists()
    with open("/proc/self/mountinfo") as f:
        assert str(sb.root) not in f.read()


@pytest.mark.parametrize("root", ["/etc/mailtend-rig", "/var/tmp/mailtend-rig", "/opt/mailtend-rig",
                                  "/run/mailtend-rig", "/tmp/a,b"])
def test_roots_the_overlays_would_swallow_are_refused(root):
    res = subprocess.run([str(SANDBOX_SCRIPT), "init", root], capture_output=True, text=True)
    assert res.returncode != 0 and "must not" in res.stderr and not os.path.exists(root), res
