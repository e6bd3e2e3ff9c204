"""The *Sandboxed unit suites need the rig: popuser, the panel database, the tool's paths."""

import pytest

from conftest import REPO, built

INSIDE = "/opt/mailtend-tests/unit_tests"  # the host's /tmp, where a checkout may be, is hidden


def test_sandboxed_unit_suites(sandbox, panel_db):
    sandbox.install(built("MAILTEND_UNIT_TESTS_BIN", "unit_tests"), INSIDE)
    sandbox.install(REPO / "tests/unit/support/compiler_logger.py", "/opt/mailtend-tests/compiler_logger.py")
    listing = sandbox.run([INSIDE, "--gtest_list_tests", "--gtest_filter=*Sandboxed.*"]).check()
    if "Sandboxed." not in listing.out:
        pytest.skip("no sandboxed unit suites")
    res = sandbox.run([INSIDE, "--gtest_filter=*Sandboxed.*", "--gtest_brief=1"],
                      env={"MAILTEND_IN_SANDBOX": "1", "MAILTEND_TEST_SUPPORT_DIR": "/opt/mailtend-tests"}, timeout=600)
    assert res.rc == 0, res
