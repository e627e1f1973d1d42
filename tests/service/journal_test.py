#!/usr/bin/env python3
"""The last lines of a service's log, from journals that systemd-journal-remote has written:
journal_test.py --driver PROGRAM

The journals lie in the system's folder, which only a mount namespace of the test's own shows. `journalctl` reads the
same lines.
"""

import argparse
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode  # noqa: E402  # in tests/support
from mocked_manager import running_manager  # noqa: E402
from name_space import name_space  # noqa: E402

options = None

WRITER = "/lib/systemd/systemd-journal-remote"
MACHINE = "0123456789abcdef0123456789abcdef"
INVOCATION = "0102030405060708090a0b0c0d0e0f10"  # as in manager_template.py
OTHER = "f" * 32
FAILED = 254


def entry(at, message, **fields):
    """An entry in the form of `journalctl -o export`. A message may be any bytes."""
    raw = message if isinstance(message, bytes) else message.encode()
    lines = {"__REALTIME_TIMESTAMP": str(1_700_000_000_000_000 + at), "__MONOTONIC_TIMESTAMP": str(1000 + at),
             "_BOOT_ID": "a" * 32, "_MACHINE_ID": MACHINE, **fields}
    head = "".join(f"{name}={value}\n" for name, value in lines.items()).encode()
    return head + b"MESSAGE\n" + len(raw).to_bytes(8, "little") + raw + b"\n\n"


class Journals(unittest.TestCase):
    def setUp(self):
        self.words = name_space()
        if self.words is None:
            self.skipTest("this host lets nobody mount")
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "machine-id").write_text(MACHINE + "\n")

    def write(self, entries):
        file = self.folder / "system.journal"
        subprocess.run([WRITER, f"--output={file}", "-"], input=b"".join(entries), check=True, capture_output=True)
        return file

    def in_name_space(self, *command):
        """Returns the words that run a command where the folder of journals has ours alone."""
        script = (f"mount -t tmpfs tmpfs /var/log && mkdir -p /var/log/journal/{MACHINE} && "
                  f"(! test -e '{self.folder}/system.journal' || "
                  f"cp '{self.folder}/system.journal' /var/log/journal/{MACHINE}) && "
                  f"mount --bind '{self.folder}/machine-id' /etc/machine-id && exec \"$@\"")
        return [*self.words, "sh", "-c", script, "sh", *command]

    def driver(self, environment):
        driver = Driver(self.in_name_space(options.driver), environment={"LC_ALL": "C", **environment})
        self.addCleanup(driver.__exit__)
        return driver

    def lines(self, name="exits", count=10, user=0):
        with running_manager() as manager:
            driver = self.driver({"DBUS_SYSTEM_BUS_ADDRESS": manager.bus.address,
                                  "DBUS_SESSION_BUS_ADDRESS": manager.bus.address})
            answer = driver.ask("start", name, user, 20_000, count)
            self.assertEqual(answer[0], FAILED, answer)
            return [decode(word).decode(errors="replace") for word in driver.ask("status")[9:]], answer[1]

    def journalctl(self, *matches):
        done = subprocess.run(self.in_name_space("journalctl", "--no-pager", "-q", "-o", "cat", *matches),
                              capture_output=True, text=True, check=True)
        return done.stdout.splitlines()

    def test_the_last_lines_of_the_last_start(self):
        entries = []
        for i in range(300):
            entries.append(entry(10 * i, f"line {i}", _SYSTEMD_INVOCATION_ID=INVOCATION, _PID="77"))
            entries.append(entry(10 * i + 1, "of another start", _SYSTEMD_INVOCATION_ID=OTHER,
                                 _SYSTEMD_UNIT="exits.service"))
            entries.append(entry(10 * i + 2, "pretended", INVOCATION_ID=INVOCATION, _PID="78"))
        entries.append(entry(5000, "Main process exited", INVOCATION_ID=INVOCATION, UNIT="exits.service", _PID="1"))
        self.write(entries)
        by_journalctl = self.journalctl(f"_SYSTEMD_INVOCATION_ID={INVOCATION}", "+", f"INVOCATION_ID={INVOCATION}",
                                        "_PID=1")
        self.assertEqual(len(by_journalctl), 301)
        for count in 0, 1, 10, 1000:
            lines, text = self.lines(count=count)
            self.assertEqual(lines, by_journalctl[-count:] if count else [])
            self.assertTrue(text.endswith("".join("\n    " + line for line in lines)) or count == 0, text)

    def test_a_unit_without_a_number_of_its_start(self):
        self.write([entry(1, "by the service", _SYSTEMD_UNIT="nameless.service"),
                    entry(2, "by another", _SYSTEMD_UNIT="quick.service"),
                    entry(3, "by the manager", UNIT="nameless.service", _PID="1"),
                    entry(4, "pretended", UNIT="nameless.service", _PID="2")])
        self.assertEqual(self.lines("nameless")[0], ["by the service", "by the manager"])

    def test_only_since_the_last_start(self):
        self.write([entry(i, f"line {i}", _SYSTEMD_UNIT="nameless-timed.service") for i in range(5)])
        self.assertEqual(self.lines("nameless-timed")[0], ["line 2", "line 3", "line 4"])

    def test_of_a_user(self):
        user = str(os.geteuid())
        self.write([entry(1, "by the service", _SYSTEMD_USER_UNIT="nameless.service", _UID=user),
                    entry(2, "of another user", _SYSTEMD_USER_UNIT="nameless.service", _UID="4242"),
                    entry(3, "by the manager", USER_UNIT="nameless.service", _UID=user),
                    entry(4, "of the system", _SYSTEMD_UNIT="nameless.service", _UID=user)])
        self.assertEqual(self.lines("nameless", user=1)[0], ["by the service", "by the manager"])

    def test_lines_of_any_bytes(self):
        fields = {"_SYSTEMD_INVOCATION_ID": INVOCATION}
        self.write([entry(2, b"a\x1b[31m\n\tb\x7f", **fields),
                    entry(3, b"\xff\xfe wrong.", **fields), entry(4, b"x" * 100_000, **fields),
                    entry(5, "\u20ac" * 10_000, **fields)])
        lines, text = self.lines()
        self.assertEqual(lines[:2], ["a [31m  b\x20", "\ufffd\ufffd wrong."])
        self.assertEqual(lines[2], "x" * 1000 + "...")
        self.assertEqual(lines[3], "\u20ac" * 333 + "...")
        self.assertLess(len(text), 2000)
        self.assertEqual(text.count("\n"), 4)

    def test_damaged_journals(self):
        file = self.write([entry(i, f"line {i}", _SYSTEMD_INVOCATION_ID=INVOCATION) for i in range(100)])
        whole = file.read_bytes()
        for size in 0, 1, 100, 4096, len(whole) // 2, len(whole) - 1:
            file.write_bytes(whole[:size])
            self.assertLessEqual(len(self.lines()[0]), 10)
        file.write_bytes(whole[:300] + b"\xff" * (len(whole) - 300))
        self.assertLessEqual(len(self.lines()[0]), 10)
        file.unlink()
        self.assertEqual(self.lines()[0], [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
