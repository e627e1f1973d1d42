#!/usr/bin/env python3
"""What a replaced file and a copy keep: rights, owners, access control lists, attributes and holes. Linux only.

usage: kept_test.py --driver PROGRAM

The oracles are getfacl, getfattr and the system's own map of the holes (lseek).
"""

import argparse
import errno
import os
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from file_driver import *  # noqa: E402,F403  # in tests/support
from name_space import name_space  # noqa: E402

options = None

KIB = 1024
BLOCK = 256 * KIB  # what a source reads ahead


def done(*words):
    """Returns the output of a program; bytes that are no UTF-8 become surrogates."""
    return os.fsdecode(subprocess.run(list(map(str, words)), capture_output=True, check=True).stdout)


def access_list(path):
    return done("getfacl", "--omit-header", "--absolute-names", "--numeric", path)


def attributes(path):
    return done("getfattr", "--dump", "--absolute-names", "--match=^user", path)


def data_runs(path):
    """Returns where the file has bytes: a list of beginnings and ends."""
    runs, end = [], 0
    with open(path, "rb") as file:
        while True:
            try:
                begin = os.lseek(file.fileno(), end, os.SEEK_DATA)
            except OSError as error:
                assert error.errno == errno.ENXIO
                return runs
            end = os.lseek(file.fileno(), begin, os.SEEK_HOLE)
            runs.append((begin, end))


def places():
    """Returns folders on different file systems."""
    found = {}
    for path in (tempfile.gettempdir(), "/dev/shm", "/var/tmp"):
        if os.access(path, os.W_OK):
            found.setdefault(os.stat(path).st_dev, path)
    return list(found.values())


class Kept(unittest.TestCase):
    def setUp(self):
        self.folder = self.folder_in(tempfile.gettempdir())
        self.file = self.folder / "file"
        self.driver = Driver([options.driver])
        self.addCleanup(self.driver.__exit__)

    def folder_in(self, place):
        folder = tempfile.TemporaryDirectory(prefix="qor.", dir=place)
        self.addCleanup(folder.cleanup)
        return Path(folder.name)

    def replace(self, text=b"new", driver=None):
        """Replaces the file in both ways, one after the other, and yields after each."""
        for words in ("replace", self.file, text, 0), ("put", self.file, REPLACE, text, 2, 1):
            (driver or self.driver).run(*words)
            self.assertEqual(self.file.read_bytes(), text)
            yield

    # ---- what belongs to a file beside its content

    def test_an_access_control_list(self):
        for entries in ("u:1:r", "u:1:rw,g:2:r,m::r", "g::-,u:3:-,g:4:rwx,o::-"):
            self.file.write_bytes(b"old")
            self.file.chmod(0o660)
            done("setfacl", "-m", entries, self.file)
            before = access_list(self.file)
            self.assertIn(":1:" if "u:1" in entries else ":3:", before)
            for _ in self.replace():
                self.assertEqual(access_list(self.file), before)
            self.file.unlink()

    def test_the_list_that_a_folder_gives_to_new_files_does_not_open_an_old_one(self):
        self.file.write_bytes(b"old")
        self.file.chmod(0o660)
        before = access_list(self.file)
        done("setfacl", "-d", "-m", "u:1:rw", self.folder)
        for _ in self.replace():
            self.assertEqual(access_list(self.file), before)
        # But a new file gets it, and a private one lets nobody else in.
        self.file.unlink()
        for _ in self.replace():
            self.assertIn("user:1:rw", access_list(self.file))
        self.driver.run("replace", self.file, b"private", 1)
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)
        self.assertNotRegex(access_list(self.file), r"(?m)^user:1:rw-$")

    def test_attributes(self):
        for place in places():
            self.file = self.folder_in(place) / "file"
            self.file.write_bytes(b"old")
            try:
                os.setxattr(self.file, "user.comment", bytes(range(256)))
            except OSError as error:
                self.assertEqual(error.errno, errno.ENOTSUP)
                continue
            os.setxattr(self.file, "user.empty", b"")
            os.setxattr(self.file, b"user.no utf-8 \xff", b"value")
            before = attributes(self.file)
            self.assertEqual(before.count("user."), 3)
            for _ in self.replace():
                self.assertEqual(attributes(self.file), before)
            # A private file is a new one.
            self.driver.run("replace", self.file, b"private", 1)
            self.assertEqual(attributes(self.file), "")

    @unittest.skipUnless(os.geteuid() == 0, "needs a super-user")
    def test_owner_group_and_rights_to_run_as_the_owner(self):
        self.file.write_bytes(b"old")
        os.chown(self.file, 1, 2)
        for rights in (0o4755, 0o2775, 0o644):
            self.file.chmod(rights)
            for _ in self.replace():
                about = self.file.stat()
                self.assertEqual((about.st_uid, about.st_gid, stat.S_IMODE(about.st_mode)), (1, 2, rights))
        # What vouches for a content does not pass over to another one.
        self.file.chmod(0o755)
        try:
            os.setxattr(self.file, "security.capability", bytes.fromhex("01000002" "00040000" "000000000000000000000000"))
        except OSError:
            return
        for _ in self.replace():
            self.assertNotIn("security.capability", os.listxattr(self.file))

    @unittest.skipUnless(os.geteuid() == 0, "needs a super-user")
    def test_who_may_not_give_a_file_away_becomes_its_owner_and_gives_no_rights_of_the_old_one(self):
        self.file.write_bytes(b"old")
        os.chown(self.file, 1, 2)
        self.file.chmod(0o6755)
        done("setfacl", "-m", "u:5:rw", self.file)
        before = access_list(self.file)
        self.folder.chmod(0o777)
        drops = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        programs = self.folder_in("/tmp")
        programs.chmod(0o755)
        for name in (Path(options.driver).name, "libqor.so"):
            done("cp", Path(options.driver).parent / name, programs)
        with Driver([*drops, programs / Path(options.driver).name]) as driver:
            for _ in self.replace(driver=driver):
                about = self.file.stat()
                self.assertEqual((about.st_uid, about.st_gid), (65534, 65534))
                self.assertEqual(about.st_mode & 0o6000, 0)
                self.assertEqual(access_list(self.file), before)

    def test_a_file_system_without_lists_and_attributes(self):
        before = name_space()
        if before is None:
            self.skipTest("this process may not mount file systems")
        command = f"mount -t ramfs ramfs {self.folder} && exec {options.driver}"
        with Driver([*before, "sh", "-c", command]) as driver:
            for text in (b"first", b"second"):
                driver.run("replace", self.file, text, 0)
                self.assertEqual(driver.bytes("get", self.file, 0), text)

    # ---- holes

    def copy(self, source, target, mode=0, limit=TO_THE_END):
        copied, *_ = self.driver.run("copy", source, target, mode, limit)
        return int(copied)

    def sparse(self, path, size, *texts):
        """Makes a file with these texts, each with its place, and holes between them."""
        with open(path, "wb") as file:
            file.truncate(size)
            for place, text in texts:
                file.seek(place)
                file.write(text)
        return data_runs(path)

    def check_copy(self, source, copy, runs, size):
        self.assertEqual(copy.stat().st_size, size)
        done("cmp", source, copy)
        # The first bytes pass through the buffer of a source that has been read from.
        self.assertEqual([run for run in data_runs(copy) if run[0] >= BLOCK], [run for run in runs if run[0] >= BLOCK])

    def test_holes(self):
        """A copy has the holes of its source, on one file system and from one to the other."""
        size = 64 * KIB * KIB
        text = bytes(range(256)) * 64
        cases = [(size, (0, text), (BLOCK * 8, text), (BLOCK * 100, text * 100), (size - len(text), text)),
                 (size, (BLOCK * 16, text)), (size, ), (size + 5, (BLOCK * 3 + 7, b"x"), (size + 4, b"y"))]
        for place in places():
            for other in places():
                source, copy = self.folder_in(place) / "source", self.folder_in(other) / "copy"
                for case in cases:
                    with self.subTest(place=place, other=other, case=case[0]):
                        runs = self.sparse(source, *case)
                        for mode in (0, REPLACE):
                            self.assertEqual(self.copy(source, copy, mode), case[0])
                            self.check_copy(source, copy, runs, case[0])

    def test_a_copy_that_ends_in_a_hole(self):
        source, copy = self.folder / "source", self.folder / "copy"
        text = b"text" * 1024
        self.sparse(source, 8 * BLOCK, (4 * BLOCK, text))
        for limit in (2 * BLOCK, 4 * BLOCK, 4 * BLOCK + 10, 6 * BLOCK):
            self.assertEqual(self.copy(source, copy, limit=limit), limit + 3)  # the driver reads three bytes before
            self.assertEqual(copy.read_bytes(), source.read_bytes()[:limit + 3])

    def test_what_a_target_held_is_overwritten_by_zeros(self):
        """A hole can only be made at the end of the target."""
        source, copy = self.folder / "source", self.folder / "copy"
        self.sparse(source, 8 * BLOCK, (4 * BLOCK, b"text"))
        before = b"x" * (5 * BLOCK)
        copy.write_bytes(before)
        self.assertEqual(self.copy(source, copy, EXISTING), 8 * BLOCK)
        self.assertEqual(copy.read_bytes(), source.read_bytes())
        copy.write_bytes(before)
        self.assertEqual(self.copy(source, copy, APPEND), 8 * BLOCK)
        self.assertEqual(copy.read_bytes(), before + source.read_bytes())

    def test_the_largest_hole(self):
        """A file of the largest size is copied at once where it fits; elsewhere it is too large at once."""
        for place in places():
            source = self.folder_in(place) / "source"
            size = 0
            with open(source, "wb") as file:
                for bit in reversed(range(63)):
                    try:
                        file.truncate(size | 1 << bit)
                        size |= 1 << bit
                    except OSError:
                        pass
            for other in places():
                copy = self.folder_in(other) / "copy"
                with self.subTest(size=size, other=other):
                    try:
                        self.assertEqual(self.copy(source, copy), size)
                    except Failed as failed:
                        self.assertEqual((failed.number, failed.text), (CANNOT_WRITE, f"Cannot write '{copy}': File too large."))
                        self.assertNotEqual(place, other)
                    else:
                        self.assertEqual(copy.stat().st_size, size)
                        self.assertLess(copy.stat().st_blocks, 10_000)

    def test_a_full_disk_takes_holes(self):
        before = name_space()
        if before is None:
            self.skipTest("this process may not mount file systems")
        command = f"mount -t tmpfs -o size=1M tmpfs {self.folder} && exec {options.driver}"
        source = self.folder_in(tempfile.gettempdir()) / "source"
        self.sparse(source, 100 * KIB * KIB, (50 * KIB * KIB, b"text"))
        with Driver([*before, "sh", "-c", command]) as driver:
            self.assertEqual(int(driver.run("copy", source, self.file, 0, TO_THE_END)[0]), 100 * KIB * KIB)
            self.sparse(source, 100 * KIB * KIB, (50 * KIB * KIB, b"text" * 300_000))
            with self.assertRaises(Failed) as failed:
                driver.run("copy", source, self.file, 0, TO_THE_END)
            self.assertEqual(failed.exception.text, f"Cannot write '{self.file}': No space left on device.")


parser = argparse.ArgumentParser()
parser.add_argument("--driver", required=True)
options, rest = parser.parse_known_args()
options.driver = str(Path(options.driver).resolve())
unittest.main(argv=[sys.argv[0], *rest])
