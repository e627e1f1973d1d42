"""Shared code of the tests that need a listening process: the example "ticker", run as a separate program.

Their options: --tool QORTOOL --ticker TICKER [--runner PROGRAM]
"""

import argparse
import base64
import hashlib
import hmac
import os
import random
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

TIMEOUT = 60  # seconds; instrumented builds on a busy machine are slow

tool = None
ticker = None


def verifier(password, iterations=4096):
    """Returns the stored form of a password, as in an accounts file."""
    salt = os.urandom(16)
    salted = hashlib.pbkdf2_hmac("sha256", password, salt, iterations)
    stored = hashlib.sha256(hmac.digest(salted, b"Client Key", "sha256")).digest()
    texts = [base64.b64encode(each).decode() for each in (salt, stored, hmac.digest(salted, b"Server Key", "sha256"))]
    return f"SCRAM-SHA-256${iterations}:{texts[0]}${texts[1]}:{texts[2]}"


def key_beside(users):
    """Returns the fingerprint of the key beside a file of accounts, computed by openssl."""
    public = subprocess.run(["openssl", "pkey", "-in", f"{users}.key", "-pubout", "-outform", "DER"], check=True, capture_output=True)
    return hashlib.sha256(public.stdout).hexdigest()


def trust(tool, users, host, port, environment):
    """Stores the key of a listener for later consoles."""
    program = str(tool.path.with_name("qor-debug-user" + tool.path.suffix))
    subprocess.run([*tool.command[:-1], program, "trust", host, str(port), key_beside(users)], check=True, capture_output=True,
                   env=environment)


class Listening(unittest.TestCase):
    """A test with an account "ann" that has the password "secret"."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.users = self.folder / "users"
        self.users.touch(mode=0o600)
        self.users.write_text(f"ann:{verifier(b'secret')}\n")
        self.trace = self.folder / "trace"

    def environment(self):
        return tool.environment() | {"XDG_CONFIG_HOME": str(self.folder), "HOME": str(self.folder)}

    def listen(self):
        """Starts a ticker that listens on self.port."""
        while True:
            self.port = random.randint(10000, 32000)
            words = ["20", f"--qor-debug-listen={self.port}", f"--qor-debug-users={self.users}",
                     f"--qor-debug-file={self.trace}", "--qor-debug=ticker.tick"]
            self.peer = subprocess.Popen([*ticker.command, *words], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                         env=self.environment())
            # It ticks once it listens; it ends if another process has the port.
            while self.peer.poll() is None and not (self.trace.exists() and self.trace.stat().st_size):
                time.sleep(0.01)
            if self.peer.poll() is None:
                self.addCleanup(self.stop)
                return
            err = self.peer.stderr.read().decode()
            self.peer.stderr.close()
            self.assertRegex(err, "in use|use")

    def stop(self):
        self.peer.kill()
        self.peer.wait()
        self.peer.stderr.close()

    def traced(self):
        """Returns the texts of the peer's trace lines, after time, process and thread."""
        return [line.split(" ", 2)[2] for line in self.trace.read_text().splitlines()]

    def wait_for_trace(self, line):
        """Waits until a line ends with these words."""
        until = time.monotonic() + TIMEOUT
        while not any(each.endswith(line) for each in self.traced()):
            self.assertLess(time.monotonic(), until, f"no {line} in {self.traced()[-20:]}")
            time.sleep(0.05)


def main():
    global tool, ticker
    parser = argparse.ArgumentParser()
    add_options(parser)
    parser.add_argument("--ticker", required=True)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    ticker = Tool(options.ticker, options.runner)
    unittest.main(argv=[sys.argv[0], *rest])
