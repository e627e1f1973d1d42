#!/usr/bin/env python3
"""What the program that makes manual pages refuses, and how it fills them in.

    generator_test.py --generator QOR_MANUAL --source FOLDER
"""

import argparse
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

options = None


class Generator(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        shutil.copytree(options.source / "manual", self.folder / "manual")
        self.page = self.folder / "manual/pages/qortool.1.in"

    def run_it(self, messages=None):
        messages = messages or options.source / "qorcore/messages"
        done = subprocess.run([options.generator, "1.2.3", self.folder / "manual", messages, self.folder / "made"],
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stderr

    def changed(self, old, new):
        text = self.page.read_text()
        self.assertIn(old, text)
        self.page.write_text(text.replace(old, new))
        return self.run_it()

    def test_the_pages_as_they_are(self):
        self.assertEqual(self.run_it(), (0, ""))
        page = (self.folder / "made/man1/qortool.1").read_text()
        self.assertIn('"qor 1.2.3"', page)
        self.assertEqual(re.findall("^@.*@$", page, re.M), [])

    def test_a_row_without_a_place(self):
        code, said = self.changed("@ACTION dow@\n", "")
        self.assertEqual((code, said), (0, ""))  # among the others
        self.assertIn("fBdow", (self.folder / "made/man1/qortool.1").read_text())
        code, said = self.changed("@ACTIONS@\n", "")
        self.assertEqual(code, 1)
        self.assertIn("qortool.1.in: no place for 'help'", said)

    def test_a_row_with_two_places(self):
        code, said = self.changed("@ACTION dow@\n", "@ACTION dow@\n@ACTION dow@\n")
        self.assertEqual(code, 1)
        self.assertRegex(said, r"qortool\.1\.in: line \d+: @ACTION dow@: .*has a place already")

    def test_a_row_that_is_not_there(self):
        code, said = self.changed("@ACTION dow@\n", "@ACTION date@\n")
        self.assertEqual(code, 1)
        self.assertRegex(said, r"line \d+: @ACTION date@: the tables have no row 'date'")

    def test_an_unknown_place(self):
        code, said = self.changed("@EXIT CODES@\n", "@EXITCODES@\n")
        self.assertEqual((code, re.search(r"@EXITCODES@: .*", said).group()), (1, "@EXITCODES@: unknown place"))

    def test_a_program_without_a_page(self):
        self.page.unlink()
        code, said = self.run_it()
        self.assertEqual(code, 1)
        self.assertIn("qortool has no page in", said)

    def test_a_page_without_a_program(self):
        self.page.with_name("other.1.in").write_text(".TH OTHER 1\n")
        code, said = self.run_it()
        self.assertEqual(code, 1)
        self.assertIn("other.1.in: there is no such program", said)

    def test_languages_are_those_of_the_catalogs(self):
        messages = self.folder / "messages"
        messages.mkdir()
        for name in ("qortool.pt_BR.msg", "qortool.def", "qor-heap.it.msg"):
            (messages / name).touch()
        self.assertEqual(self.run_it(messages), (0, ""))
        self.assertIn("'en|pt_BR'", (self.folder / "made/bash/qortool").read_text())

    def test_what_cannot_be_written(self):
        (self.folder / "made").write_text("in the way")
        code, said = self.run_it()
        self.assertEqual(code, 1)
        self.assertIn("made", said)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--generator", type=Path, required=True)
    parser.add_argument("--source", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
