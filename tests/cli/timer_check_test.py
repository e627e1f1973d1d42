#!/usr/bin/env python3
"""timer-check, which never ends by itself: its lines, the drift when the clock is set, and its end.

The clock is set by libfaketime, which does not change the monotonic clock. No test depends on the duration of a pass.

usage: timer_check_test.py --tool PATH [--instrumented]
"""

import argparse
import glob
import os
import re
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

HEADING = b"Comparing the tick counter with the system time; press Ctrl-C to stop.\n"
START = re.compile(rb"start=(\d+) offset=(\d+)\n")
PASS = re.compile(rb"val=( *\d+)\.(\d{7})    delta=(\d+\.\d{3})     diff=(-?\d+\.\d{6})\n")

# Seconds that a busy machine may take between the readings of the two clocks.
SLACK = 1000


class TimerCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.clock = Path(folder.name) / "clock"

    def set_clock(self, offset):
        # The file is replaced atomically, because the other process may read it at any time.
        new = self.clock.with_suffix(".new")
        new.write_text(offset)
        new.rename(self.clock)

    def start(self, *words, fake=False):
        environment = tool.environment()
        if fake:
            environment.update(LD_PRELOAD=FAKETIME, FAKETIME_TIMESTAMP_FILE=str(self.clock), FAKETIME_NO_CACHE="1",
                               FAKETIME_DONT_FAKE_MONOTONIC="1")
            if options.instrumented:
                environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        process = subprocess.Popen([*tool.command, *words], env=environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.communicate()
        # libfaketime removes these files only at an orderly end.
        for name in ("faketime_shm_", "sem.faketime_sem_"):
            Path(f"/dev/shm/{name}{process.pid}").unlink(missing_ok=True)

    def line(self, process, form):
        """Returns the parts that `form` names of the next line of standard error, as soon as it is there."""
        text = process.stderr.readline()
        found = form.fullmatch(text)
        self.assertTrue(found, text)
        return found.groups()

    def test_lines_come_at_once_into_a_pipe_and_an_interrupt_ends_it(self):
        process = self.start("timer-check")
        start, offset = map(int, self.line(process, START))
        earlier = start
        for _ in range(2):
            seconds, fraction, delta, _ = self.line(process, PASS)
            tick = int(seconds) * 10_000_000 + int(fraction)
            self.assertEqual(len(seconds), max(5, len(str(int(seconds)))))
            self.assertGreaterEqual(tick - earlier, 10_000_000)  # a sleep is never shorter
            self.assertEqual(delta.decode(), f"{(tick - earlier) / 1e7:.3f}")
            earlier = tick
        # The system time is counted from 1601, so the sum is a time after 2020.
        self.assertGreater(start + offset, (2020 - 1601) * 365 * 86400 * 10_000_000)
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, -signal.SIGINT)
        self.assertTrue(out.endswith(HEADING), out)
        self.assertTrue(re.fullmatch(b"(?:" + PASS.pattern + b")*", err), err)

    def test_quiet_begins_with_the_start_line(self):
        process = self.start("--quiet", "timer-check")
        self.line(process, START)
        process.terminate()
        out, _ = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (-signal.SIGTERM, b""))

    def test_a_clock_that_is_set_shows_as_drift_while_passes_stay_as_long(self):
        self.set_clock("+0")
        process = self.start("timer-check", fake=True)
        self.line(process, START)
        days = 86400
        for clock, drift in (("-2d", 2 * days), ("+3d", -3 * days)):
            self.set_clock(clock)
            # The next pass ends the one in which the clock was read while it was being set.
            self.line(process, PASS)
            seconds, _, delta, diff = self.line(process, PASS)
            self.assertGreaterEqual(float(delta), 1)
            # The wall clock in terms of the tick counter is unsigned: before the counter's origin it is a huge number.
            wall = (int(seconds) - drift) * 10_000_000 % 2**64
            self.assertAlmostEqual(float(diff), int(seconds) - wall / 1e7, delta=SLACK)

    def test_a_clock_that_is_years_away_shows_no_drift(self):
        self.set_clock("+70y")
        process = self.start("timer-check", fake=True)
        self.line(process, START)
        _, _, _, diff = self.line(process, PASS)
        self.assertAlmostEqual(float(diff), 0, delta=SLACK)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    parser.add_argument("--instrumented", action="store_true")
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    found = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
    if not found:
        sys.exit("libfaketime is missing")
    FAKETIME = found[0]
    unittest.main(argv=[sys.argv[0], *rest])
