#!/usr/bin/env python3
"""Messages between processes while each system call fails once, one after the other: a run ends well, or says why."""
import argparse
import errno
import os
import subprocess
import tempfile
import unittest

options = argparse.ArgumentParser(description=__doc__)
options.add_argument("--driver", required=True)
options.add_argument("--injector", required=True)
arguments, rest = options.parse_known_args()

LONG = 120  # seconds, only against hanging
ENDED = ("The connection has ended", "Cannot connect", "The operation timed out", "Nobody listens")


class Faults(unittest.TestCase):
    def run_with(self, name, at, code):
        with tempfile.TemporaryDirectory() as folder:
            report = folder + "/report"
            environment = dict(os.environ, LD_PRELOAD=arguments.injector, QOR_INJECT=name, QOR_INJECT_AT=str(at),
                               QOR_INJECT_WITH=str(code), QOR_INJECT_REPORT=report)
            run = subprocess.run([arguments.driver, "both", "unix:" + folder + "/socket", "20"], env=environment,
                                 capture_output=True, text=True, timeout=LONG, check=False)
            left = [each for each in os.listdir(folder) if each != "report"]
            return run, os.path.exists(report), left

    def check(self, name, code, text=None):
        at = 0
        while True:
            at += 1
            run, fired, left = self.run_with(name, at, code)
            place = f"{name} {at}: {run}"
            if run.returncode == 0:
                self.assertEqual((run.stdout, run.stderr), ("same\n", ""), place)
            else:
                self.assertEqual(run.returncode, 1, place)
                self.assertTrue(run.stderr, place)
                if text is not None:
                    self.assertTrue(any(each in run.stderr for each in (text, *ENDED)), place)
            # Without the lock, nobody may remove the file.
            self.assertEqual(left, ["socket.lock"] if name == "flock" and fired else [], place)
            if not fired:
                return at - 1

    def test_each_call(self):
        for name, code in (("socket", errno.EMFILE), ("bind", errno.EACCES), ("listen", errno.ENOMEM),
                           ("connect", errno.EPERM), ("fchmod", errno.EPERM), ("flock", errno.ENOLCK),
                           ("accept4", errno.EMFILE), ("accept4", errno.ECONNABORTED), ("epoll_create1", errno.EMFILE),
                           ("epoll_ctl", errno.ENOSPC), ("epoll_wait", errno.EINTR), ("eventfd", errno.EMFILE),
                           ("recv", errno.ENOMEM), ("recv", errno.EINTR), ("recv", errno.EAGAIN),
                           ("recv", errno.ECONNRESET), ("send", errno.ENOBUFS), ("send", errno.EINTR),
                           ("send", errno.EAGAIN), ("send", errno.EPIPE), ("poll", errno.EINTR)):
            with self.subTest(name=name, code=errno.errorcode[code]):
                count = self.check(name, code, os.strerror(code))
                if name != "poll":
                    self.assertGreater(count, 0)

    def test_short_counts(self):
        for name in ("recv", "send"):
            with self.subTest(name=name):
                self.assertGreater(self.check(name, "short"), 0)


if __name__ == "__main__":
    unittest.main(argv=["faults_test_posix.py", *rest], verbosity=2)
