#!/usr/bin/env python3
"""Compares actions that inspect the host, as whole processes, with system programs that report the same.

    inspection.py --tool PATH [--brief] [--limit RATIO]

The programs of a pair are started in turn; the times are medians of the wall clock from the start of a process to its
end. The exit code is 1 if an action takes more than RATIO (1.5) times as long as its peers. A brief run never fails
because of a figure.
"""

import argparse
import shutil
import statistics
import sys

from startup import milliseconds

# An action, and the programs that it is compared with, taken together.
PAIRS = [
    (["sysinfo"], [["uname", "-a"], ["free"]]),
    (["lookup", "localhost"], [["getent", "ahosts", "localhost"]]),
]


def find(words):
    return [shutil.which(words[0]) or sys.exit(f"there is no {words[0]} here"), *words[1:]]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--limit", type=float, default=1.5)
    options = parser.parse_args()

    failed = False
    for action, peers in PAIRS:
        ours = [options.tool, "--quiet", *action]
        theirs = [find(words) for words in peers]
        times = [], []
        for round_number in range((20 if options.brief else 400) + 1):
            taken = milliseconds(ours, 0), sum(milliseconds(words, 0) for words in theirs)
            if round_number > 0:  # the first round reads the files from the disk
                for all_of_one, one in zip(times, taken):
                    all_of_one.append(one)
        tool, peer = map(statistics.median, times)
        failed |= tool / peer > options.limit
        names = " and ".join(" ".join(words) for words in peers)
        print(f"{' '.join(action)}: {tool:.2f} ms; {names}: {peer:.2f} ms; "
              f"ratio {tool / peer:.2f} (at most {options.limit})")
    return 1 if failed and not options.brief else 0


if __name__ == "__main__":
    sys.exit(main())
