#!/usr/bin/env python3
"""Replays one generated heap log with qortool and with the C library's `mtrace` script, turn by turn.

    replay.py --tool PATH --generator PATH [--runner PROGRAM] [--lines N] [--live M] [--rounds R] [--seed S]
              [--brief] [--min-ratio X] [--max-bytes Y]

Prints the medians, how many times faster qortool is, its lines per second, its peak memory, and how
much of that beyond the fixed 16 MiB each block takes that was live at the peak. Fails when the two
name different numbers of leaks, and when a given limit is missed. --brief is one round over a log
that is too short for the figures to mean much: it shows that the bench still works.
"""

import argparse
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time

FIXED_BYTES = 16 * 1024 * 1024
BRIEF_LINES = 100_000


def measure(command, out):
    """(seconds, peak resident bytes) of one run whose standard output goes to a file."""
    with open(out, "wb") as stream, open(os.devnull, "r+b") as nowhere:
        start = time.perf_counter()
        process = subprocess.Popen(command, stdin=nowhere, stdout=stream, stderr=nowhere)
        _, status, usage = os.wait4(process.pid, 0)
        seconds = time.perf_counter() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    # The script ends with 1 when it has found leaks.
    if process.returncode not in (0, 1):
        sys.exit(f"{command[0]} ended with {process.returncode}")
    return seconds, usage.ru_maxrss * 1024


def count_lines(path, start):
    with open(path, "rb") as stream:
        return sum(line.startswith(start) for line in stream)


def main():
    parser = argparse.ArgumentParser(description="Replay speed of qortool beside the C library's mtrace script.")
    parser.add_argument("--tool", required=True, type=pathlib.Path)
    parser.add_argument("--generator", required=True, type=pathlib.Path, help="the built heap_log_generator")
    parser.add_argument("--runner", help="what starts these two, where they are another system's")
    parser.add_argument("--lines", type=int, help="lines of the log (default 5000000)")
    parser.add_argument("--live", type=int, help="live blocks it climbs to (default: a fifth of the lines)")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--brief", action="store_true", help=f"one round over {BRIEF_LINES} lines")
    parser.add_argument("--min-ratio", type=float, help="fail when qortool is not this many times faster")
    parser.add_argument("--max-bytes", type=float, help="fail when a live block takes more")
    options = parser.parse_args()
    lines = options.lines or (BRIEF_LINES if options.brief else 5_000_000)
    live = options.live or lines // 5
    rounds = 1 if options.brief else options.rounds
    start = [options.runner] if options.runner else []

    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        log, memcheck_log = folder / "log.mtrace", folder / "log.memcheck"
        numbers = ["--lines", str(lines), "--live", str(live), "--seed", str(options.seed)]
        made = subprocess.run(
            [*start, options.generator.resolve(), *numbers, "--memcheck", memcheck_log, log],
            check=True,
            capture_output=True,
            text=True,
        )
        peak_live = int(re.search(r"peak_live (\d+)", made.stdout).group(1))
        tool = [*start, options.tool.resolve(), "--quiet", "mtrace"]
        commands = {
            "qortool": [*tool, log],
            "joined": [*tool, log, memcheck_log],
            "script": ["mtrace", log],
        }
        # Turn by turn, so that whatever else the machine does falls on all alike.
        results = {who: [] for who in commands}
        for _ in range(rounds):
            for who, command in commands.items():
                results[who].append(measure(command, folder / who))
        leaks = {who: count_lines(folder / who, b"0x" if who == "script" else b"LEAK at ") for who in commands}

    seconds = {who: statistics.median(run[0] for run in runs) for who, runs in results.items()}
    peak = {who: max(run[1] for run in runs) for who, runs in results.items()}
    ratio = seconds["script"] / seconds["qortool"]
    per_block = max(0, peak["qortool"] - FIXED_BYTES) / peak_live
    print(f"{lines} lines, {peak_live} blocks live at the peak, {leaks['qortool']} leaks, {rounds} rounds")
    for who in commands:
        print(
            f"{who:8} {seconds[who]:8.3f} s {lines / seconds[who] / 1e6:8.2f} million lines/s"
            f" {peak[who] / 1048576:8.1f} MiB peak"
        )
    print(f"qortool is {ratio:.1f} times as fast as the script; {per_block:.1f} bytes per live block beyond 16 MiB")

    misses = []
    if len(set(leaks.values())) != 1:
        misses.append(f"the numbers of leaks differ: {leaks}")
    if options.min_ratio is not None and ratio < options.min_ratio:
        misses.append(f"less than {options.min_ratio} times as fast as the script")
    if options.max_bytes is not None and per_block > options.max_bytes:
        misses.append(f"more than {options.max_bytes} bytes per live block")
    for miss in misses:
        print(f"FAIL {miss}")
    return 1 if misses else 0


if __name__ == "__main__":
    sys.exit(main())
