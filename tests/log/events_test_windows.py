#!/usr/bin/env python3
"""Logs to the event log of Windows. Wine keeps no events, but tells the calls that it gets.

usage: events_test_windows.py --driver PROGRAM --runner PROGRAM
"""

import argparse
import os
import re
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import encode  # noqa: E402  # in tests/support

options = None

# Wine cuts long texts off.
TEXT = re.compile(r':eventlog:ReportEventW L"(.*)"(?:\.\.\.)?$', re.M)
# The handle, the kind, the category and the number of the event.
HEAD = re.compile(r":advapi:ReportEventW \(\w+,0x(\w+),0x(\w+),0x(\w+),")


def told(*operations):
    """Applies operations of the driver; returns what Wine tells about its calls.

    The place of the source is a short one, so that Wine shows the details of an event whole.
    """
    operations = (("place", "a.cpp"), *operations)
    lines = "".join(" ".join(map(encode, words)) + "\n" for words in operations)
    done = subprocess.run([options.runner, options.driver], input=lines.encode(), capture_output=True, timeout=60,
                          check=True, env={**os.environ, "WINEDEBUG": "-all,+eventlog,fixme+advapi"})
    assert done.stdout.split() == [b"ok"] * len(operations), done.stdout
    return done.stderr.decode().replace("\r\n", "\n")


class Events(unittest.TestCase):
    def test_levels_are_kinds_of_events(self):
        calls = told(*(("text", str(level), f"text {level}") for level in range(7)), ("flush", "10000"))
        self.assertIn('RegisterEventSourceW ((null),L"log-driver")', calls)
        error, warning, information = ("0001", "0000", "c0000001"), ("0002", "0000", "80000002"), ("0004", "0000", "40000003")
        self.assertEqual(HEAD.findall(calls), [error] * 4 + [warning] + [information] * 2)
        self.assertEqual(TEXT.findall(calls)[::2], [f"text {level}" for level in range(7)])

    def test_details_follow_the_text(self):
        calls = told(("entry", "3", "two\nlines \u00e4\u20ac", "DISK", 'a "b"'), ("flush", "10000"))
        text, details = TEXT.findall(calls)
        self.assertEqual(text, r"two\r\nlines \00e4\20ac")
        names = re.findall(r'(?:^| )([A-Z_]+)=', details)
        self.assertEqual(names, ["LEVEL", "PROCESS", "THREAD", "TIME", "CODE_FILE", "CODE_LINE", "CODE_FUNC", "DISK"])
        self.assertTrue(details.endswith(r'DISK=\"a \\\"b\\\"\"'), details)
        self.assertIn(r"LEVEL=\"error\"", details)
        self.assertRegex(details, r'TIME=\\"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z\\"')

    def test_a_message_has_its_number_and_inserts(self):
        text, details = TEXT.findall(told(("message", "4", "qorcore", "10", "C:", "no right"), ("flush", "10000")))
        self.assertEqual(text, "Cannot open 'C:': no right.")
        self.assertTrue(details.endswith(r'QOR_MESSAGE=\"qorcore:10\" QOR_INSERT_1=\"C:\" QOR_INSERT_2=\"no right\"'),
                        details)

    def test_the_end_of_the_process_waits_for_the_log(self):
        self.assertEqual(TEXT.findall(told(("many", "100", "entry ")))[::2], [f"entry {i}" for i in range(100)])


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
