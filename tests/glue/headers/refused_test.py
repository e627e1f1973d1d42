#!/usr/bin/env python3
"""Compiles refused.cpp and compares the refused lines with those that the file marks."""

import argparse
import re
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parent / "refused.cpp"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    options = parser.parse_args()
    run = subprocess.run([options.compiler, "-std=c++20", "-Wall", "-Wextra", "-Werror", "-fsyntax-only",
                          "-fno-diagnostics-color", "-I", options.include, SOURCE], text=True, capture_output=True)
    errors = {}
    for line, text in re.findall(r"refused\.cpp:(\d+):\d+: error: (.*)", run.stderr):
        errors.setdefault(int(line), []).append(text)
    wrong = []
    for number, line in enumerate(SOURCE.read_text().splitlines(), 1):
        marked = re.search(r";? +// refused: (\w+)$", line)
        found = errors.pop(number, [])
        if marked and not any(marked[1] in text for text in found):
            wrong.append(f"{number}: {line.strip()}\n    {found or 'compiles'}")
        if not marked and found:
            wrong.append(f"{number}: {line.strip()}\n    {found}")
    print("\n".join(wrong) or "every marked line is refused, and no other")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
