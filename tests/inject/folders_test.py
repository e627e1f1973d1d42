#!/usr/bin/env python3
"""Lets each system call of the operations of folders fail in turn: folders_test.py --driver PROGRAM --injector LIBRARY

An operation whose call was interrupted must give the same answer as an undisturbed one. With any other failure it gives
the same answer, or an error that names a path and the reason. No run touches what lies outside the tree.
"""

import argparse
import errno
import os
import shutil
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, failed  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402

options = None

# The operations; each word that begins with "/" is a path in the folder of the test.
RUNS = [
    ("list", "/tree"), ("list", "/tree/many"), ("info", "/tree/file", 1), ("info", "/tree/link", 0),
    ("exists", "/tree/file"), ("exists", "/tree/missing"), ("create", "/new"), ("create", "/tree"),
    ("create-path", "/tree/a/b/c/d"), ("create-path", "/tree/deep"), ("delete", "/tree/file"),
    ("delete-tree", "/tree"), ("delete-tree", "/tree/deep"), ("rename", "/tree/file", "/moved", 0),
    ("rename", "/tree/deep", "/moved", 0), ("rename", "/tree/file", "/tree/other", 1), ("unique", "/tree", "p"),
    ("disks",),
]

# The errors of the calls; with EINVAL a file system says that it cannot rename exclusively.
COMMON = [errno.EIO, errno.ESTALE, errno.EINTR]
CALLS = {
    "open": [*COMMON, errno.EMFILE, errno.EACCES], "statx": [*COMMON, errno.ENOENT], "getdents64": COMMON,
    "mkdirat": [*COMMON, errno.ENOSPC, errno.EROFS], "unlinkat": [*COMMON, errno.EBUSY, errno.EROFS],
    "renameat2": [*COMMON, errno.ENOSPC, errno.EINVAL], "readlink": COMMON, "lseek": COMMON,
}


class Folders(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.report = self.folder / "report"
        self.injector = linked(options.injector, self.folder)
        (self.folder / "outside").mkdir()
        (self.folder / "outside/file").write_text("stays")

    def restore(self):
        """Makes the tree as it was."""
        for name in ("tree", "new", "moved"):
            path = self.folder / name
            shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)
        (self.folder / "tree/deep/er/still").mkdir(parents=True)
        (self.folder / "tree/many").mkdir()
        for i in range(20):
            (self.folder / f"tree/many/{i}").write_text("x" * i)
        for name in ("file", "other", "deep/er/file"):
            (self.folder / "tree" / name).write_text(name)
        (self.folder / "tree/link").symlink_to("file")
        (self.folder / "tree/deep/outside").symlink_to("../../outside")

    def play(self, run, environment={}):
        self.restore()
        self.report.unlink(missing_ok=True)
        words = [str(self.folder) + word if isinstance(word, str) and word.startswith("/") else word for word in run]
        with Driver([options.driver], {"LC_ALL": "C", **environment}, stderr=-3) as driver:
            answer = driver.ask(*words)
        return answer, self.report.exists()

    def inject(self, call, at, error):
        return {"LD_PRELOAD": str(self.injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(self.report)}

    def same(self, run, one, other):
        """Whether two answers are the same but for what changes with each run."""
        if run[0] in ("unique", "info") and not failed(one) and not failed(other):
            return len(one) == len(other)
        if run[0] == "list" and not failed(one) and not failed(other):
            return sorted(word.rpartition(",")[0] for word in one) == sorted(word.rpartition(",")[0] for word in other)
        return one == other

    def check(self, run, plain, answer, error):
        # The binding may fail, too.
        if answer is None or self.same(run, plain, answer):
            return
        self.assertNotEqual(error, errno.EINTR, answer)
        if not failed(answer):
            # "exists" says so in its last error, a disk may lose a detail, and a name that has disappeared is left out.
            self.assertTrue(run[0] in ("exists", "disks") or (run[0] == "list" and error == errno.ENOENT), answer)
            return
        # Where the undisturbed operation fails, too, its own reason may remain. A name that leads nowhere is taken.
        reasons = [error, errno.EEXIST] if run[0] == "create-path" and error == errno.ENOENT else [error]
        if not failed(plain):
            self.assertTrue(any(f": {os.strerror(reason)}." in answer[1] for reason in reasons), answer)
        self.assertIn("'/", answer[1])

    def test_each_call(self):
        fired = dict.fromkeys(CALLS, 0)
        for run in RUNS:
            plain, _ = self.play(run)
            for call, errors in CALLS.items():
                for error in errors:
                    for at in range(1, 400):
                        with self.subTest(run=run, call=call, at=at, error=errno.errorcode[error]):
                            answer, has_fired = self.play(run, self.inject(call, at, error))
                            self.assertEqual((self.folder / "outside/file").read_text(), "stays")
                            self.check(run, plain, answer, error)
                        if not has_fired:
                            break
                        fired[call] += 1
        self.assertEqual([call for call, count in fired.items() if count == 0 and call != "lseek"], [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
