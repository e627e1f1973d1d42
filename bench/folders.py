#!/usr/bin/env python3
"""Compares the contents of a large folder, read by the framework, with `find -printf`.

    folders.py --program PATH [--entries N] [--rounds N] [--folder FOLDER] [--brief] [--limit RATIO]

Both list the same folder of files, with kind, size and time of each name. They run in turn, with the folder in the
system's cache; the times are medians of the wall clock from the start of the process to its end. The exit code is 1 if
the lists differ or the ratio is above its limit (1.2). --brief is too short for a meaningful ratio, and never fails
because of it.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

from startup import ENVIRONMENT, milliseconds


def lines(words):
    run = subprocess.run(words, env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, check=True)
    return sorted(run.stdout.splitlines())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--entries", type=int)
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--folder", help="where the files are created")
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--limit", type=float, default=1.2)
    options = parser.parse_args()
    entries = options.entries or (5_000 if options.brief else 1_000_000)
    rounds = options.rounds or (3 if options.brief else 7)
    with tempfile.TemporaryDirectory(prefix="qor.", dir=options.folder) as folder:
        for i in range(entries):
            os.close(os.open(f"{folder}/entry {i}", os.O_WRONLY | os.O_CREAT))
        ours = [options.program, folder]
        # %T@ has a fraction, which the program does not print; %Ts has none.
        theirs = [shutil.which("find"), folder, "-mindepth", "1", "-maxdepth", "1", "-printf", r"%y %s %Ts %f\n"]
        if lines(ours) != lines(theirs):
            sys.exit("the lists differ")
        times = {"qorGetFolderContents": [], "find -printf": []}
        for _ in range(rounds):
            times["qorGetFolderContents"].append(milliseconds(ours, 0))
            times["find -printf"].append(milliseconds(theirs, 0))
    medians = {name: statistics.median(taken) for name, taken in times.items()}
    print(f"a folder of {entries} files")
    for name, median in medians.items():
        print(f"  {name:24} {median:9.1f} ms")
    ratio = medians["qorGetFolderContents"] / medians["find -printf"]
    allowed = "too short to say anything" if options.brief else f"at most {options.limit}"
    print(f"  {'to find':24} {ratio:9.3f} ({allowed})")
    if not options.brief and ratio > options.limit:
        sys.exit(1)


if __name__ == "__main__":
    main()
