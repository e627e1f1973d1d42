#!/usr/bin/env python3
"""Lets each system call of child processes fail in turn: children_test.py --driver PROGRAM --injector LIBRARY

The calls between the start and the program's first instruction are made in memory that both processes share. A run that
succeeds must have the same result as an undisturbed one; any other names the program or the file, and the reason.
Afterwards the driver starts a program without a fault, has no child left and as many descriptors as before.
"""

import argparse
import errno
import os
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, failed  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402

options = None
VARIABLES = ["PATH=/usr/bin:/bin", "LC_ALL=C"]  # the programs have no injector

# Kinds of the streams, a folder, a whole tree, a limit, a program with its arguments. A tree that cannot be killed at
# the first attempt keeps the streams open until the limit.
RUNS = [
    (("pipe", "pipe", "pipe"), "", 0, "", ["cat"]),
    (("pipe", "pipe", "output"), "/", 1, "5000", ["sh", "-c", "cat; sleep 1000 &"]),
    (("null", "FILE", "null"), "", 0, "", ["echo", "word"]),
]

COMMON = [errno.EINTR, errno.EIO, errno.ENOMEM]
CALLS = {"pipe2": [errno.EMFILE, errno.ENFILE], "open": [*COMMON, errno.EMFILE, errno.EACCES], "mmap": [errno.ENOMEM],
         "dup2": [errno.EINTR, errno.EBADF], "close_range": [errno.ENOSYS, errno.EPERM], "chdir": [errno.EACCES],
         "setpgid": [errno.EPERM], "execve": [errno.EACCES, errno.E2BIG, errno.ENOENT, errno.ENOEXEC],
         "poll": [errno.EINTR], "read": [errno.EINTR, errno.EIO], "write": [errno.EINTR, errno.EIO],
         "pidfd_send_signal": [errno.EINVAL, errno.EPERM]}


class Children(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.report = self.folder / "report"
        self.injector = linked(options.injector, self.folder)

    def ask(self, driver, run):
        kinds, folder, tree, limit, arguments = run
        kinds = [f"file:{self.folder}/out" if kind == "FILE" else kind for kind in kinds]
        return driver.ask("run", folder, "", "some input", *kinds, str(tree), limit, "", "", str(len(arguments)),
                          *arguments, *VARIABLES)

    def play(self, run, environment):
        """Returns the answer, and whether a call has failed."""
        self.report.unlink(missing_ok=True)
        with Driver([options.driver], {"LC_ALL": "C", **environment}, stderr=-3) as driver:
            answer = self.ask(driver, run)
            has_fired = self.report.exists()
            if answer is None or (environment and not has_fired):
                return answer, has_fired
            again = self.ask(driver, RUNS[0])
            process = driver.process.pid
            tasks = Path(f"/proc/{process}/task/{process}/children").read_text().split()
            descriptors = len(os.listdir(f"/proc/{process}/fd"))
        self.assertFalse(failed(again), again)
        self.assertEqual(tasks, [])
        self.assertEqual(descriptors, 3)
        return answer, has_fired

    def test_each_call(self):
        fired = dict.fromkeys(CALLS, 0)
        for run in RUNS:
            plain, _ = self.play(run, {})
            self.assertFalse(failed(plain), plain)
            for call, errors in CALLS.items():
                for error in errors:
                    for at in range(1, 100):
                        with self.subTest(run=run, call=call, at=at, error=errno.errorcode[error]):
                            answer, has_fired = self.play(run, {
                                "LD_PRELOAD": str(self.injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                                "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(self.report)})
                            if answer is not None and answer != plain:  # the driver's own calls may fail, too
                                self.assertTrue(failed(answer), answer)
                                self.assertNotEqual(error, errno.EINTR, answer)
                                self.assertIn(f"'{run[4][0]}'" if "'" in answer[1] and "/" not in answer[1] else "'",
                                              answer[1])
                        if not has_fired:
                            break
                        fired[call] += 1
        self.assertEqual([call for call, count in fired.items() if count == 0], [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
