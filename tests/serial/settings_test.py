#!/usr/bin/env python3
"""Settings of serial ports beside stty and pyserial, on pseudo-terminals; and each of their system calls failing.

    settings_test.py --driver PROGRAM [--injector LIBRARY]
"""

import argparse
import errno
import fcntl
import itertools
import os
import pty
import re
import subprocess
import sys
import tempfile
import termios
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
sys.path.append("/usr/lib/python3/dist-packages")  # a Python of its own may lack what Debian's has
import serial  # noqa: E402
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402

options = None
NOT_TAKEN, INVALID, IN_USE = 330, 3, 71
EVEN, MARK = 2, 3

# What decides about bytes and characters, for each field of a terminal's settings. pyserial leaves BRKINT on.
INPUT, OUTPUT, CONTROL, LINE = range(4)
MASKS = {
    INPUT: termios.IXON | termios.IXOFF | termios.IGNBRK | termios.PARMRK | termios.ISTRIP
    | termios.INLCR | termios.IGNCR | termios.ICRNL | termios.INPCK,
    OUTPUT: termios.OPOST,
    CONTROL: termios.CSIZE | termios.CSTOPB | termios.PARENB | termios.CREAD | termios.CLOCAL | termios.CRTSCTS,
    LINE: termios.ICANON | termios.ECHO | termios.ECHONL | termios.ISIG | termios.IEXTEN,
}


class Terminal:
    """A pseudo-terminal with settings that are far from those of a serial line."""

    def __init__(self, test):
        self.other_end, self.end = pty.openpty()
        for end in (self.other_end, self.end):
            test.addCleanup(os.close, end)
        self.name = os.ttyname(self.end)
        subprocess.run(["stty", "-F", self.name, "sane", "300"], check=True)

    def settings(self):
        return termios.tcgetattr(self.end)

    def facts(self):
        now = self.settings()
        return [now[field] & mask for field, mask in MASKS.items()] + now[4:6]

    def stty(self):
        return subprocess.run(["stty", "-a", "-F", self.name], check=True, capture_output=True, text=True).stdout


class Settings(unittest.TestCase):
    def setUp(self):
        self.driver = Driver([options.driver], {"LC_ALL": "C"})
        self.addCleanup(self.driver.__exit__)

    def good(self, *words):
        answer = self.driver.ask(*words)
        self.assertFalse(failed(answer) or answer is None, (words, answer))
        return answer

    def bad(self, error, *words):
        answer = self.driver.ask(*words)
        self.assertTrue(failed(answer), (words, answer))
        self.assertEqual(answer[0], error, answer)
        return answer[1]

    def test_like_pyserial(self):
        rates = [50, 300, 9600, 19200, 115200, 921600, 4000000]
        for rate, stop, rts_cts, xon_xoff in itertools.product(rates, (1, 2), (0, 1), (0, 1)):
            with self.subTest(rate=rate, stop=stop, rts_cts=rts_cts, xon_xoff=xon_xoff):
                ours, theirs = Terminal(self), Terminal(self)
                self.good("open", ours.name, 0, rate, 8, stop * 2, 0, rts_cts, xon_xoff)
                port = serial.Serial()
                port.port, port.baudrate, port.stopbits = theirs.name, rate, stop
                port.rtscts, port.xonxoff = bool(rts_cts), bool(xon_xoff)
                port.open()
                self.assertEqual(ours.facts(), theirs.facts())
                port.close()
                self.assertEqual(self.good("settings"),
                                 [str(each) for each in (rate, 8, stop * 2, 0, rts_cts, xon_xoff)])
                self.good("close")

    def test_like_stty(self):
        terminal = Terminal(self)
        self.good("open", terminal.name, 0, 115200, 8, 4, 0, 1, 1)
        said = terminal.stty()
        self.assertIn("speed 115200 baud", said)
        for word in ("cs8", "cstopb", "-parenb", "crtscts", "ixon", "ixoff", "-icanon", "-echo", "-isig", "-iexten",
                     "-icrnl", "-opost", "cread", "clocal", "min = 1", "time = 0", "start = ^Q", "stop = ^S"):
            self.assertRegex(said, rf"(?<![-\w]){re.escape(word)}(?!\w)", said)
        # The other way round: what stty sets is what the port tells.
        subprocess.run(["stty", "-F", terminal.name, "19200", "-cstopb", "-crtscts", "-ixon", "ixoff"], check=True)
        self.assertEqual(self.good("settings"), ["19200", "8", "2", "0", "0", "1"])

    def test_any_rate(self):
        terminal = Terminal(self)
        self.good("open", terminal.name, 0, "", "", "", "", "", "")
        for rate in (1, 76, 12345, 31250, 250000, 10_000_000, 4294967295):
            self.good("set", rate, 8, 2, 0)
            self.assertEqual(self.good("settings")[0], str(rate))

    def test_what_the_driver_drops_is_refused(self):
        """The driver of pseudo-terminals drops parity and the number of data bits, and says nothing. pyserial takes
        that for a success."""
        for words in ((9600, 7, 2, 0), (9600, 8, 2, EVEN), (9600, 8, 2, MARK), (9600, 5, 3, 0)):
            with self.subTest(words=words):
                terminal = Terminal(self)
                before = terminal.settings()
                text = self.bad(NOT_TAKEN, "open", terminal.name, 0, *words)
                self.assertIn(f"'{terminal.name[5:]}'", text)
                self.assertEqual(terminal.settings(), before)
        self.bad(INVALID, "open", Terminal(self).name, 0, 9600, 9, 2, 0)

    def test_settings_at_the_end(self):
        for closing, is_restored in ((0, False), (1, True)):
            terminal = Terminal(self)
            before = terminal.settings()
            self.good("open", terminal.name, closing, 57600, 8, 4, 0, 1, 0)
            self.good("set", 250000, 8, 2, 0)
            self.good("close")
            self.assertEqual(terminal.settings() == before, is_restored)
            if is_restored:
                self.assertEqual(terminal.stty().split("\n")[0].split(";")[0], "speed 300 baud")

    def test_with_pyserial_at_the_other_end(self):
        """Every byte passes in both directions, although the terminal was in line mode before."""
        terminal = Terminal(self)
        self.good("open", terminal.name, 0, 115200, 8, 2, 0, 0, 0)
        every_byte = bytes(range(256))
        self.good("write", every_byte)
        self.good("flush")
        heard = b""
        while len(heard) < len(every_byte):
            heard += os.read(terminal.other_end, 300)
        self.assertEqual(heard, every_byte)
        os.write(terminal.other_end, every_byte)
        self.assertEqual(decode(self.good("read", 256, 60000, 60000)[0]), every_byte)
        self.assertEqual(decode(self.good("read", 256, 10, 60000)[0]), b"")

    def test_two_programs(self):
        terminal = Terminal(self)
        self.good("open", terminal.name, 0)
        with Driver([options.driver], {"LC_ALL": "C"}) as second:
            answer = second.ask("open", terminal.name, 0)
            self.assertTrue(failed(answer))
            self.assertIn("in use", answer[1])
            self.good("close")
            self.assertEqual(second.ask("open", terminal.name, 0), [])

    def test_a_program_that_is_killed(self):
        """Nobody lifts the exclusive mode then; it ends with the last descriptor. The lock ends with the process."""
        terminal = Terminal(self)
        with Driver([options.driver], {"LC_ALL": "C"}) as second:
            self.assertEqual(second.ask("open", terminal.name, 0), [])
            second.process.kill()
            second.process.wait()
        self.assertIn("in use", self.bad(IN_USE, "open", terminal.name, 0))  # this test has it open
        fcntl.ioctl(terminal.end, termios.TIOCNXCL)
        self.good("open", terminal.name, 0)

    def test_hang_up(self):
        other_end, end = pty.openpty()
        name = os.ttyname(end)
        self.good("open", name, 1, 9600, 8, 2, 0)
        os.close(end)
        os.close(other_end)
        for words in (("read", 5, 60000, 60000), ("write", b"x"), ("set", 300, 8, 2, 0), ("settings",)):
            answer = self.driver.ask(*words)
            self.assertTrue(failed(answer), words)
            self.assertIn(f"'{name[5:]}'", answer[1])
        self.good("close")


class Faults(unittest.TestCase):
    """Each system call fails in turn. The run that follows succeeds, so nothing is left locked or open."""

    CALLS = {"ioctl": [errno.EIO, errno.ENOTTY, errno.EINVAL], "open": [errno.EMFILE, errno.EINTR, errno.EACCES],
             "flock": [errno.EWOULDBLOCK, errno.ENOLCK], "poll": [errno.EINTR, errno.ENOMEM],
             "read": [errno.EINTR, errno.EAGAIN, errno.EIO], "write": [errno.EINTR, errno.EAGAIN, errno.EIO, "short"]}

    def play(self, terminal, driver):
        """Returns the answers; None stands for a process whose own input or output was cut."""
        answers = []
        for words in (("open", terminal.name, 1, 57600, 8, 4, 0, 1, 1), ("set", 31250, 8, 2, 0), ("settings",),
                      ("write", b"text"), ("read", 5, 60000, 60000), ("close",), ("descriptors",)):
            if words[0] == "read":
                os.write(terminal.other_end, b"hello")
            answers.append(driver.ask(*words))
            if answers[-1] is None or failed(answers[-1]) and words[0] == "open":
                break
            if words[0] == "write" and not failed(answers[-1]):
                os.read(terminal.other_end, 100)
        return answers

    def test_each_call(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        injector, report = linked(options.injector, folder.name), Path(folder.name) / "report"
        terminal = Terminal(self)
        before = terminal.settings()

        def run(environment):
            report.unlink(missing_ok=True)
            with Driver([options.driver], {"LC_ALL": "C", **environment}, stderr=subprocess.DEVNULL) as driver:
                answers = self.play(terminal, driver)
            termios.tcflush(terminal.end, termios.TCIOFLUSH)
            return answers, report.exists()

        plain, _ = run({})
        self.assertFalse(any(failed(answer) or answer is None for answer in plain), plain)
        self.assertEqual(terminal.settings(), before)
        counts = dict.fromkeys(self.CALLS, 0)
        for call, errors in self.CALLS.items():
            for error in errors:
                for at in range(1, 200):
                    with self.subTest(call=call, error=error, at=at):
                        answers, has_fired = run({
                            "LD_PRELOAD": str(injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                            "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(report)})
                        for answer in answers:
                            if failed(answer):
                                self.assertIn(terminal.name[5:], answer[1])
                        if len(answers) == len(plain):
                            # No descriptor is left, unless the driver itself cannot count them.
                            self.assertIn(answers[-1], (plain[-1], None))
                        elif answers[-1] is not None:
                            self.assertTrue(failed(answers[-1]))
                        # The exclusive mode of a program that could not lift it lasts as long as this test's own end.
                        termios.tcsetattr(terminal.end, termios.TCSANOW, before)
                        fcntl.ioctl(terminal.end, termios.TIOCNXCL)
                        again, _ = run({})
                        self.assertEqual(again, plain)
                    if not has_fired:
                        break
                    counts[call] += 1
        self.assertEqual([call for call, count in counts.items() if count == 0], [], counts)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector")
    options, rest = parser.parse_known_args()
    if options.injector is None:
        del Faults  # there is no injector with a sanitizer
    unittest.main(argv=[sys.argv[0], *rest])
