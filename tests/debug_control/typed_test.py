#!/usr/bin/env python3
"""A name and a password with letters beyond ASCII, typed at a terminal.

usage: typed_test.py --tool QORTOOL --ticker TICKER [--runner PROGRAM]
"""

import os
import pty
import select
import time
import unicodedata

import listening
from listening import TIMEOUT, Listening, trust, verifier

NAME, PASSWORD = "jürgen.ж", "pässwört €"


class Terminal:
    """A program on a terminal of its own."""

    def __init__(self, command, environment):
        self.seen = b""
        self.child, self.terminal = pty.fork()
        if self.child == 0:
            os.execvpe(command[0], command, environment)

    def until(self, words):
        """Returns whether the terminal has shown these words. A terminal of Windows shows blanks as movements."""
        wanted = words.replace(" ", "").encode()
        end = time.monotonic() + TIMEOUT
        while wanted not in self.seen.replace(b" ", b""):
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
        self.assertTrue(console.until("Username:"), console.seen)
        console.type(NAME)
        self.assertTrue(console.until("Password:"), console.seen)
        self.assertIn(unicodedata.normalize("NFC", NAME).encode(), console.seen)  # its echo
        console.type(PASSWORD)
        self.assertTrue(console.until("Debug>"), console.seen)


if __name__ == "__main__":
    listening.main()
