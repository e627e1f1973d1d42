#!/usr/bin/env python3
"""Compiles each header as C++17, which must fail, and checks that the first error states the cause. A header of macros
alone must do for any language: a description of resources may include it."""

import argparse
import re
import subprocess
import sys
from pathlib import Path


def first_error(compiler, include, header, language="c++", standard="c++17"):
    """Returns the first line of the compiler's error, or None if it accepts the header."""
    run = subprocess.run([compiler, f"-std={standard}", "-pedantic-errors", "-fmax-errors=1", "-fsyntax-only",
                          "-I", include, "-x", language, "-"],
                         text=True, input=f'#include "{header}"\nint no_empty_unit;\n', capture_output=True)
    if run.returncode == 0:
        return None
    return next((line for line in run.stderr.splitlines() if "error:" in line), run.stderr)


def has_macros_alone(path):
    return not re.search(r"^(?!#(?!include)|//|$)", path.read_text(), re.MULTILINE)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("headers", nargs="+")
    options = parser.parse_args()
    wrong, macros = 0, 0
    for header in options.headers:
        if has_macros_alone(Path(options.include, header)):
            macros += 1
            if error := first_error(options.compiler, options.include, header, "c", "c11"):
                print(f"{header}, as C: {error}")
                wrong += 1
            continue
        error = first_error(options.compiler, options.include, header)
        if error is None or "need C++20: compile with -std=c++20" not in error:
            print(f"{header}: {error or 'compiles as C++17'}")
            wrong += 1
    print(f"{len(options.headers)} headers, {macros} of macros alone; wrong: {wrong}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
