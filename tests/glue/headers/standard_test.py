#!/usr/bin/env python3
"""Compiles each header as C++17, which must fail, and checks that the first error states the cause."""

import argparse
import subprocess
import sys


def first_error(compiler, include, header):
    """Returns the first line of the compiler's error, or None if it accepts the header."""
    run = subprocess.run([compiler, "-std=c++17", "-fmax-errors=1", "-fsyntax-only", "-I", include, "-x", "c++", "-"],
                         text=True, input=f'#include "{header}"\n', capture_output=True)
    if run.returncode == 0:
        return None
    return next((line for line in run.stderr.splitlines() if "error:" in line), run.stderr)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("headers", nargs="+")
    options = parser.parse_args()
    wrong = 0
    for header in options.headers:
        error = first_error(options.compiler, options.include, header)
        if error is None or "need C++20: compile with -std=c++20" not in error:
            print(f"{header}: {error or 'compiles as C++17'}")
            wrong += 1
    print(f"{len(options.headers)} headers, {wrong} without a clear error")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
