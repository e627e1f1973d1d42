#!/usr/bin/env python3
"""Files of every kind, full and read-only disks, limits, and files that change while they are open: Linux only.

usage: faults_test.py --driver PROGRAM
"""

import argparse
import os
import random
import resource
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from file_driver import *  # noqa: E402,F403  # in tests/support
from name_space import name_space  # noqa: E402
from tool import as_nobody  # noqa: E402

options = None

BOTH = READING | WRITING
UNFINISHED = ".qor-unfinished"
PATIENCE_SECONDS = 100


class Faults(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.file = self.folder / "file"

    def driver(self, **more):
        driver = Driver([options.driver], **more)
        self.addCleanup(driver.__exit__)
        return driver

    def check_fails(self, error, text, operation, *words):
        with self.assertRaises(Failed) as failed:
            operation(*words)
        self.assertEqual((failed.exception.number, failed.exception.text), (error, text))

    # ---- texts

    def test_every_error_names_the_operation_the_path_and_the_reason(self):
        driver = self.driver()
        handles = self.driver(handles=True)
        self.file.write_bytes(b"0123456789")
        for command, name in ("read", "Read"), ("read-exact", "ReadExact"):
            self.check_fails(NOT_OPEN, f"qorFile::{name} needs an open file.", driver.run, command, 0, 1)
            self.check_fails(NOT_OPEN, f"qorFile{name} needs an open file.", handles.run, command, 0, 1)
        for command, name in ("tell", "Tell"), ("size", "GetSize"), ("info", "GetFileInfo"), ("delete", "CloseAndDelete"):
            self.check_fails(NOT_OPEN, f"qorFile::{name} needs an open file.", driver.run, command, 0)
            self.check_fails(NOT_OPEN, f"qorFile{name} needs an open file.", handles.run, command, 0)
        driver.run("open", 0, self.file, 21)
        self.check_fails(FILE_MODE, f"qorFile::Write is not possible with '{self.file}': the file was opened in another mode.",
                         driver.run, "write", 0, b"x")
        self.check_fails(FILE_ENDS, f"Cannot read '{self.file}': it ends unexpectedly at byte 10.",
                         driver.run, "read-exact", 0, 11)
        self.check_fails(CANNOT_SEEK, f"qorFile::Seek cannot move by -1 bytes in '{self.file}': no file has such a position.",
                         driver.run, "seek", 0, -1, BEGIN)
        for offset, origin in [((1 << 63) - 1, END), (-11, END), (-(1 << 63), POSITION), (-(1 << 63), END)]:
            with self.assertRaises(Failed) as failed:
                driver.run("seek", 0, offset, origin)
            self.assertEqual(failed.exception.number, CANNOT_SEEK)
        driver.run("seek", 0, (1 << 63) - 1, BEGIN)
        self.assertEqual(driver.bytes("read", 0, 10), b"")
        self.check_fails(INVALID_ARGUMENT, "qorFile::Seek was called with an invalid argument: origin.",
                         driver.run, "seek", 0, 0, 3)
        self.check_fails(CANNOT_WRITE, f"Cannot write '{self.folder}/none/file': No such file or directory.",
                         driver.run, "replace", self.folder / "none/file", b"x", 0)
        with self.assertRaises(Failed) as failed:
            driver.run("unique", 0, self.folder / "none", b"file", b"")
        self.assertRegex(failed.exception.text, f"^Cannot open '{self.folder}/none/file[a-z2-7]{{12}}': No such file")

    # ---- kinds of files

    def test_what_is_no_file_on_a_disk_is_refused_and_not_touched(self):
        driver = self.driver()
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        (self.folder / "link").symlink_to("pipe")
        for path in (pipe, self.folder / "link", "/dev/null", "/dev/full", "/dev/tty"):
            for mode in (21, WRITING | SHARED, BOTH | TRUNCATE, WRITING | APPEND):
                self.check_fails(NO_DISK_FILE, f"Cannot open '{path}': it is a pipe or a device, not a file on a disk.",
                                 driver.run, "open", 0, path, mode)
            self.check_fails(NO_DISK_FILE, f"Cannot open '{path}': it is a pipe or a device, not a file on a disk.",
                             driver.run, "replace", path, b"x", 0)
            self.check_fails(NO_DISK_FILE, f"Cannot open '{path}': it is a pipe or a device, not a file on a disk.",
                             driver.run, "put", path, REPLACE, b"x", 1, 1)
        self.check_fails(CANNOT_OPEN, f"Cannot open '{self.folder}': Is a directory.",
                         driver.run, "open", 0, self.folder, WRITING)
        self.check_fails(CANNOT_WRITE, f"Cannot write '{self.folder}': Is a directory.",
                         driver.run, "replace", self.folder, b"x", 0)
        self.assertTrue(stat.S_ISFIFO(os.stat(pipe).st_mode))
        self.assertEqual(sorted(os.listdir(self.folder)), ["link", "pipe"])

    def test_a_pipe_can_be_a_source(self):
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        content = random.Random(1).randbytes(1_000_000)
        for words in ("get", pipe, 0), ("get", pipe, 1000), ("get", pipe, 100_000):
            writer = threading.Thread(target=lambda: pipe.write_bytes(content))
            writer.start()
            self.assertEqual(self.driver().bytes(*words), content)
            writer.join()
        writer = threading.Thread(target=lambda: pipe.write_bytes(content))
        writer.start()
        self.driver().run("copy", pipe, self.file, 0, TO_THE_END)
        writer.join()
        self.assertEqual(self.file.read_bytes(), content)

    def test_files_of_the_kernel_are_copied_though_their_size_is_0(self):
        self.driver().run("copy", "/proc/version", self.file, 0, TO_THE_END)
        self.assertEqual(self.file.read_bytes(), Path("/proc/version").read_bytes())

    def test_a_file_that_turns_into_another_thing_again_and_again(self):
        """Whatever takes its place between two calls, an open never waits, and never opens anything but a file."""
        driver = self.driver()
        ends = threading.Event()

        def change():
            while not ends.is_set():
                for make in (lambda path: path.write_bytes(b"text"), os.mkfifo, os.mkdir,
                             lambda path: path.symlink_to("/dev/zero"), lambda path: path.symlink_to(path)):
                    other = self.folder / "other"
                    make(other)
                    if other.is_dir() and not other.is_symlink() or self.file.is_dir() and not self.file.is_symlink():
                        if self.file.is_dir() and not self.file.is_symlink():
                            self.file.rmdir()
                        else:
                            self.file.unlink(missing_ok=True)
                    other.rename(self.file)

        changer = threading.Thread(target=change)
        changer.start()
        seen = set()
        end = time.monotonic() + PATIENCE_SECONDS
        try:
            attempt = 0
            # The number of the changes between two opens is left to chance, but not that there are some.
            while attempt < 3000 or (seen != {0, CANNOT_OPEN, NO_DISK_FILE} and time.monotonic() < end):
                attempt += 1
                try:
                    driver.run("open", 0, self.file, 21 if attempt % 2 else BOTH | EXISTING | SHARED)
                except Failed as failed:
                    seen.add(failed.number)
                    self.assertIn(failed.number, (CANNOT_OPEN, NO_DISK_FILE), failed.text)
                else:
                    seen.add(0)
                    self.assertEqual(int(driver.run("info", 0)[0]), 1)
                    self.assertIn(driver.bytes("read", 0, 10), (b"text", b""))
        finally:
            ends.set()
            changer.join()
        self.assertEqual(seen, {0, CANNOT_OPEN, NO_DISK_FILE})

    def test_a_file_that_vanishes_between_two_calls(self):
        driver = self.driver()
        self.file.write_bytes(b"0123456789")
        driver.run("open", 0, self.file, BOTH)
        self.file.unlink()
        self.assertEqual(driver.bytes("read-at", 0, 3, 4), b"3456")
        driver.run("write-at", 0, 10, b"more")
        self.assertEqual(driver.number("size", 0), 14)
        self.assertEqual(driver.run("info", 0)[2], "14")
        driver.run("flush", 0, TO_DISK)
        self.check_fails(CANNOT_OPEN, f"Cannot open '{self.file}': No such file or directory.",
                         driver.run, "open", 1, self.file, 21)
        driver.run("replace", self.file, b"new", 0)
        self.assertEqual(driver.bytes("read-at", 0, 0, 14), b"0123456789more")
        self.assertEqual(self.file.read_bytes(), b"new")

    def test_a_file_that_grows_and_shrinks_between_two_calls(self):
        driver = self.driver()
        self.file.write_bytes(b"0123456789")
        driver.run("open", 0, self.file, 21)
        self.assertEqual(driver.bytes("read", 0, 100), b"0123456789")
        self.assertEqual(driver.bytes("read", 0, 100), b"")
        with open(self.file, "ab") as file:
            file.write(b"more")
        self.assertEqual(driver.bytes("read", 0, 100), b"more")
        os.truncate(self.file, 5)
        self.assertEqual(driver.number("size", 0), 5)
        self.assertEqual(driver.bytes("read", 0, 100), b"")
        self.assertEqual(driver.number("tell", 0), 14)
        self.check_fails(FILE_ENDS, f"Cannot read '{self.file}': it ends unexpectedly at byte 5.",
                         driver.run, "read-at", 0, 3, 4)

    def test_a_file_that_is_replaced_by_a_pipe_or_a_link_between_two_calls(self):
        driver = self.driver()
        other = self.folder / "other"
        other.write_bytes(b"other")
        for make, error in (os.mkfifo, NO_DISK_FILE), (lambda path: path.symlink_to(path), CANNOT_OPEN), \
                           (lambda path: path.symlink_to("other"), None):
            self.file.write_bytes(b"old")
            driver.run("open", 0, self.file, BOTH | SHARED)
            self.file.unlink()
            make(self.file)
            driver.run("write", 0, b"OLD")
            self.assertEqual(driver.bytes("read-at", 0, 0, 3), b"OLD")
            if error is None:
                driver.run("open", 1, self.file, 21)
                driver.run("close", 1)
            else:
                with self.assertRaises(Failed) as failed:
                    driver.run("open", 1, self.file, 21)
                self.assertEqual(failed.exception.number, error)
            with self.assertRaises(Failed) as failed:
                driver.run("delete", 0)
            self.assertEqual(failed.exception.number, FILE_WAS_REPLACED)
            self.assertTrue(os.path.lexists(self.file))
            self.file.unlink()
        self.assertEqual(other.read_bytes(), b"other")

    # ---- sharing

    def test_sharing(self):
        """Two may have a file open if both share it, in one process or in two."""
        self.file.write_bytes(b"text")
        first, second = self.driver(), self.driver(handles=True)
        in_use = f"Cannot open '{self.file}': it is in use."
        for first_mode in (READING | EXISTING, BOTH, 21, BOTH | SHARED):
            for second_mode in (READING | EXISTING, BOTH | TRUNCATE, 21, BOTH | SHARED):
                first.run("open", 0, self.file, first_mode)
                for opener, number in (first, 1), (second, 0):
                    if first_mode & second_mode & SHARED:
                        opener.run("open", number, self.file, second_mode)
                    else:
                        self.check_fails(FILE_IN_USE, in_use, opener.run, "open", number, self.file, second_mode)
                    opener.run("close", number)
                first.run("close", 0)
                self.assertEqual(self.file.read_bytes(), b"text" if not second_mode & TRUNCATE else b"text")
                second.run("open", 0, self.file, second_mode & ~TRUNCATE)
                second.run("close", 0)

    def test_one_that_is_not_shared_can_still_be_renamed_and_deleted(self):
        driver = self.driver()
        driver.run("open", 0, self.file, BOTH | NEW)
        driver.run("write", 0, b"text")
        other = self.file.rename(self.folder / "other")
        other.unlink()
        self.assertEqual(driver.bytes("read-at", 0, 0, 4), b"text")

    def test_two_append_at_once(self):
        """No write of two that append is lost or torn."""
        drivers = [self.driver(), self.driver()]
        for i, driver in enumerate(drivers):
            driver.run("open", 0, self.file, WRITING | APPEND | SHARED)
        def append(which):
            for _ in range(500):
                drivers[which].run("write", 0, bytes([48 + which]) * 10)
        threads = [threading.Thread(target=append, args=(i,)) for i in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        content = self.file.read_bytes()
        self.assertEqual(len(content), 10_000)
        self.assertEqual({content[i:i + 10] for i in range(0, len(content), 10)}, {b"0" * 10, b"1" * 10})

    # ---- deleting

    def test_close_and_delete(self):
        for handles in (False, True):
            driver = self.driver(handles=handles)
            driver.run("open", 0, self.file, BOTH | NEW)
            driver.run("delete", 0)
            self.assertFalse(self.file.exists())
            # Another file at its place is left alone.
            for make in (lambda path: path.write_bytes(b"new"), os.mkfifo, lambda path: path.symlink_to("moved")):
                driver.run("open", 0, self.file, BOTH | NEW)
                moved = self.file.rename(self.folder / "moved")
                make(self.file)
                self.check_fails(FILE_WAS_REPLACED, f"Cannot delete '{self.file}': it is no longer the file that was opened.",
                                 driver.run, "delete", 0)
                self.assertTrue(os.path.lexists(self.file) and moved.exists())
                self.file.unlink()
                moved.unlink()
            driver.run("open", 0, self.file, BOTH | NEW)
            self.file.unlink()
            self.check_fails(CANNOT_DELETE, f"Cannot delete '{self.file}': No such file or directory.",
                             driver.run, "delete", 0)

    def test_unique_files(self):
        driver = self.driver()
        names = set()
        for _ in range(50):
            path = Path(os.fsdecode(driver.bytes("unique", 0, self.folder, b"begin.", b".end")))
            driver.run("write", 0, b"text")
            self.assertEqual(path.read_bytes(), b"text")
            self.assertEqual(stat.S_IMODE(path.stat().st_mode), 0o600)
            self.assertEqual(path.parent, self.folder)
            self.assertRegex(path.name, r"^begin\.[a-z2-7]{12}\.end$")
            names.add(path.name)
        self.assertEqual(len(names), 50)
        driver.run("delete", 0)
        self.assertEqual(len(os.listdir(self.folder)), 49)
        driver = self.driver(environment={"TMPDIR": str(self.folder)})
        self.assertEqual(Path(os.fsdecode(driver.bytes("unique", 1, b"", b"", b""))).parent, self.folder)
        self.check_fails(INVALID_ARGUMENT, "qorFile::CreateUnique was called with an invalid argument: ../x.",
                         driver.run, "unique", 0, self.folder, b"../x", b"")

    # ---- names

    def test_names_of_every_form(self):
        driver = self.driver()
        names = [b"a b", b"caf\xc3\xa9", b"\xff\xfe\x80", b"new\nline", b"-", b"x" * 255, b"\xe6\xbc\xa2" * 85]
        for name in names:
            path = os.fsencode(self.folder) + b"/" + name
            driver.run("open", 0, path, BOTH | NEW)
            driver.run("write", 0, name)
            driver.run("close", 0)
            driver.run("replace", path, name + b"2", 0)
            self.assertEqual(driver.bytes("get", path, 0), name + b"2")
        self.assertEqual(sorted(os.listdir(os.fsencode(self.folder))), sorted(names))
        self.check_fails(CANNOT_OPEN, f"Cannot open '{self.folder}/{'x' * 256}': File name too long.",
                         driver.run, "open", 0, self.folder / ("x" * 256), BOTH)

    def test_paths_of_4095_bytes(self):
        driver = self.driver()
        path = os.fsencode(self.folder)
        os.chdir(path)
        self.addCleanup(os.chdir, "/")
        while len(path) < 4095 - 202:
            os.mkdir("x" * 200)
            os.chdir("x" * 200)
            path += b"/" + b"x" * 200
        path += b"/" + b"y" * (4095 - len(path) - 1)
        self.assertEqual(len(path), 4095)
        driver.run("open", 0, path, BOTH | NEW)
        driver.run("close", 0)
        driver.run("replace", path, b"text", 0)
        self.assertEqual(driver.bytes("get", path, 0), b"text")
        with self.assertRaises(Failed) as failed:
            driver.run("open", 0, path + b"y", BOTH)
        self.assertTrue(failed.exception.text.endswith("File name too long."))

    # ---- sizes

    def test_the_largest_file_that_there_is(self):
        for place in ("/dev/shm", tempfile.gettempdir()):
            if not os.path.isdir(place):
                continue
            with self.subTest(place=place), tempfile.TemporaryDirectory(dir=place) as folder:
                path = Path(folder) / "file"
                largest = 0
                with open(path, "wb") as peer:
                    for bit in reversed(range(63)):
                        try:
                            peer.truncate(largest | 1 << bit)
                            largest |= 1 << bit
                        except OSError:
                            pass
                path.unlink()
                driver = self.driver()
                driver.run("open", 0, path, BOTH | NEW)
                driver.run("set-size", 0, largest)
                self.assertEqual(driver.number("size", 0), largest)
                driver.run("write-at", 0, largest - 3, b"end")
                self.assertEqual(driver.bytes("read-at", 0, largest - 4, 4), b"\0end")
                driver.run("seek", 0, -3, END)
                self.assertEqual(driver.bytes("read", 0, 10), b"end")
                self.assertEqual(driver.number("tell", 0), largest)
                for words in ("set-size", 0, largest + 1), ("set-size", 0, 1 << 63), ("write", 0, b"x"), \
                             ("write-at", 0, (1 << 64) - 1, b"x"):
                    with self.assertRaises(Failed) as failed:
                        driver.run(*words)
                    self.assertEqual(failed.exception.number, CANNOT_WRITE)
                    self.assertRegex(failed.exception.text, "(File too large|Invalid argument)")
                self.assertEqual(path.stat().st_size, largest)

    def test_a_limit_of_the_process(self):
        """A limit on the size of files is an error, and no signal ends the process."""
        driver = self.driver(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000)))
        too_large = f"Cannot write '{self.file}': File too large."
        driver.run("open", 0, self.file, BOTH | NEW)
        driver.run("write", 0, b"x" * 60_000)
        self.check_fails(CANNOT_WRITE, too_large, driver.run, "write", 0, b"y" * 60_000)
        # The position is behind what was written.
        self.assertEqual(driver.number("tell", 0), 100_000)
        self.check_fails(CANNOT_WRITE, too_large, driver.run, "set-size", 0, 100_001)
        driver.run("close", 0)
        before = self.file.read_bytes()
        self.check_fails(CANNOT_WRITE, too_large, driver.run, "replace", self.file, b"z" * 100_001, 0)
        for mode in (REPLACE, 0):
            self.check_fails(CANNOT_WRITE, too_large, driver.run, "put", self.file, mode, b"z" * 100_001, 10, 1)
            if mode == REPLACE:
                self.assertEqual(self.file.read_bytes(), before)
        self.assertEqual(os.listdir(self.folder), ["file"])

    def test_no_descriptor_left(self):
        self.file.write_bytes(b"old")
        driver = self.driver()
        # Each runs once before: the library is loaded then, and a sanitizer examines new objects through a pipe.
        driver.bytes("get", self.file, 0)
        driver.run("open", 0, self.file, 21)
        driver.run("put", self.folder / "other", 0, b"x", 1, 1)
        driver.run("replace", self.file, b"old", 0)
        driver.run("close", 0)
        resource.prlimit(driver.process.pid, resource.RLIMIT_NOFILE, (3, 3))
        for words in ("open", 0, self.file, 21), ("get", self.file, 0), ("put", self.file, 0, b"x", 1, 1):
            self.check_fails(CANNOT_OPEN, f"Cannot open '{self.file}': Too many open files.", driver.run, *words)
        self.check_fails(CANNOT_WRITE, f"Cannot write '{self.file}': Too many open files.",
                         driver.run, "replace", self.file, b"new", 0)
        self.assertEqual(self.file.read_bytes(), b"old")

    def mounted(self, words):
        """Starts a driver that sees the folder as a file system of its own, and returns it."""
        before = name_space()
        if before is None:
            self.skipTest("this process may not mount file systems")
        command = f"mount {words} && exec {options.driver}"
        return Driver([*before, "sh", "-c", command])

    def test_a_full_disk(self):
        with self.mounted(f"-t tmpfs -o size=1M tmpfs {self.folder}") as driver:
            full = f"Cannot write '{self.file}': No space left on device."
            driver.run("replace", self.file, b"old", 0)
            self.check_fails(CANNOT_WRITE, full, driver.run, "replace", self.file, b"x" * 1_100_000, 0)
            self.check_fails(CANNOT_WRITE, full, driver.run, "put", self.file, REPLACE, b"x" * 1_100_000, 10_000, 1)
            self.assertEqual(driver.bytes("get", self.file, 0), b"old")
            # What was not stored does not take room.
            driver.run("open", 0, self.file, BOTH | TRUNCATE)
            driver.run("write", 0, b"x" * 1_000_000)
            self.check_fails(CANNOT_WRITE, full, driver.run, "write", 0, b"y" * 100_000)
            written = driver.number("tell", 0)
            self.assertEqual(driver.number("size", 0), written)
            self.assertGreaterEqual(written, 1_000_000)
            driver.run("set-size", 0, 0)
            driver.run("write-at", 0, 0, b"room again")
            self.check_fails(CANNOT_WRITE, f"Cannot write '{self.folder}/copy': No space left on device.", driver.run,
                             "copy", "/dev/zero", self.folder / "copy", 0, 2_000_000)

    def test_a_disk_that_cannot_be_written(self):
        self.file.write_bytes(b"old")
        with self.mounted(f"--bind -o ro {self.folder} {self.folder}") as driver:
            self.assertEqual(driver.bytes("get", self.file, 0), b"old")
            driver.run("open", 0, self.file, 21)
            for words in ("open", 1, self.file, BOTH), ("put", self.file, 0, b"x", 1, 1):
                self.check_fails(CANNOT_OPEN, f"Cannot open '{self.file}': Read-only file system.", driver.run, *words)
            self.check_fails(CANNOT_WRITE, f"Cannot write '{self.file}': Read-only file system.",
                             driver.run, "replace", self.file, b"new", 0)
            self.check_fails(CANNOT_DELETE, f"Cannot delete '{self.file}': Read-only file system.", driver.run, "delete", 0)
        self.assertEqual(self.file.read_bytes(), b"old")

    # ---- replacing

    def test_a_replaced_file_keeps_its_rights_and_links_lead_to_it(self):
        driver = self.driver()
        link = self.folder / "link"
        link.symlink_to("file")
        for rights in (0o600, 0o644, 0o640, 0o444, 0o777):
            self.file.write_bytes(b"old")
            self.file.chmod(rights)
            for path, text in (self.file, b"new"), (link, b"newer"):
                before = self.file.stat().st_ino
                driver.run("replace", path, text, 0)
                self.assertEqual(self.file.read_bytes(), text)
                self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), rights)
                self.assertNotEqual(self.file.stat().st_ino, before)
                self.assertTrue(link.is_symlink())
            self.file.unlink()
        mask = os.umask(0)
        os.umask(mask)
        driver.run("replace", self.file, b"first", 0)
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o666 & ~mask)
        driver.run("replace", self.file, b"private", 1)
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)
        self.check_fails(INVALID_ARGUMENT, "qorReplaceFile was called with an invalid argument: flags.",
                         driver.run, "replace", self.file, b"x", 2)
        if os.geteuid() == 0:
            os.chown(self.file, 1, 2)
            driver.run("replace", self.file, b"of another", 0)
            self.assertEqual((self.file.stat().st_uid, self.file.stat().st_gid), (1, 2))

    def test_a_reader_sees_the_old_file_or_the_new_one(self):
        """While two writers replace a file, every read finds the whole of one of their texts."""
        texts = [bytes([48 + i]) * (1000 * (i + 1)) for i in range(4)]
        self.file.write_bytes(texts[0])
        ends = threading.Event()
        failures = []

        def write(which):
            driver = self.driver()
            for i in range(150):
                try:
                    driver.run("replace", self.file, texts[(which + i) % 4], 0)
                except Failed as failed:
                    failures.append(failed)
            ends.set()

        writers = [threading.Thread(target=write, args=(i,)) for i in range(2)]
        for writer in writers:
            writer.start()
        reader = self.driver()
        count = 0
        while not ends.is_set():
            self.assertIn(self.file.read_bytes(), texts)
            reader.run("open", 0, self.file, 21)
            self.assertIn(reader.bytes("read", 0, 5000), texts)
            count += 1
        for writer in writers:
            writer.join()
        self.assertEqual(failures, [])
        self.assertGreater(count, 0)
        self.assertEqual(os.listdir(self.folder), ["file"])

    def test_what_a_killed_process_left_is_removed_and_other_files_are_not(self):
        driver = self.driver()
        leftover = self.folder / ("file" + UNFINISHED)
        leftover.write_bytes(b"half")
        driver.run("replace", self.file, b"text", 0)
        self.assertEqual(os.listdir(self.folder), ["file"])
        # Names that something else has taken.
        os.mkfifo(leftover)
        (self.folder / ("file.1" + UNFINISHED)).mkdir()
        (self.folder / ("file.2" + UNFINISHED)).symlink_to("file")
        driver.run("replace", self.file, b"more", 0)
        self.assertEqual(self.file.read_bytes(), b"more")
        self.assertEqual(len(os.listdir(self.folder)), 4)

    def test_a_target_that_is_broken_off_leaves_the_old_file(self):
        driver = self.driver()
        self.file.write_bytes(b"old")
        driver.run("put", self.file, REPLACE, b"new" * 100_000, 1000, 0)
        self.assertEqual(self.file.read_bytes(), b"old")
        driver.run("put", self.file, 0, b"new" * 100_000, 1000, 0)
        self.assertEqual(self.file.read_bytes(), b"new" * 100_000)
        self.assertEqual(os.listdir(self.folder), ["file"])

    def test_without_proc_a_file_is_replaced_too(self):
        self.file.write_bytes(b"old")
        with self.mounted("-t tmpfs tmpfs /proc") as driver:
            driver.run("replace", self.file, b"new", 0)
        self.assertEqual(self.file.read_bytes(), b"new")
        self.assertEqual(os.listdir(self.folder), ["file"])

    def test_a_folder_that_the_user_may_not_write(self):
        self.file.write_bytes(b"old")
        self.folder.chmod(0o755)
        if os.geteuid() != 0:
            self.skipTest("needs a second user")
        with tempfile.TemporaryDirectory(prefix="qor.", dir="/tmp") as programs:
            os.chmod(programs, 0o755)
            for name in (Path(options.driver).name, "libqor.so"):
                subprocess.run(["cp", Path(options.driver).parent / name, programs], check=True)
            with Driver([Path(programs) / Path(options.driver).name], **as_nobody()) as driver:
                self.check_fails(CANNOT_WRITE, f"Cannot write '{self.file}': Permission denied.",
                                 driver.run, "replace", self.file, b"new", 0)
                self.check_fails(CANNOT_OPEN, f"Cannot open '{self.file}': Permission denied.",
                                 driver.run, "open", 0, self.file, BOTH)
        self.assertEqual(self.file.read_bytes(), b"old")

    # ---- information

    def test_information_is_that_of_the_system(self):
        driver = self.driver()
        driver.run("open", 0, self.file, BOTH | NEW)
        driver.run("write", 0, b"text")
        self.file.chmod(0o640)
        os.utime(self.file, ns=(1_234_567_890_123_456_789, 987_654_321_987_654_321))
        kind, rights, size, modified, accessed, created = map(int, driver.run("info", 0))
        since_1601 = 11_644_473_600 * 10_000_000
        self.assertEqual((kind, rights, size), (1, 0o640, 4))
        self.assertEqual(modified, since_1601 + 987_654_321_987_654_321 // 100)
        self.assertEqual(accessed, since_1601 + 1_234_567_890_123_456_789 // 100)
        birth = subprocess.run(["stat", "-c", "%W", self.file], capture_output=True, text=True, check=True).stdout
        self.assertEqual(created // 10_000_000 - 11_644_473_600 if created else 0, int(birth))


parser = argparse.ArgumentParser()
parser.add_argument("--driver", required=True)
options, rest = parser.parse_known_args()
options.driver = str(Path(options.driver).resolve())
unittest.main(argv=[sys.argv[0], *rest])
