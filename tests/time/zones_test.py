#!/usr/bin/env python3
"""Local times of all zones of this system's database, at every change of their offsets from 1970 to 2100, compared with
Python's zoneinfo, which reads the database itself. Local times that come once are also compared with the C library's
mktime.

For a local time that is skipped or comes twice, Python's fold=0 gives the result that the framework promises: the
offset before the change, or the first of the two times.

usage: zones_test.py --program PATH [--every N]: tests one zone of N (default 4; 1 with QOR_TEST_WHOLE)
"""

import argparse
import datetime
import hashlib
import os
import struct
import subprocess
import sys
import zoneinfo
from pathlib import Path
from time import mktime, tzset

DATABASE = Path("/usr/share/zoneinfo")
EPOCH = datetime.datetime(1970, 1, 1)
UTC = datetime.timezone.utc
SECOND = datetime.timedelta(seconds=1)
BEGIN, END = (int((datetime.datetime(year, 1, 1) - EPOCH).total_seconds()) for year in (1970, 2101))
STEP = 5 * 86400


def offset(zone, second):
    """Returns the seconds ahead of UTC, at a second of 1970."""
    return int((EPOCH + second * SECOND).replace(tzinfo=UTC).astimezone(zone).utcoffset().total_seconds())


def table(data):
    """Returns the changes that a zone's file lists: the second block has 64-bit times."""
    at = 0
    for size in (4, 8):
        counts = struct.unpack_from(">6l", data, at + 20)
        utc_or_local, standard, leaps, times, types, characters = counts
        at += 44
        if size == 8:
            return set(struct.unpack_from(f">{times}q", data, at))
        at += times * 5 + types * 6 + characters + leaps * 8 + standard + utc_or_local


def changes(zone, data):
    """Returns the changes in the file and those that its last rule makes, found by bisection."""
    found = {second for second in table(data) if BEGIN <= second < END}
    before = offset(zone, BEGIN)
    for second in range(BEGIN, END, STEP):
        after = offset(zone, second + STEP)
        if after != before:
            low, high = second, second + STEP
            while high - low > 1:
                middle = (low + high) // 2
                low, high = (middle, high) if offset(zone, middle) == before else (low, middle)
            found.add(high)
        before = after
    return sorted(found)


def check_mktime(name, time, second):
    """Checks that a local time that comes once is the same second for the C library."""
    theirs = int(mktime((*time.timetuple()[:6], 0, 0, -1)))
    assert theirs == second, (name, time, second, theirs)


def questions(name, zone, data):
    """Returns [(question, answer)]."""
    os.environ["TZ"] = name
    tzset()
    asked = []
    local = set()
    for change in changes(zone, data):
        for second in (change - 1, change):
            asked.append((f"utc {second}", offset(zone, second)))
        one, other = sorted([change + offset(zone, change - 1), change + offset(zone, change)])
        local.update([one - 1, one, (one + other) // 2, other - 1, other, one - 86400, other + 86400])
    for second in sorted(local):
        time = EPOCH + second * SECOND
        ahead = int(time.replace(tzinfo=zone, fold=0).utcoffset().total_seconds())
        asked.append((f"local {time:%Y %m %d %H %M %S}", second - ahead))
        if int(time.replace(tzinfo=zone, fold=1).utcoffset().total_seconds()) == ahead:
            check_mktime(name, time, second - ahead)
    return asked


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--every", type=int, default=1 if "QOR_TEST_WHOLE" in os.environ else 4)
    options = parser.parse_args()
    zones = sorted(zoneinfo.available_timezones())
    assert len(zones) > 400, "this is no whole database of time zones"
    zones = zones[::options.every]
    asked, known = [], {}
    for name in zones:
        data = (DATABASE / name).read_bytes()
        key = hashlib.sha256(data).digest()
        # A zone may have several names; its changes are tested for one of them.
        if key not in known:
            known[key] = name
            asked += [(f"zone {name}", 0), *questions(name, zoneinfo.ZoneInfo(name), data)]
        else:
            asked.append((f"zone {name}", 0))
    text = "".join(question + "\n" for question, _ in asked)
    answers = subprocess.run([options.program], input=text, stdout=subprocess.PIPE, check=True, text=True).stdout.split()
    assert len(answers) == len(asked), (len(answers), len(asked))
    wrong, zone = [], ""
    for (question, expected), answer in zip(asked, answers):
        if question.startswith("zone"):
            zone = question
        if int(answer) != expected:
            wrong.append(f"{zone}: {question}: {answer} instead of {expected}")
    print(f"{len(zones)} zones, {len(known)} different ones, {len(asked)} questions, {len(wrong)} wrong answers")
    print("\n".join(wrong[:20]))
    return 1 if wrong or len(asked) < 100_000 // options.every else 0


if __name__ == "__main__":
    sys.exit(main())
