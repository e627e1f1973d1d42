#!/usr/bin/env python3
"""Measures an allocation with its release: by malloc, by the framework, and by the framework while it writes its log.

    allocation_log.py --program ALLOCATION_COST --tool QORTOOL [--brief] [--max-off RATIO] [--max-on RATIO]

The three run in turn; the figures are medians of nanoseconds of processor time. The log is then replayed. The exit code
is 1 if the framework takes more than RATIO times as long as malloc (1.5 without a log, 40 with one), or if the replay
finds a fault. A brief run never fails because of a figure, since other programs influence it too much.
"""

import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C"}


def run(*words):
    done = subprocess.run([str(word) for word in words], env=ENVIRONMENT, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{words} ended with {done.returncode}: {done.stderr}")
    return done.stdout


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", type=pathlib.Path, required=True)
    parser.add_argument("--tool", type=pathlib.Path, required=True)
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--max-off", type=float, default=1.5)
    parser.add_argument("--max-on", type=float, default=40)
    options = parser.parse_args()
    rounds, count = (5, 100_000) if options.brief else (31, 1_000_000)

    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder) / "log"
        ways = {
            "malloc": ["malloc", count],
            "framework": ["framework", count],
            "framework with its log": ["framework", count, f"--qor-memcheck={log}"],
        }
        times = {way: [] for way in ways}
        for _ in range(rounds):
            for way, words in ways.items():
                times[way].append(float(run(options.program, *words).split()[-1]))
        lines = log.read_bytes().count(b"\n")
        begin = time.perf_counter()
        report = run(options.tool, "--quiet", "memcheck", log)
        replay = time.perf_counter() - begin

    medians = {way: statistics.median(taken) for way, taken in times.items()}
    malloc, off, on = medians.values()
    for way, median in medians.items():
        print(f"{way:24} {median:7.1f} ns  {median / malloc:6.2f} times")
    print(f"replay of its {lines} lines  {replay:6.2f} s")
    is_clean = report.startswith("No leaks found\n")
    if not is_clean:
        print(report)
    is_fast = off <= options.max_off * malloc and on <= options.max_on * malloc
    return 0 if is_clean and (options.brief or is_fast) else 1


if __name__ == "__main__":
    sys.exit(main())
