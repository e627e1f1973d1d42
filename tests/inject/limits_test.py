#!/usr/bin/env python3
"""Runs the tool with little memory and a small stack, as `ulimit` sets them: limits_test.py --tool QORTOOL"""

import argparse
import hashlib
import pathlib
import resource
import subprocess
import tempfile
import unittest

KIB = 1024


def limited(limit, size, *words):
    return subprocess.run([TOOL, "--quiet", *map(str, words)], capture_output=True, env={"LC_ALL": "C"}, timeout=300,
                          preexec_fn=lambda: resource.setrlimit(limit, (size, size)))


class Limits(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name, "file")

    def test_a_log_that_needs_more_memory_than_there_is(self):
        with open(self.file, "w") as log:
            for i in range(3_000_000):
                log.write(f"@ a:[0x{i % 5000 + 4096:x}] + 0x{0x10000000 + 64 * i:x} 0x20\n")
        run = limited(resource.RLIMIT_AS, 80_000 * KIB, "mtrace", self.file)
        self.assertEqual(run.returncode, 1)
        self.assertTrue(run.stderr.endswith(b"out of memory\n"), run.stderr[-200:])

    def test_a_digest_on_a_small_stack(self):
        data = bytes(range(256)) * 1000
        self.file.write_bytes(data)
        run = limited(resource.RLIMIT_STACK, 64 * KIB, "md5sum", self.file)
        self.assertEqual((run.returncode, run.stdout.decode().strip(), run.stderr),
                         (0, hashlib.md5(data).hexdigest().upper(), b""))


parser = argparse.ArgumentParser()
parser.add_argument("--tool", required=True)
options, rest = parser.parse_known_args()
TOOL = options.tool
unittest.main(argv=["limits_test.py", *rest])
