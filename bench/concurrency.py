"""The concurrency test's workload at a larger scale, timed; the end state is checked as in
the test."""
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(REPO / "tests" / "rig"), str(REPO / "tests" / "system")]

from panel_db import PanelDB, build_template  # noqa: E402
from sandbox import Sandbox  # noqa: E402
from test_concurrency import prepare, run_all, verify, workload  # noqa: E402


def main():
    build, processes, count = Path(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
    with tempfile.TemporaryDirectory(prefix="mailtend-bench.") as work:
        sb = Sandbox.create(Path(work) / "root", build / "mailtend")
        try:
            sb.install_dbinit(build / "mailauth-dbinit")
            with PanelDB(sb, build_template(Path(work) / "panel")).start() as db:
                prepare(sb, db, processes)
                loads = [workload(w, count) for w in range(processes)]
                start = time.monotonic()
                results = run_all(sb, loads)
                took = time.monotonic() - start
                verify(sb, loads, results)
        finally:
            sb.destroy()
    total = processes * count
    print(f"{processes} processes x {count} operations: {took:.1f} s, {total / took:.0f} "
          f"operations/s, {1000 * took / count:.1f} ms per operation per process; end state as "
          "serial")


if __name__ == "__main__":
    main()
