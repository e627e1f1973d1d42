#!/usr/bin/env python3
"""Runs the examples of the manual pages as they stand, and reads what the programs write as the pages describe it.

    examples_test.py --cmake CMAKE --build FOLDER --bin FOLDER
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from helps import installed

options = None

# They need a console and a listener; tests/debug_control has whole sessions.
OF_OTHER_TESTS = {"app --qor-debug-listen=7447", "qortool debug-control localhost 7447", "Debug> enable app.*"}

APP = "#!/bin/sh\necho $$ >app.pid\n"
SERVER = "#!/bin/sh\nwhile [ ! -e end ]; do sleep 0.1; done\n"
LOG = "= Start\n@ ./app:(main+1d)[0x11a9] + 0x1000 0x11\n@ ./app:(main+1d)[0x11b0] - 0x1000\n= End\n"


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.installed = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(cls.installed.cleanup)
        cls.pages = installed(options, "man", Path(cls.installed.name)) / "share/man"

    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        for name, text in (("app", APP), ("server", SERVER)):
            (self.folder / name).write_text(text)
            (self.folder / name).chmod(0o755)
        for name in ("app", "before", "after"):
            (self.folder / f"{name}.mtrace").write_text(LOG)
        path = f"{options.bin}:{os.environ['PATH']}"
        self.environment = {"PATH": path, "HOME": str(self.folder), "LC_ALL": "C.UTF-8"}

    def blocks(self, page):
        """Returns the lines of each example of a page."""
        text = (self.pages / f"man{page[-1]}" / page).read_text()
        text = text.replace(r"\-", "-").replace(r"\(aq", "'").replace(r"\e", "\\")
        found = [block.splitlines() for block in re.findall(r"^\.EX\n(.*?)^\.EE\n", text, re.M | re.S)]
        self.assertTrue(found, page)
        return found

    def run_it(self, *words, code=0):
        done = subprocess.run([*map(str, words)], cwd=self.folder, env=self.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                              timeout=600)
        self.assertEqual(done.returncode, code, f"{words}: {done.stdout}")
        return done.stdout

    def run_page(self, page):
        """Runs each example of a page in one shell, and returns what it prints."""
        said = ""
        for block in self.blocks(page):
            script = ["set -eu", "rm -f end"]
            for line in block:
                if line in OF_OTHER_TESTS:
                    continue
                line = line.replace("/tmp/", f"{self.folder}/").replace("/usr/bin/", f"{options.bin}/")
                script.append(line.replace("FINGERPRINT", "$(qor-debug-user fingerprint)"))
                if line.endswith("&"):
                    script.append('until [ -s server.mtrace ]; do kill -0 $!; sleep 0.1; done')
            script.append("touch end; wait")
            said += self.run_it("sh", "-c", "\n".join(script))
        return said

    def test_qortool(self):
        said = self.run_page("qortool.1")
        self.assertIn("allocations and releases", said)
        self.assertIn("Scanning data...", said)
        self.assertIn("Day: Sunday\n", said)

    def test_qor_record(self):
        said = self.run_page("qor-record.1")
        self.assertTrue((self.folder / "app.pid").exists())
        self.assertIn("Live at the peak: ", said)
        self.assertTrue((self.folder / "server.stacks").exists())

    def test_qor_heap(self):
        self.assertIn("Live at the peak: 17 bytes", self.run_page("qor-heap.1"))
        self.assertIn("<html", (self.folder / "app.html").read_text())

    def test_qor_debug_user(self):
        self.assertIn("The account 'ann' was created.", self.run_page("qor-debug-user.1"))
        made = self.folder / ".config/qor"
        base64 = "[A-Za-z0-9+/]+=*"
        self.assertRegex((made / "debug-users").read_text(), rf"^ann:SCRAM-SHA-256\$\d+:{base64}\${base64}:{base64}\n$")
        self.assertRegex((made / "known-hosts").read_text(), r"^host\.example\.org 7447 sha256 [0-9a-f]{64}\n$")
        for name in ("debug-users", "debug-users.key"):
            self.assertEqual((made / name).stat().st_mode & 0o777, 0o600)

    def test_qor_check(self):
        self.assertIn("The library has all that the program needs.", self.run_page("qor-check.1"))

    def test_an_object_store(self):
        if not (options.bin / "store_driver").exists() or not shutil.which("sqlite3"):
            self.skipTest("there is no module for object stores, or no sqlite3")
        store = self.folder / "store"
        self.run_it(options.bin / "store_driver", "count", store, 3)
        (command,), = self.blocks("qor-store.5")
        self.assertRegex(self.run_it("sh", "-c", command.replace("FILE", str(store))), r"^count\|\d+\|[0-9A-F]+\n$")
        self.assertEqual(self.run_it("sqlite3", store, "PRAGMA application_id; PRAGMA user_version; PRAGMA page_size"),
                         f"{0x716f7253}\n1\n4096\n")

    def test_logs_of_heaps(self):
        self.run_it("qor-record", "-o", "leaky", "--", "leaky")
        forms = {"mtrace": r"=.*|@ \S+ ([+>] (0x)?[0-9a-f]+ 0x[0-9a-f]+|[-<] (0x)?[0-9a-f]+)",
                 "memcheck": r"#.*|A [0-9a-f]+ \d+ [013]( \S+( \d+)?)?|F [0-9a-f]+( [013])?|T [0-9a-f]+ \S+"}
        for ending, form in forms.items():
            lines = (self.folder / f"leaky.{ending}").read_text().splitlines()
            self.assertGreater(len(lines), 20)
            self.assertEqual([line for line in lines if not re.fullmatch(form, line)], [])
            if ending == "memcheck":
                example, = self.blocks("qor-memcheck.5")
                self.assertEqual([line for line in example if not re.fullmatch(form, line)], [])
        self.assertEqual((self.folder / "leaky.stacks").read_bytes()[:8], b"QORSTK\x01\n")

    def test_traces(self):
        trace = self.folder / "trace"
        self.run_it("qortool", "--qor-debug=*", f"--qor-debug-file={trace}", "dow", "1/1/2026")
        example = self.blocks("qor-trace.5")[-1]
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+:\d+ "
        written = trace.read_text().splitlines()
        self.assertGreater(len(written), 1)
        for line in (*written, example[0]):
            self.assertRegex(line, time + r"[\w.-]+ \S")
        self.assertRegex(example[1], time + r'\S+ warning \S+:\d+ [A-Z]+="[^"]*": \S')

    def test_a_configuration(self):
        try:
            import tomllib
        except ImportError:
            self.skipTest("this Python cannot read TOML")
        example, = self.blocks("qor-config.5")
        self.assertEqual(tomllib.loads("\n".join(example)),
                         {"server": {"port": 8080, "listen": [{"address": "192.0.2.1"}]}})


def main():
    global options
    parser = argparse.ArgumentParser()
    for name in ("cmake", "build", "bin"):
        parser.add_argument(f"--{name}", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
