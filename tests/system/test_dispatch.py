"""Dispatch, help texts and the feature report: exact output, stream and exit status."""

import pytest

from conftest import EXPECTED

USAGE = EXPECTED[("-h",)]
INVALID = [  # words that are no command: attached values, abbreviations, case, commands not built
    "--frobnicate", "--add-domain=example.com", "--help-command", "--FEATURES", "features", "-",
    ""]
CASES = [
    ([], 1, "", "Error: no command specified\n" + USAGE),
    *(([w, "--domain-name=x", "--help"], 1, "", f"Error: invalid command {w}\n" + USAGE)
      for w in INVALID),
    (["-h", "ignored", "--arguments"], 0, USAGE, ""),
    (["--help", "ignored", "--arguments"], 0, USAGE, ""),
    # the report takes no options, so nothing after it can make it fail
    (["--features", "--whatever", "x"], 0, EXPECTED[("--features",)], ""),
    *((list(argv), 0, out, "") for argv, out in EXPECTED.items()),
]


@pytest.mark.parametrize("argv,rc,out,err", CASES, ids=[" ".join(c[0])[:40] for c in CASES])
def test_output_and_status(module_sandbox, argv, rc, out, err):
    module_sandbox.mailtend(*argv).expect(rc, out, err)
