#!/usr/bin/env python3
"""Texts from any source, printed on a terminal: no byte may control it. A file gets the bytes unchanged.

usage: terminal_test.py --tool PATH --odd-codes PATH --wrapper LIBNSS_WRAPPER

Each program is run twice, into a pipe and on a terminal. The terminal must get the bytes of the pipe, made visible as
docs/terminals.md describes; a plain implementation of that page computes the expected text.
"""

import argparse
import os
import pty
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import tty
import unicodedata
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
sys.path.append(str(Path(__file__).resolve().parent.parent / "debug_control"))
import listening  # noqa: E402  # in tests/debug_control
from tool import Tool  # noqa: E402

TIMEOUT = 120
SKIPPED_SPACES = "this system has no name spaces for us"

# A colour, the same by C1 in UTF-8 and in eight bits, a title, a carriage return, a bell, DEL, and text that runs
# backwards.
EVIL = b"red \x1b[31m c1 \xc2\x9b31m raw \x9b31m title \x1b]0;me\x07 back \r del \x7f bidi \xe2\x80\xaegnp.exe \xe2\x81\xa6"
FINE = "Zwölf Boxkämpfer jagen Viktor, 日本語, \U0001f600, עברית\u200e".encode()

options = None
tool = None


def one_word(text):
    """Returns the text as a log contains it."""
    return text.replace(b" ", b"_").replace(b"\r", b"")


def visible(data):
    """Returns the text that a terminal must get, computed without regard to speed."""
    out = b""
    for char in data.decode("utf-8", "surrogateescape"):
        raw = char.encode("utf-8", "surrogateescape")
        control = unicodedata.category(char) == "Cc" and char not in "\n\t"
        turning = unicodedata.bidirectional(char) in ("LRE", "RLE", "PDF", "LRO", "RLO", "LRI", "RLI", "FSI", "PDI")
        no_text = unicodedata.category(char) == "Cs"
        out += b"".join(b"\\x%02x" % byte for byte in raw) if control or turning or no_text else raw
    return out


class BothWays(unittest.TestCase):
    maxDiff = 2000

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()

    def run_in_pipe(self, command, **more):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=TIMEOUT, **more)
        return done.returncode, done.stdout

    def run_in_terminal(self, command, **more):
        """Runs the program with both streams on a terminal that passes bytes unchanged."""
        ours, its = pty.openpty()
        tty.setraw(its)
        seen = []

        def read():
            try:
                while part := os.read(ours, 65536):
                    seen.append(part)
            except OSError:  # the other side is closed
                pass

        reader = threading.Thread(target=read)
        reader.start()
        code = subprocess.run(command, stdout=its, stderr=its, timeout=TIMEOUT, **more).returncode
        os.close(its)
        reader.join()
        os.close(ours)
        return code, b"".join(seen)

    def compare(self, words, shown=EVIL, command=None, variables=None, own=lambda text: text, **more):
        """Runs a program both ways. `shown` must be in the pipe's output; `own` removes the program's own control
        bytes."""
        command = command or [*tool.command, "--quiet", *words]
        more = {"cwd": self.folder, "env": tool.environment() | (variables or {}), "input": b"", **more}
        code, piped = self.run_in_pipe(command, **more)
        self.assertTrue(shown in piped, piped[:2000])
        code_there, there = self.run_in_terminal(command, **more)
        self.assertEqual(code_there, code)
        self.assertEqual(own(there), visible(own(piped)))
        return piped


class Terminal(BothWays):
    # ---- words of the command line in messages

    def test_names_of_files(self):
        self.compare(["md5sum", EVIL])
        self.compare(["mtrace", EVIL])
        self.compare(["memcheck", EVIL])

    def test_names_of_hosts_and_ports_and_users(self):
        for action in ("lookup", "ttyinfo", "userinfo"):
            with self.subTest(action):
                self.compare([action, EVIL])

    def test_unknown_actions_and_options(self):
        self.compare([EVIL])
        self.compare([b"--" + EVIL])
        self.compare(["dow", b"--" + EVIL])

    def test_fine_texts_stay(self):
        for action in ("md5sum", "lookup"):
            self.assertIn(FINE, self.compare([action, FINE], FINE))

    def test_any_bytes(self):
        generator = random.Random(4711)
        pieces = [bytes([byte]) for byte in range(1, 256) if byte != ord("/")] + [
            chr(code).encode("utf-8", "surrogatepass") for code in
            [*range(0x80, 0xa1), 0xad, 0x61c, *range(0x2028, 0x2030), *range(0x2060, 0x2070), 0xd800, 0xfeff, 0xffff, 0x10ffff]]
        for _ in range(40):
            # Long names too, which take another path through the library.
            name = b"".join(generator.choices(pieces, k=generator.choice([20, 2000])))
            self.compare(["md5sum", name], name)

    # ---- texts from elsewhere

    def test_heap_logs(self):
        caller = one_word(EVIL)
        (self.folder / "log").write_bytes(b"@ %s + 0x1000 5\n@ %s \x1b\xc2\x9b 0x2000\n@ %s - 0x3000\n" % (caller, caller, caller))
        (self.folder / "check").write_bytes(b"A 1 5 0 3 %s\nT 1 %s\nT 7 %s\n\x9b 1 2\n\x1b 1 2\n" % (caller, caller, caller))
        self.assertIn(b"LEAK", self.compare(["mtrace", "log"], caller))
        self.assertIn(b"entries left", self.compare(["mtrace", "log", "check"], caller))
        self.assertIn(b"\x9b", self.compare(["memcheck", "check"], b"Invalid memcheck line code \x1b"))

    def test_long_texts_of_heap_logs(self):
        caller = one_word(EVIL) * 2000
        (self.folder / "log").write_bytes(b"@ %s + 0x1000 5\n" % caller)
        self.compare(["mtrace", "log"], caller)

    def test_reports_of_many_lines(self):
        callers = [b"%s.%d" % (one_word(FINE), i) if i % 7 else one_word(EVIL) for i in range(5000)]
        (self.folder / "log").write_bytes(
            b"".join(b"@ %s + 0x%x 5\n" % (caller, 0x100000 + 32 * i) for i, caller in enumerate(callers)))
        self.compare(["mtrace", "log"], callers[0], own=lambda text: text.replace(b"\r", b""))

    def test_progress_steers(self):
        (self.folder / "log").write_bytes(b"".join(b"@ a + 0x%x 5\n" % (0x100000 + 32 * i) for i in range(20)))
        self.assertIn(b"\n20\r\n", self.run_in_terminal([*tool.command, "--quiet", "mtrace", "log"], cwd=self.folder,
                                                        env=tool.environment())[1])

    def test_accounts(self):
        field = EVIL.replace(b":", b".").replace(b"\r", b"")
        (self.folder / "passwd").write_bytes(b"ann:x:4001:4001:%s:/:/bin/sh\n" % field)
        (self.folder / "group").write_bytes(b"people:x:4001:\n")
        variables = {"NSS_WRAPPER_PASSWD": str(self.folder / "passwd"), "NSS_WRAPPER_GROUP": str(self.folder / "group"),
                     "LD_PRELOAD": options.wrapper,
                     "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0",
                     "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + ":report_mutex_bugs=0"}
        self.compare(["userinfo", "ann"], field, variables=variables)

    def in_name_space(self, script, words, shown, mounts="-m", needs=("true",)):
        """Runs the tool from a script, in name spaces of its own."""
        prefix = next((each for each in (["unshare", mounts], ["unshare", "-r", mounts])
                       if shutil.which("unshare") and subprocess.run([*each, *needs], capture_output=True).returncode == 0), None)
        if prefix is None:
            self.skipTest(SKIPPED_SPACES)
        command = [*prefix, "sh", "-c", script + ' && exec "$@"', self.folder, *tool.command, "--quiet", *words]
        self.compare(None, shown, command)

    def test_os_release(self):
        if not Path("/etc/os-release").exists():
            self.skipTest("there is no /etc/os-release here")
        text = one_word(EVIL)
        (self.folder / "os-release").write_bytes(b'NAME=Odd\nID=odd\nPRETTY_NAME="%s"\n' % text)
        # Free memory differs from run to run.
        (self.folder / "meminfo").write_text("MemTotal: 8 kB\nMemFree: 4 kB\nMemAvailable: 4 kB\n")
        self.in_name_space('mount --bind "$0/os-release" "$(realpath /etc/os-release)" && mount --bind "$0/meminfo" /proc/meminfo',
                           ["sysinfo"], text, needs=("mount", "--bind", "/", "/"))

    def test_interfaces(self):
        if subprocess.run(["unshare", "-r", "-n", "ip", "link", "add", "d0", "type", "bridge"], capture_output=True).returncode:
            self.skipTest(SKIPPED_SPACES)
        name = b"a\x1b[1m\xc2\x9bb"
        (self.folder / "alias").write_bytes(EVIL)
        (self.folder / "name").write_bytes(name)
        script = ('ip link add d0 address 02:00:00:00:00:01 type bridge && ip link set d0 alias "$(cat "$0/alias")" && '
                  'ip link set d0 name "$(cat "$0/name")"')
        command = ["unshare", "-r", "-n", "sh", "-c", script + ' && exec "$@"', self.folder, *tool.command, "--quiet", "netlist"]
        self.assertIn(name, self.compare(None, EVIL, command))

    def test_serial_ports(self):
        kernel = self.folder / "sys/class/tty"
        usb = self.folder / "sys/devices/usb1/1-2"
        port = usb / "1-2:1.0/ttyUSB0/tty/ttyUSB0"
        for folder in (kernel, port, self.folder / "dev", self.folder / "sys/bus/usb", self.folder / "sys/bus/usb-serial"):
            folder.mkdir(parents=True)
        (port / "dev").write_text("250:0\n")
        (port / "device").symlink_to("../..")
        for device, bus in ((usb, "usb"), (usb / "1-2:1.0", "usb"), (usb / "1-2:1.0/ttyUSB0", "usb-serial")):
            (device / "subsystem").symlink_to(os.path.relpath(self.folder / "sys/bus" / bus, device))
        for name, text in (("product", EVIL), ("manufacturer", b"odd"), ("idVendor", b"0403"), ("idProduct", b"6001"),
                           ("busnum", b"1"), ("devpath", b"2")):
            (usb / name).write_bytes(text + b"\n")
        (usb / "1-2:1.0/bInterfaceNumber").write_text("00\n")
        (kernel / "ttyUSB0").symlink_to(os.path.relpath(port, kernel))
        (self.folder / "dev/ttyUSB0").touch()
        self.in_name_space('mount --bind "$0/sys" /sys && mount --bind "$0/dev" /dev', ["list-serial"], EVIL, needs=("mount", "--bind", "/", "/"))


class OddCodes(listening.Listening, BothWays):
    """Another process with trace codes of odd names."""

    def setUp(self):
        listening.Listening.setUp(self)

    def environment(self):
        return super().environment() | {"ODD_NAME": os.fsdecode(EVIL)}

    def test_remote_codes(self):
        listening.ticker = Tool(options.odd_codes)
        self.listen()
        # Otherwise the first run would report an unknown key, and the second would not.
        listening.trust(tool, self.users, "localhost", self.port, self.environment())
        more = {"input": b"ann\nsecret\nshow-all\nenable *\nshow-enabled\n", "variables": self.environment()}
        self.compare(["debug-control", "localhost", str(self.port)], b"\n" + EVIL + b"\n", **more)

    def test_trace(self):
        """Times and processes differ, but not the text after them."""
        def texts(data):
            return b"".join(line.split(b" ", 2)[2] for line in data.splitlines(keepends=True))

        command = [options.odd_codes, "--qor-debug=*", "1", "once"]
        piped = self.run_in_pipe(command, env=self.environment())[1].replace(b"\r", b"")
        self.assertIn(EVIL.replace(b"\r", b""), piped)
        there = self.run_in_terminal(command, env=self.environment())[1].replace(b"\\x0d", b"")
        self.assertEqual(texts(there), visible(texts(piped)))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tool", required=True)
    parser.add_argument("--odd-codes", required=True)
    parser.add_argument("--wrapper", required=True)
    options, rest = parser.parse_known_args()
    tool = listening.tool = Tool(options.tool)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
