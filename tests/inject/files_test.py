#!/usr/bin/env python3
"""Lets each system call of the operations of files fail in turn: files_test.py --driver PROGRAM --injector LIBRARY

A run in which a call was interrupted, or did less than it was asked for, must give the same answers as an undisturbed
one. With any other failure it gives the same answers, or one of them is an error that names the path and the reason. No
run leaves a descriptor open, and a file that is being replaced holds the old content or the new one.
"""

import argparse
import errno
import os
import random
import struct
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from file_driver import *  # noqa: E402,F403  # in tests/support
from tool import linked  # noqa: E402

options = None

BOTH = READING | WRITING
OLD, NEW_TEXT = b"old content " * 1000, b"new content " * 40_000
# The entries: a class, the rights, and a number. The owner and user 1 may read and write, others nothing.
ACCESS_LIST = struct.pack("<I", 2) + b"".join(
    struct.pack("<HHI", *entry)
    for entry in [(1, 6, 0xffffffff), (2, 6, 1), (4, 0, 0xffffffff), (16, 6, 0xffffffff), (32, 0, 0xffffffff)])
UNREASONED = (FILE_IN_USE, FILE_WAS_REPLACED)  # errors that need no reason of the system

# The operations of each run, with paths in the place of the words FILE, OTHER and SPARSE. Before each, "file" holds
# OLD and has an access control list, "other" holds NEW_TEXT, and "sparse" a text between two holes.
FILE, OTHER, SPARSE = object(), object(), object()
RUNS = {
    "open": [("open", 0, FILE, 21), ("size", 0), ("close", 0)],
    "read": [("open", 0, FILE, 21), ("read", 0, 5000), ("read-exact", 0, 5000), ("read", 0, 5000), ("read", 0, 2),
             ("read-at", 0, 7, 9000), ("info", 0), ("tell", 0), ("close", 0)],
    "write": [("open", 0, FILE, BOTH), ("write", 0, NEW_TEXT), ("write-at", 0, 100, NEW_TEXT), ("set-size", 0, 70_000),
              ("flush", 0, TO_DISK), ("seek", 0, -5, END), ("read", 0, 10), ("size", 0), ("close", 0)],
    "truncate": [("open", 0, FILE, BOTH | TRUNCATE), ("write", 0, b"text"), ("close", 0)],
    "append": [("open", 0, FILE, WRITING | APPEND), ("write", 0, NEW_TEXT), ("tell", 0), ("close", 0)],
    "delete": [("open", 0, OTHER, BOTH | NEW), ("delete", 0)],
    "replace": [("replace", FILE, NEW_TEXT, 0), ("get", FILE, 0)],
    "replace a file without a list": [("close", 0), ("replace", OTHER, OLD, 0), ("get", OTHER, 0)],
    "private": [("replace", FILE, NEW_TEXT, 1), ("get", FILE, 0)],
    "source": [("get", FILE, 0), ("get", FILE, 100), ("get", FILE, 40_000)],
    "target": [("put", OTHER, 0, NEW_TEXT, 1000, 1), ("put", OTHER, APPEND, NEW_TEXT, 100_000, 1)],
    "target that replaces": [("put", FILE, REPLACE, NEW_TEXT, 1000, 1)],
    "copy": [("copy", FILE, OTHER, 0, TO_THE_END), ("get", OTHER, 0)],
    "copy that replaces": [("copy", OTHER, FILE, REPLACE, TO_THE_END)],
    "copy with holes": [("copy", SPARSE, OTHER, 0, TO_THE_END), ("get", OTHER, 0)],
}

# Calls and what they fail with. "short": the call does half of what it was asked for.
CALLS = {
    "open": [errno.EMFILE, errno.ESTALE, errno.EINTR],
    "read": [errno.EIO, errno.ESTALE, errno.EINTR, "short"],
    "pread": [errno.EIO, errno.ESTALE, errno.EINTR, "short"],
    "write": [errno.ENOSPC, errno.EIO, errno.EINTR, "short"],
    "pwrite": [errno.ENOSPC, errno.EIO, errno.EINTR, "short"],
    "copy_file_range": [errno.EXDEV, errno.EIO, errno.ENOSPC, errno.EINTR, "short"],
    "fsync": [errno.EIO, errno.ENOSPC, errno.EINTR],
    "ftruncate": [errno.EIO, errno.ENOSPC, errno.EINTR],
    "fstat": [errno.EIO],
    "flock": [errno.EWOULDBLOCK, errno.ENOLCK, errno.EINTR],
    "close": [errno.EIO],
    "statx": [errno.EIO, errno.ESTALE, errno.EINTR],
    "linkat": [errno.EIO, errno.ENOSPC, errno.EINTR],
    "renameat": [errno.EIO, errno.ESTALE, errno.EINTR],
    "lseek": [errno.EIO],
    "fchown": [errno.EPERM, errno.EINTR],
    "fchmod": [errno.EIO, errno.EINTR],
    "llistxattr": [errno.EIO, errno.ESTALE, errno.EINTR],
    "lgetxattr": [errno.EIO, errno.ESTALE, errno.EINTR],
    "fsetxattr": [errno.EIO, errno.ENOSPC, errno.EPERM, errno.EINTR],
    "fremovexattr": [errno.EIO, errno.EINTR],
}
UNNOTICED = (errno.EINTR, "short")


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.file, self.other = self.folder / "file", self.folder / "other"
        self.sparse = self.folder / "sparse"
        self.report = self.folder / "report"

    def play(self, run, environment):
        """Returns the answers and the number of descriptors that are open at the end; None: the binding failed."""
        for path in self.folder.iterdir():
            if path.name != "libraries":
                path.unlink()
        self.file.write_bytes(OLD)
        os.setxattr(self.file, "system.posix_acl_access", ACCESS_LIST)
        with open(self.sparse, "wb") as sparse:
            sparse.seek(1 << 20)
            sparse.write(b"text")
            sparse.truncate(1 << 21)
        self.other.write_bytes(NEW_TEXT)
        if run == RUNS["delete"]:
            self.other.unlink()
        answers = []
        with Driver([options.driver], environment=environment) as driver:
            for operation in run:
                paths = {FILE: self.file, OTHER: self.other, SPARSE: self.sparse}
                words = [paths.get(word, word) for word in operation]
                try:
                    answer = driver.run(*words)
                    # The times of a file differ from run to run.
                    answers.append(answer[:3] if words[0] == "info" else answer)
                except Failed as failed:
                    answers.append(failed)
                except RuntimeError:
                    if not answers and driver.process.wait(timeout=100) == 100:
                        return None, 0
                    raise
            return answers, len(os.listdir(f"/proc/{driver.process.pid}/fd"))

    def check(self, name, run, undisturbed, call, error, environment):
        answers, descriptors = self.play(run, environment)
        if answers is None:
            return
        failures = [answer for answer in answers if isinstance(answer, Failed)]
        if not failures or error in UNNOTICED:
            self.assertEqual([str(each) for each in answers], [str(each) for each in undisturbed[0]])
        first = failures[0] if failures else None
        if first is not None and first.number not in UNREASONED:
            self.assertIn(str(self.folder), first.text)
            self.assertIn(os.strerror(error), first.text)
        # A descriptor whose close failed on request is still open, and so is one whose status cannot be asked for.
        if call not in ("close", "fstat"):
            self.assertEqual(descriptors, undisturbed[1])
        if run[0][0] == "replace" or "replaces" in name:
            self.assertIn(self.file.read_bytes(), (OLD, NEW_TEXT))
            if not failures:
                self.assertEqual(self.file.read_bytes(), NEW_TEXT)
            # Whatever could not be kept, nobody else has more rights.
            if name != "private":
                self.assertEqual(os.getxattr(self.file, "system.posix_acl_access"), ACCESS_LIST)
        # Nothing unfinished is left.
        self.assertLessEqual({path.name for path in self.folder.iterdir()}, {"file", "other", "sparse", "report", "libraries"})

    def test_each_call_fails_in_turn(self):
        libraries = self.folder / "libraries"
        libraries.mkdir()
        environment = {"LD_PRELOAD": str(linked(options.injector, libraries))}
        runs = 0
        for call, errors in CALLS.items():
            fired = 0
            for error in errors:
                for name, run in RUNS.items():
                    undisturbed = self.play(run, environment)
                    self.assertFalse([each for each in undisturbed[0] if isinstance(each, Failed)])
                    for at in range(1, 1000):
                        with self.subTest(call=call, error=error, at=at, run=name):
                            self.check(name, run, undisturbed, call, error, {
                                **environment, "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                                "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(self.report)})
                        runs += 1
                        if not self.report.exists():
                            break
                        fired += 1
            self.assertTrue(fired, f"nothing calls {call}")
        print(f"{runs} runs")


parser = argparse.ArgumentParser()
parser.add_argument("--driver", required=True)
parser.add_argument("--injector", type=Path, required=True)
options, rest = parser.parse_known_args()
unittest.main(argv=[sys.argv[0], *rest])
