#!/usr/bin/env python3
"""Runs the kept client, and in it the kept module, with today's libqor. Both were built once, from the tree in which
the promise of docs/stability.md begins.

    base_test.py --bin FOLDER      with libqor.so and its folder
"""

import argparse
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
BASES = sorted(path for path in HERE.iterdir() if (path / "client").exists())

options = None


class Base(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        self.modules = self.folder / "modules"
        self.modules.mkdir()

    def run_base(self, base):
        for name in ("qor", "libqor.so"):
            (self.folder / name).unlink(missing_ok=True)
            (self.folder / name).symlink_to(options.bin / name)
        shutil.copy(base / "base-gauge.so", self.modules)
        client = shutil.copy(base / "client", self.folder)
        done = subprocess.run([client, self.modules, self.folder], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, env={"LC_ALL": "C"}, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def test_every_base(self):
        self.assertTrue(BASES)
        for base in BASES:
            with self.subTest(base.name):
                self.assertEqual(self.run_base(base), (0, (base / "expected").read_text(), ""))

    def test_another_library_is_refused(self):
        """So the test above says something: a base does not run without the rows that it knows."""
        for base in BASES:
            with self.subTest(base.name):
                client = shutil.copy(base / "client", self.folder)
                shutil.copy(options.bin / "table_without_length.so", self.folder / "libqor.so")
                done = subprocess.run([client], stdin=subprocess.DEVNULL, capture_output=True, env={}, timeout=60)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (100, b"", b""))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    options, rest = parser.parse_known_args()
    options.bin = options.bin.resolve()
    unittest.main(argv=[sys.argv[0], "-v", *rest])
