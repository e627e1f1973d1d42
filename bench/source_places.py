#!/usr/bin/env python3
"""Compares the search for functions, lines and inlined frames of 10,000 distinct addresses with one `addr2line -i`.

    source_places.py --places PROGRAM [--brief] [--limit RATIO] FILE...

Both are given the same addresses in a file and run in turn; the times are medians of the wall clock from the start of a
process to its end, and of processor time. The exit code is 1 if ours takes more than RATIO (1.2) times as long for a
file. A brief run never fails because of a figure.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[1] / "tests" / "qor-heap" / "symbols"))
import places  # noqa: E402


def run(command, questions):
    """(wall clock, processor time) in seconds."""
    with open(questions, "rb") as source:
        before, begin = os.times(), time.perf_counter()
        subprocess.run(command, stdin=source, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        wall, after = time.perf_counter() - begin, os.times()
    return wall, (after.children_user + after.children_system) - (before.children_user + before.children_system)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--limit", type=float, default=1.2)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--count", type=int, default=10_000)
    parser.add_argument("files", nargs="+")
    options = parser.parse_args()

    failed = False
    for path in options.files:
        begin, size = places.text_section(path)
        count = min(options.count, 500) if options.brief else options.count
        addresses = places.addresses_of(path, count)
        while len(addresses) < min(count, size):
            addresses = sorted({*addresses, *places.addresses_of(path, 2 * count)})[:count]
        with tempfile.TemporaryDirectory() as folder:
            ours, theirs = Path(folder, "ours"), Path(folder, "theirs")
            ours.write_text(f"M\t{path}\t\t\n" + "".join(f"A\t{address:x}\n" for address in addresses))
            theirs.write_text("".join(f"{address:#x}\n" for address in addresses))
            commands = ([options.places, "fetch=0"], ours), (["addr2line", "-afiC", "-e", path], theirs)
            rounds = [[run(*command) for command in commands] for _ in range(1 if options.brief else options.rounds)]
        medians = [[statistics.median(times[who][kind] for times in rounds) for who in (0, 1)] for kind in (0, 1)]
        (wall, peer), (processor, peer_processor) = medians
        failed |= wall / peer > options.limit
        print(f"{path}: {len(addresses)} addresses in {wall:.2f} s; addr2line -i: {peer:.2f} s; ratio {wall / peer:.2f} "
              f"(at most {options.limit}); in processor time {processor / peer_processor:.2f}")
    return 1 if failed and not options.brief else 0


if __name__ == "__main__":
    sys.exit(main())
