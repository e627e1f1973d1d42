#!/usr/bin/env python3
"""Compares a client that is linked with another C run-time than libqor with one that has the same, byte by byte, and
with what Python expects.

    other_run_time_test_windows.py --same PATH --other PATH --objdump PROGRAM --runner PROGRAM
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

LIMIT = 120  # seconds, against hanging
options = None


def libraries(program):
    """Returns the names of the libraries that a program imports, in small letters."""
    text = subprocess.run([options.objdump, "-p", program], capture_output=True, text=True, check=True).stdout
    return {name.lower() for name in re.findall(r"DLL Name: (\S+)", text)}


class OtherRunTime(unittest.TestCase):
    def run_client(self, program, *words, stdin=b"", together=False):
        environment = {name: value for name, value in os.environ.items() if not name.startswith(("QOR_", "LC_", "LANG"))}
        done = subprocess.run([options.runner, program, *words], input=stdin, env=environment, timeout=LIMIT,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT if together else subprocess.PIPE)
        return done.returncode, done.stdout, done.stderr

    def both(self, *words, **more):
        """Runs both clients; their results must be the same. Returns the result."""
        same = self.run_client(options.same, *words, **more)
        self.assertEqual(self.run_client(options.other, *words, **more), same)
        return same

    def test_the_run_times_are_different(self):
        self.assertIn("msvcrt.dll", libraries(options.same))
        self.assertNotIn("msvcrt.dll", libraries(options.other))
        self.assertTrue(any(name.startswith("api-ms-win-crt-") for name in libraries(options.other)))

    def test_lines_are_read(self):
        for text in (b"", b"\n", b"one", b"one\n", b"one\r\ntwo\r\n\r\nfour", b"\n\n", "J\u00fcrgen\n".encode(),
                     b"x" * 511 + b"\n", b"x" * 512 + b"\n" + b"y" * 513, b"z" * 100_000 + b"\nend\n",
                     b"".join(b"%d\n" % i for i in range(3000))):
            with self.subTest(text[:20], length=len(text)):
                lines = [line.rstrip(b"\r") for line in text.split(b"\n")]
                if lines[-1] == b"":
                    lines.pop()
                expected = b"".join(b"%d %s\r\n" % (len(line), line) for line in lines)
                self.assertEqual(self.both("echo", stdin=text), (0, expected, b""))

    def test_everything_is_printed(self):
        code, out, error = self.both("print")
        self.assertEqual((code, error), (0, b""))
        begin = b"text with a NUL\0and more"
        self.assertTrue(out.startswith(begin + b"\r\n" + begin + b"\r\nformatted -1 1099511627776 0.500\r\n"), out)
        self.assertIn(b"\r\nno catalog:7 insert\r\n", out)
        self.assertEqual(out.count(b"somebody"), 3)
        for option in (b"--qor-debug", b"--qor-memcheck"):
            self.assertIn(option, out)
        self.assertEqual(out.count(b"\n"), out.count(b"\r\n"))

    def test_both_streams_stay_in_order(self):
        expected = b"".join(b"%d out\r\n%d error\r\nbetween\r\nno catalog:1\r\n" % (i, i) for i in range(100))
        self.assertEqual(self.both("order", together=True), (0, expected, None))

    def test_failures_have_a_reason(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            path = "Z:" + str(Path(folder) / "file").replace("/", "\\")
            code, out, error = self.both("fail", path)
        self.assertEqual((code, error), (0, b""))
        lines = out.decode().splitlines()
        self.assertEqual(lines[0], "read: 0")
        self.assertEqual(lines[2], "write: 0 0 -1")
        for line in (lines[1], lines[3]):
            self.assertIn("stream", line)
            self.assertNotIn("error 0", line)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("same", "other", "objdump", "runner"):
        parser.add_argument("--" + name, required=True)
    options = parser.parse_args()
    unittest.main(argv=sys.argv[:1], verbosity=2)
