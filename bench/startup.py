"""Compare the start-up of one command against /bin/true, interleaved so
machine noise hits both alike; report medians and the difference."""
import statistics
import subprocess
import sys
import time

TARGET_MS = 1.0


def one_run(argv):
    start = time.perf_counter_ns()
    subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    return (time.perf_counter_ns() - start) / 1e6


def main():
    binary, rounds = sys.argv[1], int(sys.argv[2])
    floor, tool = [], []
    for _ in range(20):  # warm the page cache and the loader
        one_run(["/bin/true"])
        one_run([binary, "--help"])
    for _ in range(rounds):
        floor.append(one_run(["/bin/true"]))
        tool.append(one_run([binary, "--help"]))
    f, t = statistics.median(floor), statistics.median(tool)
    print(f"/bin/true            median {f:.3f} ms over {rounds} runs")
    print(f"mailtend --help      median {t:.3f} ms over {rounds} runs")
    print(f"start-up above floor {t - f:.3f} ms (ratio {t / f:.2f}; target < {TARGET_MS} ms)")
    return 0 if t - f < TARGET_MS else 1


if __name__ == "__main__":
    sys.exit(main())
