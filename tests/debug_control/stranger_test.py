#!/usr/bin/env python3
"""Runs stranger.py, which was written from the description of the protocol only, with a listening process.

usage: stranger_test.py --tool QORTOOL --ticker TICKER [--runner PROGRAM]
"""

import os
import subprocess
import time
import unittest
from pathlib import Path

import listening
from listening import TIMEOUT, Listening

STRANGER = Path(__file__).resolve().parent / "stranger.py"
ALL = {"system.debug-control", "ticker.tick", "ticker.work"}


class Stranger(Listening):
    def setUp(self):
        super().setUp()
        self.known_hosts = self.folder / "strangers-known-hosts"
        self.listen()

    def run_stranger(self, *commands, passwords="secret\n", user="ann"):
        # Started as a program, because Debian's Python has the necessary modules and another one that runs this test
        # may not.
        return subprocess.run([STRANGER, "localhost", str(self.port), user, self.known_hosts, *commands], text=True,
                              input=passwords, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT)

    def stranger(self, *commands, **how):
        """Returns its output lines."""
        done = self.run_stranger(*commands, **how)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.splitlines()

    def console(self, *lines):
        done = subprocess.run([*listening.tool.command, "--quiet", "debug-control", "localhost", str(self.port)],
                              input="".join(line + "\n" for line in ("ann", "secret", *lines)).encode(),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT, env=self.environment())
        return listening.tool.printed(done.stdout).decode()

    def test_it_switches_codes(self):
        self.assertGreaterEqual(set(self.stranger("all")), ALL)
        self.assertEqual(self.stranger("enabled"), ["ticker.tick"])
        self.assertEqual(self.stranger("on:ticker.work", "enabled"), ["ticker.tick", "ticker.work"])
        self.wait_for_trace("ticker.work <<LEAVE<< work()")
        self.assertIn("\n\nticker.tick\nticker.work\n\n", self.console("show-enabled"))
        self.assertEqual(self.stranger("off:ticker.tick", "enabled", "none", "enabled"), ["ticker.work"])
        self.assertIn("No trace code is enabled.", self.console("show-enabled"))
        self.assertEqual(self.stranger("on:*.work", "on:no.such.code", "on:", f"on:{'x' * 4097}", "enabled"),
                         ["cannot", "cannot", "ticker.work"])

    def test_a_wrong_password(self):
        self.assertEqual(self.stranger("enabled", passwords="wrong\n\nsecret\n"), ["refused", "refused", "ticker.tick"])
        unknown = self.run_stranger("enabled", user="nobody")
        self.assertEqual((unknown.returncode, unknown.stdout), (1, "refused\n"))
        self.assertEqual(unknown.stderr, "no password is left\n")

    def test_heartbeats_keep_the_connection(self):
        count = 8 if os.environ.get("QOR_TEST_LOAD") else 1
        begun = time.monotonic()
        self.assertEqual(self.stranger("on:system.debug-control", f"stay:{count}", "enabled"),
                         ["system.debug-control", "ticker.tick"])
        print(f"nothing but heartbeats on the connection: {time.monotonic() - begun:.0f} s")
        self.wait_for_trace("has left: it said so")

    def test_the_file_of_known_hosts_is_the_same(self):
        self.console()
        self.known_hosts, = self.folder.rglob("known-hosts")
        noted = self.known_hosts.read_bytes()
        self.assertEqual(self.stranger("enabled"), ["ticker.tick"])
        self.assertEqual(self.known_hosts.read_bytes(), noted)
        self.known_hosts.unlink()
        self.assertEqual(self.stranger("enabled"), ["ticker.tick"])
        self.assertEqual(self.known_hosts.read_bytes(), noted)

    def test_another_key(self):
        self.known_hosts.write_text(f"# noted by hand\nlocalhost {self.port} sha256 {'0' * 64}\n")
        done = self.run_stranger("enabled")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, "that is another key than the one noted\n")


def load_tests(_loader, _tests, _pattern):
    names = [name for name in dir(Stranger) if name.startswith("test_")]
    if listening.tool.for_windows:
        # There the file is in a folder of the user that all tests share.
        names.remove("test_the_file_of_known_hosts_is_the_same")
    return unittest.TestSuite(map(Stranger, names))


if __name__ == "__main__":
    listening.main()
