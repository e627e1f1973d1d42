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

    def answer_in_capitals(self, length):
        heard = b""
        while len(heard) < length:
            heard += os.read(self.other_end, 64)
        os.write(self.other_end, heard.upper())

    def talk(self, *rate):
        """Returns what the client prints about the settings and the talk."""
        text = "Hello, port"
        other = threading.Thread(target=self.answer_in_capitals, args=(len(text),), daemon=True)
        other.start()
        code, out, err = self.run_program(options.client, self.name, text, *rate)
        self.assertEqual((code, err), (0, ""))
        other.join()
        return out

    def test_what_is_sent_comes_and_is_answered(self):
        before = termios.tcgetattr(self.end)
        self.assertEqual(self.talk(), "19200 bits per second, 8 data bits, 2 half stop bits, parity 0\n"
                         "11 sent, 'HELLO, PORT' came, 0 wait\n")
        self.assertEqual(termios.tcgetattr(self.end), before)

    def test_settings_reach_the_port(self):
        self.assertEqual(self.talk("57600"), "57600 bits per second, 8 data bits, 4 half stop bits, parity 0\n"
                         "11 sent, 'HELLO, PORT' came, 0 wait\n")
        now = termios.tcgetattr(self.end)
        self.assertEqual(now[4:6], [termios.B57600] * 2)
        self.assertEqual(now[0] & (termios.IXON | termios.IXOFF), termios.IXON | termios.IXOFF)
        self.assertEqual(now[2] & (termios.CSTOPB | termios.PARENB), termios.CSTOPB)

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
