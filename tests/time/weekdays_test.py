#!/usr/bin/env python3
"""Every possible and impossible date, compared with Python's calendar. Years beyond that calendar are compared with
those 400 years earlier.

usage: weekdays_test.py --program PATH [--runner PROGRAM]
"""

import argparse
import calendar
import subprocess
import sys


def expected(year):
    line = ""
    for month in range(1, 13):
        first, days = calendar.monthrange(year, month)
        line += "".join(str((first + day) % 7) for day in range(days)) + "-" * (31 - days)
    return line


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--runner")
    options = parser.parse_args()
    command = [*filter(None, [options.runner]), options.program, "1", "65535"]
    lines = subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout.splitlines()
    assert len(lines) == 65535, len(lines)
    wrong = [year for year in range(1, 10000) if lines[year - 1] != expected(year)]
    # The Gregorian calendar repeats: 400 years have a whole number of weeks.
    wrong += [year for year in range(10000, 65536) if lines[year - 1] != lines[year - 1 - 400]]
    print(f"years 1 to 65535: {len(wrong)} differ {wrong[:20]}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
