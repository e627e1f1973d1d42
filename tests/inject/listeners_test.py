#!/usr/bin/env python3
"""Lets each system call of listeners and connections fail in turn: listeners_test.py --driver PROGRAM --injector LIBRARY

A peer asks for an echo. It gets that or a closed connection, and never anything else. After one failed call the listener
serves the next peer, or says that it does not listen; after its end, another one can be made, and the driver has as many
descriptors as without a fault. Where every call fails, it does not consume the processor.
"""

import argparse
import errno
import os
import socket
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402

options = None

CALLS = {"socket": [errno.EMFILE, errno.EAFNOSUPPORT], "bind": [errno.EADDRINUSE, errno.EACCES],
         "listen": [errno.EADDRINUSE], "pipe2": [errno.EMFILE, errno.ENFILE],
         "accept4": [errno.EMFILE, errno.ENFILE, errno.ENOMEM, errno.ENOBUFS, errno.ECONNABORTED, errno.EINTR,
                     errno.EPERM, errno.EINVAL],
         "fstat": [errno.EIO], "poll": [errno.EINTR, errno.ENOMEM, errno.EINVAL],
         "recv": [errno.EINTR, errno.ECONNRESET, errno.ETIMEDOUT], "send": [errno.EINTR, errno.EPIPE, errno.ENOBUFS],
         "shutdown": [errno.ENOTCONN]}
WORD = b"an echo that is not short"


def echo(port):
    """Returns what comes back, up to the end."""
    try:
        with socket.create_connection(("127.0.0.1", port), 60) as peer:
            peer.sendall(WORD)
            peer.shutdown(socket.SHUT_WR)
            back = b""
            while part := peer.recv(1000):
                back += part
            return back
    except OSError as error:
        # A peer that has reset the connection already leaves none to shut down.
        if not isinstance(error, ConnectionError) and error.errno != errno.ENOTCONN:
            raise
        return b""


class Listeners(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.report = Path(folder.name) / "report"
        self.injector = linked(options.injector, folder.name)

    def environment(self, call, error, at, count=1):
        self.report.unlink(missing_ok=True)
        return {"LC_ALL": "C", "LD_PRELOAD": str(self.injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                "QOR_INJECT_COUNT": str(count), "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(self.report)}

    def listen(self, driver):
        """Returns the port, None after an error that names the reason, or 0 if the library was not bound."""
        answer = driver.ask("listen")
        if answer is None:
            self.assertEqual(driver.process.wait(), 100)
            return 0
        if failed(answer):
            self.assertIn(answer[0], (267, 268), answer)
            return None
        return int(decode(answer[0]))

    def play(self, environment):
        """Returns whether a call has failed."""
        with Driver([options.driver], environment) as driver:
            port = self.listen(driver)
            if port == 0:
                return True
            if port is not None:
                self.assertIn(echo(port), (WORD, b""))
            fired = self.report.exists()
            self.assertFalse(failed(driver.ask("close")))
            fired = fired or self.report.exists()
            if not fired:
                return False
            again = self.listen(driver)
            self.assertTrue(again)
            self.assertEqual(echo(again), WORD)
            self.assertFalse(failed(driver.ask("close")))
            # Standard streams and the bell; the thread may just be closing the connection.
            for _ in range(1000):
                if len(os.listdir(f"/proc/{driver.process.pid}/fd")) == 5:
                    break
                time.sleep(0.01)
            self.assertEqual(len(os.listdir(f"/proc/{driver.process.pid}/fd")), 5)
        return True

    def test_each_call(self):
        counts = dict.fromkeys(CALLS, 0)
        for call, errors in CALLS.items():
            for error in errors:
                for at in range(1, 100):
                    with self.subTest(call=call, at=at, error=errno.errorcode[error]):
                        if not self.play(self.environment(call, error, at)):
                            break
                        counts[call] += 1
        self.assertEqual([call for call, count in counts.items() if count == 0], [])

    def test_a_call_that_always_fails_does_not_consume_the_processor(self):
        for call, error in [("accept4", errno.EMFILE), ("accept4", errno.ENOMEM), ("poll", errno.EINVAL)]:
            with self.subTest(call=call, error=errno.errorcode[error]):
                with Driver([options.driver], self.environment(call, error, 1, 0)) as driver:
                    port = self.listen(driver)
                    with socket.create_connection(("127.0.0.1", port), 60):
                        time.sleep(1)
                        words = Path(f"/proc/{driver.process.pid}/stat").read_text().rpartition(")")[2].split()
                    self.assertLess((int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK"), 0.5)
                    self.assertFalse(failed(driver.ask("close")))
                    self.assertTrue(self.report.exists())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
