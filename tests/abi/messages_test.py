#!/usr/bin/env python3
"""The numbers of errors and messages, and their inserts: programs, modules and translations of others refer to them. They
are compared with the recorded ones.

    messages_test.py --source FOLDER --expected FILE [--update]

A line that is new is an addition: look at it, then let --update record it. A line that has changed or is gone breaks
what docs/stability.md promises.
"""

import argparse
import re
import sys
from pathlib import Path

import recorded

ENTRY = re.compile(r'^QOR_(?:ERROR|MESSAGE)\((\d+), \w+, (?:\w+, )?(".*")\)$', re.M)


def describe(path):
    text = path.read_text()
    found = ENTRY.findall(text)
    assert len(found) == len(re.findall(r"^QOR_", text, re.M)), f"{path}: a line that this test cannot read"
    for number, message in found:
        inserts = sorted(set(map(int, re.findall(r"\{(\d+)\}", message))))
        yield f"{path.stem} {int(number):4}: {' '.join(map(str, inserts)) or 'no inserts'}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--expected", type=Path, required=True)
    parser.add_argument("--update", action="store_true")
    options = parser.parse_args()
    lists = [options.source / "qorcore/include/qor/system/errors.def",
             *sorted(options.source.glob("qorcore/messages/*.def"))]
    now = [line for path in lists for line in describe(path)]
    return recorded.compare(now, options.expected, options.update, 500)


if __name__ == "__main__":
    sys.exit(main())
