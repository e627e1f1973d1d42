#!/usr/bin/env python3
"""Lets each system call fail in turn while modules are found, read and loaded, and components made:

    components_test.py --driver PROGRAM --modules FOLDER --injector LIBRARY

A run that ends well and has made the component has printed the same as an undisturbed one, or has said what is wrong with
the module; any other has a reason, too. Nothing hangs, and nothing crashes.
"""

import argparse
import errno
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import linked  # noqa: E402  # in tests/support

options = None
COMMON = [str(errno.EINTR), str(errno.EIO), str(errno.ENOMEM)]
CALLS = {"open": [*COMMON, str(errno.EMFILE), str(errno.EACCES)], "fstat": [str(errno.EIO)],
         "statx": [str(errno.EIO), str(errno.EACCES)], "pread": [*COMMON, "short"],
         "getdents64": [str(errno.EIO)], "close": [str(errno.EIO)]}


class Components(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.report = self.folder / "report"
        self.injector = linked(options.injector, self.folder)

    def play(self, environment):
        """Returns the driver's exit code and lines, and whether a call has failed."""
        self.report.unlink(missing_ok=True)
        done = subprocess.run([options.driver, options.modules / "good", "test.nested.x", "test.scanner.flatbed"],
                              cwd=self.folder, env={"PATH": os.defpath, "LC_ALL": "C", **environment}, timeout=120,
                              capture_output=True, text=True)
        return done.returncode, done.stdout.splitlines(), done.stderr, self.report.exists()

    def reason(self, result):
        """Returns what a run must have said: the system's reason, or that of the loader."""
        return "only part of one|cannot|not be|" + ("" if result == "short" else os.strerror(int(result)))

    def test_each_call(self):
        code, plain, errors, _ = self.play({})
        self.assertEqual((code, plain[-2:], errors), (0, ["test.nested.x: 35", "test.scanner.flatbed: 7"], ""))
        fired = dict.fromkeys(CALLS, 0)
        for call, results in CALLS.items():
            for result in results:
                for at in range(1, 400):
                    with self.subTest(call=call, at=at, result=result):
                        code, lines, errors, has_fired = self.play({
                            "LD_PRELOAD": str(self.injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                            "QOR_INJECT_WITH": result, "QOR_INJECT_REPORT": str(self.report)})
                        # 1: the folder cannot be used; 100 and 127: libqor or the C library cannot be loaded.
                        self.assertIn(code, (0, 1, 100, 127), (lines, errors))
                        if code == 1 or (code == 0 and lines != plain):
                            self.assertRegex("\n".join([*lines, errors]), self.reason(result))
                        if result in ("short", str(errno.EINTR)) and code == 0:
                            self.assertEqual(lines, plain)
                    if not has_fired:
                        break
                    fired[call] += 1
        self.assertEqual([call for call, count in fired.items() if count == 0], [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True, type=Path)
    parser.add_argument("--modules", required=True, type=Path)
    parser.add_argument("--injector", required=True)
    options, rest = parser.parse_known_args()
    options.driver, options.modules = options.driver.resolve(), options.modules.resolve()
    unittest.main(argv=[__file__, *rest])
