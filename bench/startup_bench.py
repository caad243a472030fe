#!/usr/bin/env python3
"""Start-up time of the pnx program, side by side with `true`.

    bench/startup_bench.py [--runs N] [--bundle DIR] LABEL=PNX_BINARY [LABEL=PNX_BINARY ...]

For each binary, runs `pnx --version` and `pnx config` (on the sample bundle, against a
fresh device), and `true` once per binary set, N times each (default 200), the programs
interleaved run by run so that a change in the machine's load touches all of them alike.
Prints the median and the spread (10th to 90th percentile) of the wall time from spawn to
exit in milliseconds, and each median as a multiple of `true`'s.

Give two binaries (for example a build before and after a change) to compare them in one
run: bench/startup_bench.py before=/tmp/old/pnx after=build/release/pnx
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def main():
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=200)
    parser.add_argument("--bundle", default=os.path.join(source, "examples", "SampleApp"))
    parser.add_argument("binaries", nargs="+", metavar="LABEL=PNX_BINARY")
    args = parser.parse_args()

    commands = [("true", ["true"])]
    for item in args.binaries:
        label, _, binary = item.partition("=")
        if not binary or not os.access(binary, os.X_OK):
            sys.exit(f"startup_bench: {item!r} is not LABEL=EXECUTABLE")
        commands.append((f"{label}: pnx --version", [binary, "--version"]))
        commands.append((f"{label}: pnx config", [binary, "--bundle", args.bundle, "config"]))

    with tempfile.TemporaryDirectory(prefix="startup-bench-") as device:
        env = dict(os.environ, PNX_DEVICE=device)
        for _, argv in commands:  # warm the page cache; check that each command works
            subprocess.run(argv, env=env, check=True, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
        times = {name: [] for name, _ in commands}
        for _ in range(args.runs):
            for name, argv in commands:
                start = time.perf_counter()
                subprocess.run(argv, env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
                times[name].append((time.perf_counter() - start) * 1000)

    baseline = statistics.median(times["true"])
    print(f"{args.runs} runs each, wall time from spawn to exit (ms)")
    print(f"{'command':34} {'median':>8} {'p10':>7} {'p90':>7} {'x true':>7}")
    for name, _ in commands:
        values = times[name]
        median = statistics.median(values)
        print(f"{name:34} {median:8.2f} {percentile(values, 0.1):7.2f} "
              f"{percentile(values, 0.9):7.2f} {median / baseline:7.2f}")


if __name__ == "__main__":
    main()
