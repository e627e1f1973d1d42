#!/usr/bin/env python3
"""A name and a password with letters beyond ASCII, typed at a terminal.

usage: typed_test.py --tool QORTOOL --ticker TICKER [--runner PROGRAM]
"""

import os
import pty
import re
import select
import time
import tty

import listening
from listening import TIMEOUT, Listening, trust, verifier

STEERING = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]|\x1b\][^\x07]*\x07")
NAME, PASSWORD = "jürgen.ж", "pässwört €"


class Terminal:
    """A program on a terminal of its own."""

    def __init__(self, command, environment):
        self.seen = b""
        self.child, self.terminal = pty.fork()
        if self.child == 0:
            # Wine does so itself, but only when the program reads. What was typed before would get other line ends.
            if listening.tool.for_windows:
                tty.setraw(0)
            os.execvpe(command[0], command, environment)

    def text(self):
        """Returns what was shown, without movements of the cursor. Wine moves it for each character."""
        return STEERING.sub(b"", self.seen)

    def until(self, words):
        """Returns whether the terminal has shown these words."""
        end = time.monotonic() + TIMEOUT
        while words.encode() not in self.text():
            if not select.select([self.terminal], [], [], max(0, end - time.monotonic()))[0]:
                return False
            try:
                self.seen += os.read(self.terminal, 65536)
            except OSError:  # the program has ended
                return False
        return True

    def type(self, line):
        self.seen = b""
        os.write(self.terminal, line.encode() + b"\r")

    def end(self):
        os.close(self.terminal)
        end = time.monotonic() + TIMEOUT
        while os.waitpid(self.child, os.WNOHANG) == (0, 0):
            if time.monotonic() > end:
                os.kill(self.child, 9)
            time.sleep(0.05)


class Typed(Listening):
    def test_a_name_and_a_password(self):
        self.users.write_text(f"{NAME}:{verifier(PASSWORD.encode())}\n")
        self.listen()
        trust(listening.tool, self.users, "localhost", self.port, self.environment())
        console = Terminal([*listening.tool.command, "debug-control", "localhost", str(self.port)],
                           self.environment() | {"TERM": "xterm"})
        self.addCleanup(console.end)
        self.assertTrue(console.until("Username:"), console.text())
        console.type(NAME)
        self.assertTrue(console.until("Password:"), console.text())
        self.assertIn(NAME.encode(), console.text())  # its echo
        console.type(PASSWORD)
        self.assertTrue(console.until("Debug>"), console.text())


if __name__ == "__main__":
    listening.main()
