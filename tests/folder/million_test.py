#!/usr/bin/env python3
"""A folder with many names, of all bytes: listed beside Python's os.scandir, and deleted. Linux only.

    million_test.py --driver PROGRAM [--few]

There are 50,000 names, and 1 million with QOR_TEST_WHOLE and without --few.
"""

import argparse
import os
import random
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import KINDS, Driver, decode, failed  # noqa: E402  # in tests/support

options = None
count = 50_000


def quick_folder():
    """A file system in memory, if there is one with room: on a disk, a million names take minutes."""
    memory = "/dev/shm"
    if not os.access(memory, os.W_OK):
        return None
    room = os.statvfs(memory)
    return memory if room.f_favail > 2 * count and room.f_bavail * room.f_frsize > 4096 * count else None


class Million(unittest.TestCase):
    def test_a_folder_with_a_million_entries(self):
        some = random.Random(20)
        letters = bytes(set(range(1, 256)) - set(b"/"))
        with tempfile.TemporaryDirectory(prefix="qor.", dir=quick_folder()) as above, Driver([options.driver]) as driver:
            folder = Path(above) / "folder"
            folder.mkdir()
            place = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
            for i in range(count):
                # Some names are no UTF-8, some are long.
                name = b"%d" % i + bytes(some.choices(letters, k=some.choice((0, 0, 3, 20))))
                if i % 100 == 0:
                    os.mkdir(name, dir_fd=place)
                elif i % 101 == 0:
                    os.symlink(b"nowhere", name, dir_fd=place)
                else:
                    file = os.open(name, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600, dir_fd=place)
                    if i % 7 == 0:
                        os.write(file, b"x" * (i % 50))
                    os.close(file)
            os.close(place)

            expected = {}
            for each in os.scandir(os.fsencode(folder)):
                about = each.stat(follow_symlinks=False)
                kind = "link" if each.is_symlink() else "folder" if each.is_dir() else "file"
                size = 0 if kind == "folder" else about.st_size
                expected[each.name] = kind, size, about.st_mtime_ns // 100 * 100
            self.assertEqual(len(expected), count)
            answer = driver.ask("list", folder)
            self.assertFalse(failed(answer), answer)
            self.assertEqual(len(answer), count)
            for word in answer:
                name, kind, size, modified = word.split(",")
                found = KINDS[int(kind)], int(size), int(modified)
                if expected.pop(decode(name)) != found:
                    self.fail(f"{decode(name)}: {found}")
            self.assertEqual(expected, {})

            answer = driver.ask("delete-tree", folder)
            self.assertFalse(failed(answer), answer)
            self.assertEqual(os.listdir(above), [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--few", action="store_true")
    options, rest = parser.parse_known_args()
    if "QOR_TEST_WHOLE" in os.environ and not options.few:
        count = 1_000_000
    unittest.main(argv=[__file__, *rest])
