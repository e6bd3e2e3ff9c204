"""Fixtures for the system tests: the real mailtend binary in a throwaway sandbox.

Environment:
  MAILTEND_BIN            the binary under test (default: build/mailtend of this checkout)
  MAILTEND_SANDBOX_BASE   directory for the sandbox roots (default: a fresh temporary one)
  MAILTEND_KEEP_SANDBOX   set to 1 to keep each test's sandbox root for inspection (its
                          processes are still ended); the path is printed at teardown
"""

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

_HOST_STATE = pytest.StashKey[dict]()


def _keep():
    return os.environ.get("MAILTEND_KEEP_SANDBOX", "") not in ("", "0")


def pytest_configure(config):
    config.addinivalue_line("markers", "run_last: run after every other test of the session")


def pytest_collection_modifyitems(session, config, items):
    items.sort(key=lambda item: item.get_closest_marker("run_last") is not None)


def pytest_sessionstart(session):
    session.config.stash[_HOST_STATE] = host_state.snapshot()


def pytest_sessionfinish(session, exitstatus):
    before = session.config.stash.get(_HOST_STATE, None)
    if before is None:
        return
    changed = host_state.diff(before, host_state.snapshot())
    if changed:
        reporter = session.config.pluginmanager.get_plugin("terminalreporter")
        text = "the host changed during the run:\n  " + "\n  ".join(changed[:50])
        if reporter is not None:
            reporter.write_line("")
            reporter.write_sep("!", "host files changed")
            reporter.write_line(text)
        else:
            print(text, file=sys.stderr)
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


@pytest.fixture(scope="session")
def host_snapshot(request):
    """The fingerprint of the host's mail and account files taken when the session began."""
    return request.config.stash[_HOST_STATE]


@pytest.fixture(scope="session")
def mailtend_bin():
    path = Path(os.environ.get("MAILTEND_BIN") or REPO / "build" / "mailtend")
    if not path.is_file():
        pytest.fail(f"no mailtend binary at {path} (set MAILTEND_BIN)", pytrace=False)
    return path


@pytest.fixture(scope="session")
def sandbox_base():
    """This session's own directory for sandbox roots (sessions may share the base)."""
    base = os.environ.get("MAILTEND_SANDBOX_BASE")
    if base:
        os.makedirs(base, exist_ok=True)
        session_dir = tempfile.mkdtemp(prefix="session.", dir=base)
    else:
        session_dir = tempfile.mkdtemp(prefix="mailtend-sandboxes.")
    yield Path(session_dir)
    if not _keep():
        shutil.rmtree(session_dir, ignore_errors=True)


def _root_for(request, base):
    # overlayfs options cannot carry commas or colons; test ids can
    name = re.sub(r"[^A-Za-z0-9_.-]+", "_", request.node.name)[:40]
    return tempfile.mkdtemp(prefix=name + ".", dir=base)


@pytest.fixture(scope="session")
def sandbox_template(sandbox_base, mailtend_bin):
    """An initialised sandbox with the binary installed, never started; tests get copies."""
    sb = Sandbox.create(sandbox_base / "template", mailtend_bin)
    sb.install_dbinit()
    return sb


@pytest.fixture
def sandbox(request, sandbox_base, sandbox_template):
    """A fresh, stopped sandbox with the binary under test installed at the tool's path."""
    sb = Sandbox.clone(sandbox_template, _root_for(request, sandbox_base))
    yield sb
    if _keep():
        sb.stop(kill=True)
        print(f"\nkept sandbox: {sb.root}")
    else:
        sb.destroy()


@pytest.fixture(scope="session")
def panel_template(sandbox_base):
    """Template datadir of the panel database, built once per session."""
    return build_template(sandbox_base / "panel-template")


@pytest.fixture
def panel_db(sandbox, panel_template):
    """The panel database served inside the (now started) sandbox; seed it with add_*."""
    db = PanelDB(sandbox, panel_template).start()
    yield db
    db.close()
