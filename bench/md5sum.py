#!/usr/bin/env python3
"""Compares `qortool --quiet md5sum` with coreutils `md5sum` and `openssl dgst -md5`, on a large file and on a tiny one.

    md5sum.py --tool PATH [--size MIB] [--rounds N] [--brief] [--limit RATIO] [--start-limit RATIO]

They run in turn on the same file, which is in the system's cache; the times are medians of the wall clock from the
start of the process to its end. The large file's ratio is to the faster of the two others, the tiny file's to
coreutils. The exit code is 1 if a digest is wrong or a ratio is above its limit (1.0 and 1.5). --brief is too short for
meaningful ratios, and never fails because of them.
"""

import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

from startup import ENVIRONMENT, milliseconds


def digest_of(words):
    run = subprocess.run(words, env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)
    return max(run.stdout.replace("=", " ").split(), key=lambda word: len(word) if word.isalnum() else 0).upper()


def medians(programs, path, rounds):
    """Returns the median time of each program in milliseconds; ends the bench if the digests differ."""
    digests = {name: digest_of([*words, path]) for name, words in programs.items()}
    if len(set(digests.values())) != 1:
        sys.exit(f"the digests differ: {digests}")
    times = {name: [] for name in programs}
    order, shuffled = list(programs.items()), random.Random(1)
    for _ in range(rounds):
        # A start is slower after a program that has filled the caches, so the order varies.
        shuffled.shuffle(order)
        for name, words in order:
            times[name].append(milliseconds([*words, path], 0))
    return {name: statistics.median(taken) for name, taken in times.items()}


def report(title, times, peer, limit):
    """Prints the times, and whether the tool keeps within `limit` times the peer's time."""
    print(title)
    for name, median in times.items():
        print(f"  {name:24} {median:9.2f} ms")
    ratio = times["qortool --quiet md5sum"] / times[peer]
    allowed = f"at most {limit}" if limit else "too short to say anything"
    print(f"  {'to ' + peer:24} {ratio:9.3f} ({allowed})")
    return not limit or ratio <= limit


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--size", type=int, metavar="MIB")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--limit", type=float, default=1.0)
    parser.add_argument("--start-limit", type=float, default=1.5)
    options = parser.parse_args()
    size = options.size or (16 if options.brief else 1024)
    rounds = options.rounds or (3 if options.brief else 15)
    programs = {"qortool --quiet md5sum": [options.tool, "--quiet", "md5sum"]}
    for name, words in {"md5sum": ["md5sum"], "openssl dgst -md5": ["openssl", "dgst", "-md5"]}.items():
        path = shutil.which(words[0])
        if path:
            programs[name] = [path, *words[1:]]
        elif words[0] == "md5sum":
            sys.exit("there is no md5sum here")
        else:
            print(f"there is no {words[0]} here")

    with tempfile.TemporaryDirectory() as folder:
        large, tiny = Path(folder, "large"), Path(folder, "tiny")
        block = random.Random(1).randbytes(1 << 20)
        with large.open("wb") as file:
            for i in range(size):
                file.write(i.to_bytes(8, "little") + block[8:])
        tiny.write_bytes(b"tiny\n")
        times = medians(programs, str(large), rounds)
        faster = min(list(times)[1:], key=times.get)
        good = report(f"{size} MiB, {rounds} rounds", times, faster, None if options.brief else options.limit)
        rounds = 20 if options.brief else 400
        good &= report(f"5 bytes, {rounds} rounds", medians(programs, str(tiny), rounds), "md5sum",
                       None if options.brief else options.start_limit)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
