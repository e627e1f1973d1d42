#!/usr/bin/env python3
"""Makes the packages for Linux for the other tests: with QOR_TEST_WHOLE as they ship, otherwise from this build, whose
options for the compiler are others."""

import shutil
import sys
import unittest

import linux


class Make(unittest.TestCase):
    def test_the_packages_are_made(self):
        shutil.rmtree(linux.options.packages, ignore_errors=True)
        work = linux.options.build / "debian-packages"
        if linux.WHOLE:
            # The folder of ./package, where objects are kept.
            done = linux.pack("debian", "--work", linux.options.build.parent / "debian", "--out",
                              linux.options.packages)
        else:
            done = linux.pack_debian(work, linux.options.packages)
        self.assertEqual(done.returncode, 0, done.stdout)
        made = done.stdout.splitlines()
        done = linux.pack_tar(linux.options.packages)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertEqual(done.stdout.splitlines(), [str(linux.tar())])
        self.assertEqual(sorted(map(str, linux.options.packages.iterdir())), sorted([*made, str(linux.tar())]))


if __name__ == "__main__":
    sys.exit(linux.main())
