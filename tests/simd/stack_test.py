#!/usr/bin/env python3
"""Checks the machine code of the wide instruction sets: no vector of more than 16 bytes may be stored on the stack.

    stack_test.py --objdump PROGRAM OBJECT...

The compiler for Windows aligns the stack to 16 bytes only, but stores wider vectors there as if they were aligned.
"""

import argparse
import re
import subprocess
import sys

WIDE = re.compile(r"%[yz]mm\d")
ON_STACK = re.compile(r"\(%r[sb]p[,)]")


def main():
    parser = argparse.ArgumentParser(description="No wide vector on the stack.")
    parser.add_argument("--objdump", required=True)
    parser.add_argument("objects", nargs="+")
    options = parser.parse_args()
    looked_at = [path for path in options.objects if "/simd/avx" in path.replace("\\", "/")]
    if len(looked_at) != 2:
        print(f"two units are compiled for wide vectors, but here are {looked_at}")
        return 1
    failed = False
    for path in looked_at:
        command = [options.objdump, "-d", "--no-show-raw-insn", path]
        lines = subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout.splitlines()
        wide = [line for line in lines if WIDE.search(line)]
        bad = [line for line in wide if ON_STACK.search(line)]
        print(f"{path}: {len(wide)} instructions with wide vectors, {len(bad)} on the stack", *bad, sep="\n")
        failed |= bool(bad) or not wide
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
