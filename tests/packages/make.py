#!/usr/bin/env python3
"""Makes the packages for Windows for the other tests.

    make.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM
"""

import shutil
import sys
import unittest

import packed


class Make(unittest.TestCase):
    def test_the_packages_are_made(self):
        shutil.rmtree(packed.options.packages, ignore_errors=True)
        done = packed.pack(packed.options.packages)
        self.assertEqual(done.returncode, 0, done.stdout)
        made = [str(packed.package(kind)) for kind in (".zip", "-debug.zip", "-setup.exe")]
        self.assertEqual(done.stdout.splitlines(), made)
        self.assertEqual(sorted(map(str, packed.options.packages.iterdir())), sorted(made))


if __name__ == "__main__":
    sys.exit(packed.main())
