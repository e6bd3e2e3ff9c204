"""The *Sandboxed unit suites need the rig: popuser, the panel database, the tool's paths."""

import os
from pathlib import Path

import pytest

from sandbox import REPO

INSIDE = "/opt/mailtend-tests/unit_tests"  # the host's /tmp, where a checkout may be, is hidden


def test_sandboxed_unit_suites(sandbox, panel_db):
    binary = Path(os.environ.get("MAILTEND_UNIT_TESTS_BIN") or REPO / "build" / "unit_tests")
    if not binary.is_file():
        pytest.fail(f"no unit test binary at {binary} (set MAILTEND_UNIT_TESTS_BIN)",
                    pytrace=False)
    sandbox.install(binary, INSIDE)
    listing = sandbox.run([INSIDE, "--gtest_list_tests", "--gtest_filter=*Sandboxed.*"]).check()
    if "Sandboxed." not in listing.out:
        pytest.skip("no sandboxed unit suites")
    res = sandbox.run([INSIDE, "--gtest_filter=*Sandboxed.*", "--gtest_brief=1"],
                      env={"MAILTEND_IN_SANDBOX": "1"}, timeout=600)
    assert res.rc == 0, res
