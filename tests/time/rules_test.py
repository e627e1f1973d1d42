#!/usr/bin/env python3
"""Local times by 10,000 generated POSIX rules for TZ, compared with Python's zoneinfo and with the C library's
localtime and mktime.

The rules are odder than those of any real zone: offsets of up to a day in both directions, changes at any second of a
week around any day, two changes within hours of each other. A rule has two offsets, so a plain search is easy: the
second of a local time is the earlier of the two seconds at which one of the offsets is in effect. For a skipped time
the lower offset counts, which was in effect before.

Python and the C library differ if a change is within days of the end of a year, if a rule counts the days of the year
from 0, which Python counts from 1, and if it names J59, which Python takes for 29 February in leap years. There only
the C library counts, because the framework's local time is that of the system.

usage: rules_test.py --program PATH [--count N] [--seed N]
"""

import argparse
import calendar
import io
import os
import random
import re
import struct
import subprocess
import sys
import time
import zoneinfo
from datetime import datetime, timedelta, timezone

EPOCH = datetime(1970, 1, 1)
DAY = 86400
SHORTEST_PERIOD = 15 * 60


def clock_text(seconds, random_source):
    sign, size = ("-" if seconds < 0 else ""), abs(seconds)
    hours, minutes, rest = size // 3600, size // 60 % 60, size % 60
    if rest:
        return f"{sign}{hours}:{minutes:02}:{rest:02}"
    return f"{sign}{hours}:{minutes:02}" if minutes or random_source.random() < 0.2 else f"{sign}{hours}"


def some_offset(source):
    hours = source.choice([0, 0, 1, -1, 2, 5, -5, 12, -12, 23, -23, source.randint(-23, 23)])
    return hours * 3600 + source.choice([0, 0, 0, 1800, 2700, source.randrange(3600)])


def some_change(source, day, forms):
    """Returns a change within a week of this day of the year."""
    at = source.choice([7200, 0, 10800, 43200, source.randrange(DAY), source.randrange(-6 * DAY, 6 * DAY)])
    form = source.choice(forms)
    if form == "J":
        text = f"J{day + 1}"
    elif form == "n":
        text = f"{day}"
    else:
        month = (EPOCH + timedelta(days=day)).month
        text = f"M{month}.{source.randint(1, 5)}.{source.randint(0, 6)}"
    return text + ("" if at == 7200 and source.random() < 0.5 else "/" + clock_text(at, source))


def some_rule(source):
    """Returns (rule, its two offsets, the day of the year near which both of its changes are, or None)."""
    standard = some_offset(source)
    summer = standard + source.choice([3600, 3600, 1800, 7200, -3600, source.randint(-DAY // 2, DAY // 2)])
    if not -DAY < summer < DAY:
        summer = standard - 3600 if standard > 0 else standard + 3600
    first = source.randint(20, 345)
    is_brief = source.random() < 0.34
    second = min(345, first + source.randint(0, 3)) if is_brief else source.randint(20, 345)
    forms = source.choice(["Jn", "J"]) if is_brief else source.choice(["JnM", "JM"])
    rule = (f"AAA{clock_text(-standard, source)}BBB{clock_text(-summer, source)},"
            f"{some_change(source, first, forms)},{some_change(source, second, forms)}")
    return rule, {standard, summer}, first if is_brief else None


def zone_of(rule):
    """Builds a file of the zone database that has no change of its own, only the rule for all times."""
    header = b"TZif2" + bytes(15)
    empty = header + struct.pack(">6l", 0, 0, 0, 0, 1, 4) + struct.pack(">lbb", 0, 0, 0) + b"AAA\0"
    return zoneinfo.ZoneInfo.from_file(io.BytesIO(empty + empty + b"\n" + rule.encode() + b"\n"))


def system_offset(second):
    return time.localtime(second).tm_gmtoff


def changes_between(begin, end, step):
    """Returns the seconds at which the C library's local time changes its offset, if each offset lasts for at least
    `step`."""
    found, before = [], system_offset(begin)
    for second in range(begin, end, step):
        low, high = second, second + step
        after = system_offset(high)
        if after != before:
            while high - low > 1:
                middle = (low + high) // 2
                low, high = (middle, high) if system_offset(middle) == before else (low, middle)
            found.append(high)
            before = after
    return found


def changes_of_year(year, brief_day):
    begin, end = (calendar.timegm((each, 1, 1, 0, 0, 0)) for each in (year, year + 1))
    found = set(changes_between(begin, end, DAY // 4))
    if brief_day is not None:
        found.update(changes_between(begin + (brief_day - 8) * DAY, begin + (brief_day + 12) * DAY, SHORTEST_PERIOD))
    return sorted(found)


def near_new_year(second):
    day = (EPOCH + timedelta(seconds=second)).timetuple().tm_yday
    return day < 20 or day > 345


def local_text(second):
    return f"{EPOCH + timedelta(seconds=second):%Y %m %d %H %M %S}"


class Comparison:
    def __init__(self, source):
        self.source = source
        self.questions = []  # (question, answer, rule)
        self.beside_python = self.beside_mktime = self.skipped = self.twice = 0
        self.disagreements = []

    def ask(self, rule, question, answer):
        self.questions.append((question, answer, rule))

    def ask_utc(self, rule, zone, second):
        expected = system_offset(second)
        if zone is not None and not near_new_year(second):
            theirs = datetime.fromtimestamp(second, timezone.utc).astimezone(zone).utcoffset().total_seconds()
            self.beside_python += 1
            if theirs != expected:
                self.disagreements.append(f"{rule}: at {second} {expected} by the C library, {theirs} by Python")
        self.ask(rule, f"utc {second}", expected)

    def ask_local(self, rule, offsets, local):
        solutions = sorted(local - offset for offset in offsets if system_offset(local - offset) == offset)
        if len(solutions) == 1:
            fields = (EPOCH + timedelta(seconds=local)).timetuple()
            self.beside_mktime += 1
            theirs = int(time.mktime((*fields[:6], 0, 0, -1)))
            # A result of mktime counts only if it is consistent: for odd rules mktime sometimes fails.
            if theirs != solutions[0] and theirs + system_offset(theirs) == local:
                self.disagreements.append(f"{rule}: local {local} is {solutions[0]}, by mktime {theirs}")
        self.twice += len(solutions) > 1
        self.skipped += not solutions
        self.ask(rule, f"local {local_text(local)}", solutions[0] if solutions else local - min(offsets))

    def add(self, rule, offsets, brief_day):
        os.environ["TZ"] = rule
        time.tzset()
        year = self.source.randint(1975, 2090)
        self.ask(rule, f"zone {rule}", 0)
        changes = changes_of_year(year, brief_day)
        # If summer time ends when it begins, Python applies it all the year. Before 3.11.4, it reads hours of two digits only.
        zone = None if re.search(r",(\d|J59)|/-?\d{3}", rule) or not changes else zone_of(rule)
        for change in changes:
            for second in (change - 1, change):
                self.ask_utc(rule, zone, second)
            low, high = sorted((change + system_offset(change - 1), change + system_offset(change)))
            for local in {low - 1, low, (low + high) // 2, high - 1, high, low - 5 * 3600, high + 5 * 3600,
                          self.source.randint(low - 50 * 3600, high + 50 * 3600)}:
                self.ask_local(rule, offsets, local)
        begin = calendar.timegm((year, 1, 1, 0, 0, 0))
        for _ in range(3):
            self.ask_utc(rule, zone, begin + self.source.randrange(365 * DAY))
            self.ask_local(rule, offsets, begin + self.source.randrange(365 * DAY))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--count", type=int, default=10000 if "QOR_TEST_WHOLE" in os.environ else 2500)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    source = random.Random(options.seed)
    comparison = Comparison(source)
    comparison.add("AAA0BBB-1,J86/12,J87/12", {0, 3600}, 85)
    comparison.add("IST-1GMT0,M10.5.0,M3.5.0/1", {0, 3600}, None)
    for _ in range(options.count):
        comparison.add(*some_rule(source))
    text = "".join(question + "\n" for question, _, _ in comparison.questions)
    answers = subprocess.run([options.program], input=text, stdout=subprocess.PIPE, check=True, text=True).stdout.split()
    assert len(answers) == len(comparison.questions), (len(answers), len(comparison.questions))
    wrong = [f"{rule}: {question}: {answer} instead of {expected}"
             for (question, expected, rule), answer in zip(comparison.questions, answers) if int(answer) != expected]
    print(f"{options.count} rules, {len(answers)} questions ({comparison.skipped} of skipped times, {comparison.twice} of times "
          f"that come twice; {comparison.beside_python} also beside Python, {comparison.beside_mktime} beside mktime), "
          f"{len(wrong)} wrong answers, {len(comparison.disagreements)} of which the others disagree")
    print("\n".join([*wrong[:20], *comparison.disagreements[:20]]))
    return 1 if wrong or comparison.disagreements or not (comparison.skipped and comparison.twice) else 0


if __name__ == "__main__":
    sys.exit(main())
