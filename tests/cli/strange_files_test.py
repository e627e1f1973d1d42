#!/usr/bin/env python3
"""Whole runs with pipes, devices and other kinds in place of the files that the tool and its library open by
themselves. Each run ends, either with the result for a missing file or with an error that names the file.

usage: strange_files_test.py --tool PATH --accounts PATH
"""

import argparse
import os
import pty
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from name_space import name_space  # noqa: E402  # in tests/support
from strange_files import KINDS, REASONS, strange_file  # noqa: E402  # in tests/support
from tool import Tool, add_options  # noqa: E402  # in tests/support

GUARD = 250  # seconds; a run that takes longer never ends

options = None


class StrangeFiles(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        self.built = Path(options.tool).resolve().parent
        self.bin = self.folder / "bin"
        self.bin.mkdir()
        shutil.copytree(self.built / "qor", self.bin / "qor")
        for file in (options.tool, self.built / "libqor.so", options.accounts):
            shutil.copy(file, self.bin)
        self.tool = Tool(self.bin / "qortool")

    def run_program(self, *words, program="qortool", before=(), **environment):
        """Returns (exit code, standard output, standard error)."""
        done = subprocess.run([*before, self.bin / program, *words], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              env={**self.tool.environment(), "HOME": str(self.folder), **environment}, timeout=GUARD)
        return done.returncode, done.stdout, done.stderr

    def each(self, path, check, text=b"text\n"):
        """Calls check(kind) with each kind in place of the file."""
        path.parent.mkdir(parents=True, exist_ok=True)
        for kind in KINDS:
            with self.subTest(kind=kind, path=path.name), strange_file(kind, path, text):
                check(kind)

    # ---- files that came with the library

    def test_catalogs(self):
        """English replaces the language, message by message."""
        german = {"LC_ALL": "de_DE.UTF-8", "LANGUAGE": "de"}
        english = self.run_program("help")
        self.assertNotEqual(self.run_program("help", **german), english)
        for catalog in ("qortool.de.msg", "qorcore.de.msg"):
            (self.bin / "qor" / catalog).unlink()
        for catalog, translated in (("qortool.de.msg", b"6 Fertig\n"), ("qorcore.de.msg", b"1000 Optionen\n")):
            for place in (self.bin, self.bin / "qor"):
                self.each(place / catalog, lambda _: self.assertEqual(self.run_program("help", **german), english), translated)

    def test_a_catalog_beside_the_library_does_not_hide_the_usual_one(self):
        german = {"LC_ALL": "de_DE.UTF-8", "LANGUAGE": "de"}
        expected = self.run_program("help", **german)
        self.each(self.bin / "qortool.de.msg", lambda _: self.assertEqual(self.run_program("help", **german), expected))

    def test_modules(self):
        module = self.bin / "qor/qor-network.so"

        def check(kind):
            code, _, problem = self.run_program("--quiet", "netlist")
            reason = REASONS.get(kind, "it is not a regular file")
            expected = f"'{module}' cannot be loaded: {reason}."
            if kind == "link to nothing":
                expected = (f"'{module}' is missing. Install its package (on Debian libqor-network), or build the "
                            "framework with what it needs.")
            self.assertEqual((code, problem), (1, f"Cannot list the network interfaces: The module {expected}\n"))

        self.each(module, check, module.read_bytes())

    def test_the_library(self):
        """Nothing is printed, and the exit code is 100. If the library is also in the private folder of an
        installation, that file is used."""
        library = self.bin / "libqor.so"
        expected = self.run_program("dow", "1/1/2000")
        self.each(library, lambda _: self.assertEqual(self.run_program("dow", "1/1/2000"), (100, "", "")), library.read_bytes())
        (self.folder / "lib/qor").mkdir(parents=True)
        shutil.copy(self.built / "libqor.so", self.folder / "lib/qor")
        self.each(library, lambda _: self.assertEqual(self.run_program("dow", "1/1/2000"), expected))

    # ---- files of the user

    def test_named_folders(self):
        file = self.folder / ".config/user-dirs.dirs"
        expected = self.run_program("--quiet", "path-list")
        self.each(file, lambda _: self.assertEqual(self.run_program("--quiet", "path-list"), expected),
                  b'XDG_MUSIC_DIR="/music"\n')

    def test_time_zones(self):
        """UTC replaces the time zone."""
        expected = self.run_program("--quiet", "tztest", TZ="UTC0")
        file = self.folder / "zone"
        for name in (str(file), f":{file}"):
            self.each(file, lambda _, name=name: self.assertEqual(self.run_program("--quiet", "tztest", TZ=name), expected),
                      b"TZif2")

    def test_time_zones_that_are_known_without_a_file(self):
        """The C library would look for a file of that name anyway, and wait there."""
        for name in ("CET-1", "UTC"):
            def check(kind, name=name):
                stands_in = "UTC0" if kind in ("pipe", "pipe with text", "device", "socket") else name
                self.assertEqual(self.run_program("--quiet", "tztest", TZ=name, TZDIR=str(self.folder)),
                                 self.run_program("--quiet", "tztest", TZ=stands_in))

            self.each(self.folder / name, check, b"TZif2")

    def test_accounts(self):
        file = self.folder / "users"

        def check(kind):
            code, out, problem = self.run_program(f"--file={file}", "list", program="qor-debug-user")
            self.assertEqual((code, out), (1, ""))
            self.assertIn(str(file), problem)
            if kind not in ("link to itself", "link to nothing"):
                self.assertIn("it is not a regular file", problem)

        self.each(file, check)

    # ---- files of the host

    def in_a_host_where(self, *mounts):
        """Returns the words that run a program with the test's files in place of the system's: (own, system's)..."""
        space = name_space()
        if space is None:
            self.skipTest("this system has no name spaces for us")
        script = "".join(f'mount --bind "{own}" "{system}" && ' for own, system in mounts) + 'exec "$@"'
        return [*space, "sh", "-c", script, "sh"]

    def test_lock_files_of_serial_ports(self):
        """The owner of a strange lock file counts as the user of the port, and the message names him."""
        ends = pty.openpty()
        for end in ends:
            self.addCleanup(os.close, end)
        name = os.ttyname(ends[1])
        locks = self.folder / "lock"
        lock = locks / ("LCK.." + name.rpartition("/")[2])
        before = self.in_a_host_where((locks, "/var/lock"))
        locks.mkdir()
        free = (0, f"Port name = '{name[5:]}'\nLocation = 'pseudo-terminal'\n", "")
        self.assertEqual(self.run_program("--quiet", "ttyinfo", name, before=before), free)
        locked = (1, "", f"FAILED to open serial port {name}\nThe serial port '{name}' is considered in use because of the lock "
                         f"file '/var/lock/{lock.name}', which names no process.\n")
        self.each(lock, lambda kind: self.assertEqual(self.run_program("--quiet", "ttyinfo", name, before=before),
                                                      free if kind == "link to nothing" else locked), str(os.getpid()).encode())
        # A folder that everybody may write, as on many hosts.
        locks.chmod(0o1777)
        with strange_file("pipe", lock):
            self.assertEqual(self.run_program("--quiet", "ttyinfo", name, before=before), locked)

    def test_files_of_the_host(self):
        """The system's name is that of the kernel if its own file cannot be used."""
        # A link is followed when it is mounted, and a folder cannot be mounted on a file.
        for kind in ("pipe", "pipe with text", "socket"):
            strange = self.folder / kind
            with self.subTest(kind=kind), strange_file(kind, strange, b"PRETTY_NAME=strange\n"):
                before = self.in_a_host_where((strange, "/etc/os-release"), (strange, "/proc/cpuinfo"),
                                              (strange, "/proc/meminfo"),
                                              (strange, "/proc/tty/drivers"))
                code, out, problem = self.run_program("--quiet", "sysinfo", before=before)
                self.assertIn(code, (0, 1), problem)
                self.assertNotIn("strange", out)
                self.assertEqual(self.run_program("--quiet", "list-serial", before=before)[0], 0)


def main():
    global options
    parser = argparse.ArgumentParser()
    add_options(parser)
    parser.add_argument("--accounts", type=Path, help="qor-debug-user")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
