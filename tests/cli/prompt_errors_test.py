#!/usr/bin/env python3
"""Standard error that is redirected gets each line at once: timer-check, which never ends by itself, into a file and
into a pipe. No test depends on the duration of a pass.

usage: prompt_errors_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import re
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

LINES = re.compile(rb"start=\d+ offset=\d+\r?\nval= *\d+\.\d{7}    delta=\d+\.\d{3}     diff=-?\d+\.\d{6}\r?\n")
TIMEOUT = 60  # seconds; a pass takes one


class PromptErrors(unittest.TestCase):
    def start(self, to):
        process = subprocess.Popen([*tool.command, "timer-check"], env=tool.environment(), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=to, bufsize=0)
        # A program that keeps its lines would keep the test waiting.
        limit = threading.Timer(TIMEOUT, process.kill)
        limit.start()
        self.addCleanup(limit.cancel)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def test_into_a_file(self):
        with tempfile.NamedTemporaryFile() as file:
            process = self.start(file)
            while not LINES.match(text := Path(file.name).read_bytes()):
                self.assertIsNone(process.poll(), text)
                time.sleep(0.05)

    def test_into_a_pipe(self):
        process = self.start(subprocess.PIPE)
        text = process.stderr.readline() + process.stderr.readline()
        process.stderr.close()
        self.assertTrue(LINES.fullmatch(text), text)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest])
