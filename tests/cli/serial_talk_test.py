#!/usr/bin/env python3
"""A client and `qortool ttyinfo` on a pseudo-terminal whose other end answers. Wine treats one as a COM port.

usage: serial_talk_test.py --tool PATH --client PATH [--runner PROGRAM]
"""

import argparse
import os
import pty
import subprocess
import sys
import termios
import threading
import tty
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

PORT_IN_WINE = "COM77"  # Wine uses the first few itself

options = None


class Talk(unittest.TestCase):
    def setUp(self):
        self.other_end, self.end = pty.openpty()
        for end in (self.other_end, self.end):
            self.addCleanup(os.close, end)
        tty.setraw(self.end)
        settings = termios.tcgetattr(self.end)
        settings[4] = settings[5] = termios.B19200
        termios.tcsetattr(self.end, termios.TCSANOW, settings)
        self.name = os.ttyname(self.end)
        self.own_name = self.name[5:]
        if Tool(options.tool).for_windows:
            if not options.runner:
                self.skipTest("there are no pseudo-terminals that are ports")
            link = Path(options.tool).resolve().parent.parent / "wine/dosdevices" / PORT_IN_WINE.lower()
            link.unlink(missing_ok=True)
            link.symlink_to(self.name)
            self.addCleanup(link.unlink)
            self.name = self.own_name = PORT_IN_WINE

    def run_program(self, path, *words):
        program = Tool(path, options.runner)
        done = subprocess.run([*program.command, *words], stdin=subprocess.DEVNULL, capture_output=True,
                              env=program.environment(), timeout=250)
        return done.returncode, program.printed(done.stdout).decode(), program.printed(done.stderr).decode()

    def test_what_is_sent_comes_and_is_answered(self):
        text = "Hello, port"

        def answer():
            heard = b""
            while len(heard) < len(text):
                heard += os.read(self.other_end, 64)
            os.write(self.other_end, heard.upper())

        other = threading.Thread(target=answer, daemon=True)
        other.start()
        before = termios.tcgetattr(self.end)
        self.assertEqual(self.run_program(options.client, self.name, text),
                         (0, "19200 bits per second, 8 data bits, 2 half stop bits, parity 0\n"
                          "11 sent, 'HELLO, PORT' came, 0 wait\n", ""))
        self.assertEqual(termios.tcgetattr(self.end), before)
        other.join()

    def test_ttyinfo_leaves_it_as_it_was(self):
        before = termios.tcgetattr(self.end)
        code, out, err = self.run_program(options.tool, "--quiet", "ttyinfo", self.name)
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(out.startswith(f"Port name = '{self.own_name}'\nLocation = '"), out)
        self.assertEqual(termios.tcgetattr(self.end), before)


def main():
    global options
    parser = argparse.ArgumentParser()
    add_options(parser)
    parser.add_argument("--client", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
