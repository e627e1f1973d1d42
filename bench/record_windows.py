#!/usr/bin/env python3
"""What a recording costs a program of Windows: the time of an allocation with its release, 11 frames deep, without the
recorder and with it.

    record_windows.py --record PROGRAM --program TROUBLES [--runner PROGRAM] [--brief]

The runs take turns; the least time of each kind counts. No figure fails.
"""

import argparse
import statistics
import subprocess
import tempfile
from pathlib import Path

KINDS = {"bare": None, "depth 0": ("--depth", "0"), "stacks": (), "stopped": ("--start-stopped",)}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--record", type=lambda path: Path(path).resolve(), required=True)
    parser.add_argument("--program", type=lambda path: Path(path).resolve(), required=True)
    parser.add_argument("--runner")
    parser.add_argument("--brief", action="store_true")
    options = parser.parse_args()
    turns, rounds = (1, 20_000) if options.brief else (9, 300_000)
    runner = [options.runner] if options.runner else []
    times = {kind: [] for kind in KINDS}
    with tempfile.TemporaryDirectory() as folder:
        for _ in range(turns):
            for kind, words in KINDS.items():
                recorder = [] if words is None else [options.record, *words, "-o", "log", "--"]
                program = "Z:" + str(options.program).replace("/", "\\")
                command = [*runner, *recorder, program if recorder else options.program, "loop", str(rounds)]
                done = subprocess.run(command, cwd=folder, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                times[kind].append(float(done.stdout))
    bare = min(times["bare"])
    for kind, found in times.items():
        print(f"{kind:8} {min(found):8.0f} ns  {min(found) / bare:6.1f} times  (median {statistics.median(found):.0f} ns)")


if __name__ == "__main__":
    main()
