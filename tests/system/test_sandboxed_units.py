"""Runs the unit-test suites named *Sandboxed inside a started sandbox.

Those suites need what only the rig has: the popuser account, the panel database served on
its socket with the administrator's password file, and the system paths the tool writes.
"""

import os
from pathlib import Path

import pytest

from sandbox import REPO


@pytest.fixture(scope="module")
def unit_tests_bin():
    path = Path(os.environ.get("MAILTEND_UNIT_TESTS_BIN") or REPO / "build" / "unit_tests")
    if not path.is_file():
        pytest.fail(f"no unit test binary at {path} (set MAILTEND_UNIT_TESTS_BIN)",
                    pytrace=False)
    return path


# Inside, the host's /tmp (where a checkout may live) is not visible: run a copy.
INSIDE = "/opt/mailtend-tests/unit_tests"


def test_sandboxed_unit_suites(sandbox, panel_db, unit_tests_bin):
    sandbox.install(unit_tests_bin, INSIDE)
    listing = sandbox.run([INSIDE, "--gtest_list_tests", "--gtest_filter=*Sandboxed.*"]).check()
    if "Sandboxed." not in listing.out:
        pytest.skip("no sandboxed unit suites")
    res = sandbox.run([INSIDE, "--gtest_filter=*Sandboxed.*", "--gtest_brief=1"],
                      env={"MAILTEND_IN_SANDBOX": "1"}, timeout=600)
    assert res.rc == 0, res
