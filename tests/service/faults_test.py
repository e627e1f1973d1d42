#!/usr/bin/env python3
"""Lets each system call of the operations on services fail in turn: faults_test.py --driver PROGRAM --injector LIBRARY

A call that was interrupted or would have to wait changes no answer. With any other failure, a run gives the same
answers as an undisturbed one, or one of them is an error. No run leaves a descriptor open, and none waits for its time
limit.
"""

import argparse
import errno
import os
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, failed  # noqa: E402  # in tests/support
from mocked_manager import running_manager  # noqa: E402
from tool import linked  # noqa: E402

options = None

LIMIT = 60_000  # milliseconds
NO_MANAGER, FAILED, LOST = 251, 254, 258
RUN = [("exists", "quick"), ("exists", "nothing"), ("start", "quick"), ("stop", "quick"), ("start", "exits")]
CALLS = {
    "socket": [errno.EMFILE, errno.ENOMEM],
    "connect": [errno.ECONNREFUSED, errno.EAGAIN, errno.EINTR],
    "sendmsg": [errno.EPIPE, errno.EIO, errno.EAGAIN, errno.EINTR],
    "recvmsg": [errno.ECONNRESET, errno.EIO, errno.EAGAIN, errno.EINTR],
    "ppoll": [errno.EIO, errno.EINTR],
}
UNNOTICED = (errno.EINTR, errno.EAGAIN)


class Faults(unittest.TestCase):
    def play(self, environment):
        """Returns the answers and the number of descriptors that are open at the end; None: the binding failed."""
        with Driver([options.driver], environment={"LC_ALL": "C", **environment}) as driver:
            answers = [driver.ask(*words, 0, LIMIT) for words in RUN]
            if answers[0] is None:
                return None, 0
            return answers, len(os.listdir(f"/proc/{driver.process.pid}/fd"))

    def check(self, undisturbed, error, environment):
        answers, descriptors = self.play(environment)
        if answers is None:
            self.assertNotIn(error, UNNOTICED)
            return
        self.assertNotIn(None, answers)
        self.assertEqual(descriptors, undisturbed[1])
        if error in UNNOTICED:
            self.assertEqual(answers, undisturbed[0])
        for answer, expected in zip(answers, undisturbed[0]):
            if answer != expected:
                self.assertTrue(failed(answer), answer)
                self.assertIn(answer[0], (NO_MANAGER, LOST, 2))  # 2: out of memory
        self.assertLessEqual(sum(a != b for a, b in zip(answers, undisturbed[0])), 1, answers)

    def test_each_call_fails_in_turn(self):
        with running_manager() as manager, tempfile.TemporaryDirectory() as folder:
            report = Path(folder, "report")
            environment = {"LD_PRELOAD": str(linked(options.injector, folder)),
                           "DBUS_SYSTEM_BUS_ADDRESS": manager.bus.address}
            undisturbed = self.play(environment)
            self.assertEqual([failed(each) and each[0] for each in undisturbed[0]], [False, 0, False, False, FAILED])
            runs = 0
            for call, errors in CALLS.items():
                for error in errors:
                    at, misses = 1, 0
                    # On a busy host, an answer may be there before anybody waits for it.
                    while misses < (20 if at == 1 else 1):
                        report.unlink(missing_ok=True)
                        with self.subTest(call=call, error=errno.errorcode[error], at=at):
                            begin = time.monotonic()
                            self.check(undisturbed, error, {
                                **environment, "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                                "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(report)})
                            self.assertLess(time.monotonic() - begin, LIMIT / 1000)
                        runs += 1
                        if report.exists():
                            at += 1
                        else:
                            misses += 1
                    self.assertGreater(at, 1, f"nothing calls {call}")
            print(f"{runs} runs")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
