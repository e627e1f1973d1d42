"""Programs of the build that are recorded with qor-record, and what qortool finds in their logs: for the tests here.

    --bin FOLDER --source FOLDER

FOLDER holds qor-record, qortool, the example `leaky` and `troubles`; the other is that of the tree.
"""

import argparse
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

options = argparse.Namespace()

LINE = re.compile(r"= Start|@ \S+ ([+>] 0x[0-9a-f]+ (0x[0-9a-f]+|0)|[-<] 0x[0-9a-f]+)")
LEAK = re.compile(r"LEAK at 0x[0-9a-f]+ size (\d+) type (\d+) caller \[(.*)\] type_name \[(.*)\] file \[(.*)\] line (\d+)")


class Recorded(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.environment = {"PATH": os.environ["PATH"], "LC_ALL": "C"}

    def enterContext(self, manager):
        """Same as enterContext() of Python 3.11."""
        result = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return result

    def record(self, *words, prefix=("-o", "log")):
        return subprocess.run([options.bin / "qor-record", *prefix, "--", *map(str, words)], cwd=self.folder, env=self.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def refused(self, reason, *words):
        done = self.record(*words)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        self.assertIn(reason, done.stderr)
        self.assertEqual(list(self.folder.glob("log*")), [])

    def trouble(self, name, code=0):
        """Records one kind of trouble and returns the lines of its log."""
        done = self.record(options.bin / "troubles", name)
        self.assertEqual(done.returncode, code, done.stderr)
        self.messages = done.stderr
        return self.lines("log.mtrace")

    def lines(self, name):
        text = (self.folder / name).read_text()
        self.assertTrue(text.endswith("\n"))
        lines = text.splitlines()
        for line in lines:
            self.assertTrue(LINE.fullmatch(line), line)
        return lines

    def build(self, name, source, *words):
        path = self.folder / name
        (self.folder / f"{name}.cpp").write_text(source)
        subprocess.run(["c++", "-g", "-o", path, self.folder / f"{name}.cpp", *words], check=True)
        return path

    def children(self):
        return sorted(path.name for path in self.folder.glob("log.mtrace.*"))

    def report(self, action, *logs):
        done = subprocess.run([options.bin / "qortool", "--quiet", action, *logs], cwd=self.folder,
                              env=self.environment, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("WARNING", done.stderr)
        return done.stdout

    def leaks(self, report):
        """Returns {size: number of leaks} for the sizes that the program uses as marks."""
        sizes = [int(match[1]) for match in LEAK.finditer(report)]
        return {size: sizes.count(size) for size in sorted(set(sizes)) if 71000 <= size <= 73999 and size != 72704}


def run(cases, parser=None):
    """Runs these classes of tests with the words of the command line; returns the exit code."""
    parser = parser or argparse.ArgumentParser()
    parser.add_argument("--bin", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--source", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.parse_args(namespace=options)
    suite = unittest.TestSuite(map(unittest.defaultTestLoader.loadTestsFromTestCase, cases() if callable(cases) else cases))
    return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1
