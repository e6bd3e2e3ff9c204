"""The real mailtend binary in throwaway sandboxes. MAILTEND_BIN: the binary (build/mailtend);
MAILTEND_SANDBOX_BASE: where sandbox roots go (a temporary directory); MAILTEND_KEEP_SANDBOX=1:
keep the roots for inspection (their processes still end)."""

import contextlib
import os
import re
import shutil
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "rig"))

import host_state  # noqa: E402
from panel_db import PanelDB, build_template  # noqa: E402
from sandbox import REPO, Sandbox  # noqa: E402

HOST_STATE = pytest.StashKey[dict]()
BOUNCE_PATH = "/usr/lib/zarnet-9.0/bouncemessage"  # the program the bounce records name
DELIVER_PATH = "/usr/lib/zarnet-9.0/mailtend-deliver"
SETUP_PATH = "/usr/local/zrn/admin/sbin/mailtend-setup"
# exact standard output of the commands in expected_output.txt, each below its "$ mailtend" line
_PARTS = re.split(r"^\$ mailtend (.*)\n", (Path(__file__).parent / "expected_output.txt")
                  .read_text(), flags=re.M)
EXPECTED = {tuple(argv.split()): out for argv, out in zip(_PARTS[1::2], _PARTS[2::2])}
KEEP = os.environ.get("MAILTEND_KEEP_SANDBOX", "") not in ("", "0")


def pytest_sessionstart(session):
    session.config.stash[HOST_STATE] = host_state.snapshot()


def pytest_sessionfinish(session, exitstatus):
    changed = host_state.diff(session.config.stash[HOST_STATE], host_state.snapshot())
    if changed:
        print("\nthe host changed during the run:\n  " + "\n  ".join(changed[:50]),
              file=sys.stderr)
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def built(variable, name):
    """A program under test: the path in the environment variable, else this checkout's build."""
    path = Path(os.environ.get(variable) or REPO / "build" / name)
    if not path.is_file():
        pytest.fail(f"no {name} at {path} (set {variable})", pytrace=False)
    return path


@pytest.fixture(scope="session")
def mailtend_bin():
    return built("MAILTEND_BIN", "mailtend")


@pytest.fixture(scope="session")
def sandbox_base():
    """This session's own directory for sandbox roots (sessions may share the base)."""
    base = os.environ.get("MAILTEND_SANDBOX_BASE") or None
    if base:
        os.makedirs(base, exist_ok=True)
    session_dir = Path(tempfile.mkdtemp(prefix="session.", dir=base))
    yield session_dir
    if KEEP:
        print(f"\nkept the sandboxes in {session_dir}")
    else:
        shutil.rmtree(session_dir, ignore_errors=True)


@pytest.fixture(scope="session")
def sandbox_template(sandbox_base, mailtend_bin):
    """Initialised, with the programs under test installed; stopped, as clones need it."""
    sb = Sandbox.create(sandbox_base / "template", mailtend_bin)
    sb.install_dbinit(built("MAILTEND_DBINIT_BIN", "mailauth-dbinit"))
    sb.install(built("MAILTEND_BOUNCE_BIN", "bouncemessage"), BOUNCE_PATH)
    sb.install(built("MAILTEND_SETUP_BIN", "mailtend-setup"), SETUP_PATH)
    sb.install(built("MAILTEND_DELIVER_BIN", "mailtend-deliver"), DELIVER_PATH)
    sb.stop()
    return sb


@contextlib.contextmanager
def fresh_sandbox(request):
    base, template = (request.getfixturevalue(f) for f in ("sandbox_base", "sandbox_template"))
    # overlayfs options cannot carry commas or colons; test ids can
    name = re.sub(r"[^A-Za-z0-9_.-]+", "_", request.node.name)[:40]
    sb = Sandbox.clone(template, tempfile.mkdtemp(prefix=name + ".", dir=base))
    try:
        yield sb
    finally:
        sb.stop(kill=True) if KEEP else sb.destroy()


@pytest.fixture
def sandbox(request):
    with fresh_sandbox(request) as sb:
        yield sb


@pytest.fixture(scope="module")
def module_sandbox(request):
    """One sandbox for the tests of a module that leave behind nothing the others read."""
    with fresh_sandbox(request) as sb:
        yield sb


@pytest.fixture(scope="session")
def panel_template(sandbox_base):
    return build_template(sandbox_base / "panel-template")


@pytest.fixture
def panel_db(sandbox, panel_template):
    with PanelDB(sandbox, panel_template).start() as db:
        yield db
