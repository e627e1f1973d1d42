#!/usr/bin/env python3
"""Compares the POSIX-only tests (TEST and TEST_F in *_test_posix.cpp) with the list left_out_on_windows, and prints
them with their reasons."""

import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent


def listed():
    """Returns {test: reason}."""
    tests, reason = {}, None
    for line in (HERE / "left_out_on_windows").read_text().splitlines():
        if line.startswith("== "):
            reason = line[3:]
        elif line and not line.startswith("#"):
            tests[line] = reason
    return tests


def in_sources():
    return {f"{suite}.{name}" for path in HERE.rglob("*_test_posix.cpp")
            for suite, name in re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", path.read_text(), re.MULTILINE)}


def main():
    tests, sources = listed(), in_sources()
    reason = None
    for test, why in tests.items():
        if why != reason:
            print(why)
            reason = why
        print(f"    {test}")
    wrong = [f"{test} is not in the list" for test in sorted(sources - tests.keys())]
    wrong += [f"{test} is in the list, but in no source" for test in sorted(tests.keys() - sources)]
    wrong += [f"{test} has no reason" for test, why in tests.items() if not why]
    print("\n".join([*wrong, f"{len(tests)} tests are left out on Windows"]))
    return 1 if wrong or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
