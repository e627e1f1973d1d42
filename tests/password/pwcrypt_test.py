#!/usr/bin/env python3
"""Recomputes the output of pwcrypt by Python's hashlib and by OpenSSL's program.

usage: pwcrypt_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import base64
import hashlib
import hmac
import random
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

FORM = re.compile(rb"Hash: SCRAM-SHA-256\$(\d+):([A-Za-z0-9+/=]+)\$([A-Za-z0-9+/=]+):([A-Za-z0-9+/=]+)\n")


def keys_of(salted):
    client = hmac.digest(salted, b"Client Key", "sha256")
    return hashlib.sha256(client).digest(), hmac.digest(salted, b"Server Key", "sha256")


class PwcryptTest(unittest.TestCase):
    tool = None

    def run_tool(self, *words):
        done = subprocess.run([*self.tool.command, "--quiet", "pwcrypt", *words], stdin=subprocess.DEVNULL,
                              capture_output=True, env=self.tool.environment(), timeout=250)
        return done.returncode, self.tool.printed(done.stdout), self.tool.printed(done.stderr)

    def hash_of(self, password):
        code, out, err = self.run_tool("--", password)
        self.assertEqual((code, err), (0, b""))
        match = FORM.fullmatch(out)
        self.assertIsNotNone(match, out)
        return int(match[1]), *(base64.b64decode(part, validate=True) for part in match.groups()[1:])

    def test_against_hashlib(self):
        source = random.Random(8)
        passwords = ["", "secret", " ", "-", "--quiet", "pwcrypt", "Grüße, 世界 🎉", "x" * 1000, "%s%n$1"]
        passwords += ["".join(chr(source.randrange(33, 0x2000)) for _ in range(source.randrange(1, 30))) for _ in range(3)]
        for password in passwords:
            password = "".join(c for c in password if not 0x7f <= ord(c) < 0xa0)
            with self.subTest(password=password):
                iterations, salt, stored, server = self.hash_of(password)
                self.assertEqual((iterations, len(salt)), (600000, 16))
                salted = hashlib.pbkdf2_hmac("sha256", password.encode(), salt, iterations)
                self.assertEqual((stored, server), keys_of(salted))

    def test_against_openssl(self):
        openssl = shutil.which("openssl")
        self.assertIsNotNone(openssl)
        iterations, salt, stored, server = self.hash_of("correct horse")
        done = subprocess.run([openssl, "kdf", "-keylen", "32", "-binary", "-kdfopt", "digest:SHA256", "-kdfopt",
                               "pass:correct horse", "-kdfopt", f"hexsalt:{salt.hex()}", "-kdfopt", f"iter:{iterations}",
                               "PBKDF2"], stdout=subprocess.PIPE, check=True)
        self.assertEqual((stored, server), keys_of(done.stdout))

    def test_two_runs_differ(self):
        self.assertNotEqual(self.hash_of("secret"), self.hash_of("secret"))

    def test_control_characters(self):
        for password in ("a\tb", "\n", "\x7f", "a\u0085"):
            self.assertEqual(self.run_tool(password), (1, b"", b"ERROR creating hash\n"))

    def test_nobody_else_sees_the_password(self):
        if self.tool.for_windows:
            self.skipTest("/proc is Linux")
        seen = set()
        for _ in range(3):
            with subprocess.Popen([*self.tool.command, "pwcrypt", "hidden-word"], stdout=subprocess.DEVNULL,
                                  env=self.tool.environment()) as process:
                line = b"hidden-word"
                while process.poll() is None:
                    line = Path(f"/proc/{process.pid}/cmdline").read_bytes() or line
                seen.add(b"hidden-word" in line)
                self.assertEqual(process.returncode, 0)
        # The last look came during the computation, when the argument had been overwritten.
        self.assertIn(False, seen)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    options, rest = parser.parse_known_args()
    PwcryptTest.tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=0)
