#!/usr/bin/env python3
"""Runs the examples that the reference shows, and compares what they print with their first comment, or with the
system.

    examples_test.py --source FOLDER --bin FOLDER
"""

import argparse
import os
import pwd
import re
import socket
import subprocess
import sys
import unittest
from pathlib import Path

options = None

EXAMPLES = ("errors", "texts", "times", "turns", "values")


def output_of(name):
    """Returns the lines that an example prints."""
    done = subprocess.run([options.bin / name], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          check=True, env={**os.environ, "QOR_LANGUAGE": "en"}, timeout=300)
    return done.stdout.decode().splitlines()


class Examples(unittest.TestCase):
    def test_they_print_what_they_say(self):
        for name in EXAMPLES:
            with self.subTest(example=name):
                source = (options.source / f"examples/{name}/{name}.cpp").read_text()
                promised = re.search(r"It prints:\n//\n((?://     .*\n)+)", source).group(1)
                self.assertEqual(output_of(name), [line[7:] for line in promised.splitlines()])

    def test_the_host(self):
        found = output_of("host")
        self.assertEqual(found[0].removesuffix(", a super-user"), f"user: {pwd.getpwuid(os.geteuid()).pw_name}")
        self.assertEqual(found[0].endswith(", a super-user"), os.geteuid() == 0)
        self.assertEqual(found[1:3], [f"processors: {len(os.sched_getaffinity(0))}",
                                      f"page size: {os.sysconf('SC_PAGE_SIZE')}"])
        self.assertEqual(found[3:], [f"interface {number}: {name}" for number, name in sorted(socket.if_nameindex())])


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--bin", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
