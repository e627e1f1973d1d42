#!/usr/bin/env python3
"""The manual pages beside the programs: their form, and that they tell what the programs tell about themselves.

    pages_test.py --cmake CMAKE --build FOLDER --bin FOLDER --messages FOLDER
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from helps import installed, rows_of_help

options = None

PROGRAMS = ("qortool", "qor-heap", "qor-record", "qor-debug-user")


def output_of(*command, **more):
    done = subprocess.run([*map(str, command)], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120,
                          **more)
    return done.returncode, done.stdout + done.stderr


def plain(text):
    """Returns the text with one blank for all white space, and with simple quotes and hyphens."""
    return re.sub(r"\s+", " ", text.translate({0x2019: "'", 0x2018: "'", 0x2010: "-", 0x2212: "-"}))


class Pages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(cls.temporary.cleanup)
        prefix = installed(options, "man", Path(cls.temporary.name, "installed"))
        cls.pages = {path.name: path for path in (prefix / "share/man").rglob("*.[15]")}
        cls.texts = {name: cls.rendered(path) for name, path in cls.pages.items()}

    @staticmethod
    def rendered(path, width=10000):
        """Returns the page as a reader sees it; lines are usually not broken."""
        environment = {**os.environ, "MANWIDTH": str(width), "LC_ALL": "C.UTF-8", "MAN_KEEP_FORMATTING": ""}
        return subprocess.run(["man", "-l", path], capture_output=True, text=True, check=True, env=environment).stdout

    def test_every_program_has_a_page(self):
        there = {path.name for path in options.bin.glob("qor-*")
                 if path.is_file() and os.access(path, os.X_OK) and not path.suffix}
        self.assertLessEqual({f"{program}.1" for program in {*PROGRAMS, *there}}, set(self.pages))
        self.assertGreaterEqual(len([name for name in self.pages if name.endswith(".5")]), 9)

    def test_nobody_warns(self):
        for name, path in self.pages.items():
            with self.subTest(page=name):
                self.assertEqual(output_of("mandoc", "-T", "lint", "-W", "warning", path), (0, ""))
                self.assertEqual(output_of("groff", "-man", "-ww", "-z", "-Tutf8", path), (0, ""))
                environment = {**os.environ, "LC_ALL": "C.UTF-8"}
                done = subprocess.run(["man", "--warnings=w", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path], text=True,
                                      capture_output=True, env=environment)
                self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_a_warning_would_be_found(self):
        wrong = Path(self.temporary.name, "wrong.1")
        wrong.write_text('.TH WRONG 1 2026-11-23 "a" "b"\n.SH NAME\nwrong \\- no page\n.ZZ\n')
        self.assertIn("ZZ", output_of("mandoc", "-T", "lint", "-W", "warning", wrong)[1])
        self.assertIn("ZZ", output_of("groff", "-man", "-ww", "-z", "-Tutf8", wrong)[1])

    def test_names_and_descriptions(self):
        for name, path in self.pages.items():
            with self.subTest(page=name):
                code, said = output_of("lexgrog", path)
                self.assertEqual(code, 0, said)
                self.assertRegex(said, re.escape(f'{path}: "{name[:-2]} - ') + r'[a-z].*[^."]"\n$')

    def test_no_word_is_parted(self):
        """Names that are parted at the end of a line cannot be searched for."""
        for name, path in self.pages.items():
            for width in (60, 80):
                text = plain(re.sub("\u2010\n *", "\u2010", self.rendered(path, width)))
                words = set(text.split()) - set(plain(self.texts[name]).split())
                with self.subTest(page=name, width=width):
                    self.assertEqual({word for word in words if "-" in word}, set())

    def test_a_blank_stands_between_words(self):
        """Behind dots or a question mark that end no sentence, roff would write two."""
        for name, text in self.texts.items():
            self.assertEqual(re.findall(r".*(?:\.\.\.\]?|\?) {2,}\S.*", text), [], name)

    def test_every_row_of_help(self):
        for program in PROGRAMS:
            text = self.texts[f"{program}.1"]
            rows = rows_of_help(options.bin / program)
            self.assertGreaterEqual(len(rows), 8)
            # A name of at most six letters has its description beside it.
            lines = [plain(line).strip() for line in text.splitlines()]
            for row in rows:
                with self.subTest(program=program, row=row.name):
                    syntax = re.sub("[<>]", "", row.syntax)
                    found = [line for line in lines if line == syntax or line.startswith((f"{syntax} ", f"{syntax}, "))]
                    self.assertTrue(found, syntax)
                    self.assertIn(plain(row.description), plain(text))

    def test_every_variable_of_the_framework(self):
        named = set(re.findall(r"\(or set (QOR_\w+)\)", output_of(options.bin / "qortool", "help")[1]))
        self.assertGreaterEqual(len(named), 7)
        for program in ("qortool", "qor-heap", "qor-debug-user", "qor-check"):
            environment = self.texts[f"{program}.1"].split("\nENVIRONMENT\n")[1].split("\nEXAMPLES\n")[0]
            self.assertLessEqual(named, set(re.findall(r"^ {7}(QOR_\w+)", environment, re.M)), program)

    def test_exit_codes(self):
        for program, unknown_action in (("qortool", 13), ("qor-heap", 13), ("qor-debug-user", 13)):
            with self.subTest(program=program):
                path = options.bin / program
                status = self.texts[f"{program}.1"].split("\nEXIT STATUS\n")[1].split("\nENVIRONMENT\n")[0]
                listed = {int(code) for code in re.findall(r"^ {7}(\d+) ", status, re.M)}
                found = {output_of(path, "--nonsense")[0], output_of(path)[0], output_of(path, "nonsense")[0]}
                self.assertEqual(found, {2, 10, unknown_action})
                self.assertLessEqual(found | {0, 1, 100}, listed)
                # What a wrong command line gives that is not found out by the program's own parser.
                self.assertEqual(output_of(path, "--qor-nonsense", "help")[0], 1)
                self.assertIn("an option of the framework is wrong", re.search(r"^ {7}1 +(.*)", status, re.M).group(1))
        self.assertEqual(output_of(options.bin / "qor-record", "--nonsense")[0], 1)

    def test_the_exit_codes_of_qor_check(self):
        program = options.bin / "qor-check"
        if not program.exists():
            self.skipTest("qor-check is not built")
        text = self.texts["qor-check.1"]
        self.assertEqual(output_of(program, "--nonsense")[0], 2)
        listed = re.findall(r"^ {7}(\d+) ", text.split("\nEXIT STATUS\n")[1].split("\nENVIRONMENT\n")[0], re.M)
        said = re.search(r"Exit code: (.*?)\n\n|Exit code: (.*)", output_of(program, "--help")[1], re.S).group()
        self.assertEqual(listed, re.findall(r"(\d) if", said))

    def test_references_lead_to_pages(self):
        for name, text in self.texts.items():
            for page, section in re.findall(r"\b(qor[\w-]*)\((\d)\)", plain(text)):
                with self.subTest(page=name, reference=page):
                    self.assertIn(f"{page}.{section}", self.pages)

    def test_pages_have_the_version(self):
        version = re.search(r"Version (\S+)", output_of(options.bin / "qortool", "dow", "1/1/2026")[1]).group(1)
        for name, text in self.texts.items():
            self.assertIn(f"qor {version}", text.splitlines()[-1], name)

    # ---- the examples of formats are of these formats

    def example(self, page):
        text = self.pages[page].read_text().split(".SH EXAMPLES\n")[1]
        block = re.search(r"\.EX\n(.*?)\.EE\n", text, re.S).group(1)
        return block.replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")

    def written(self, name, text):
        path = Path(self.temporary.name, name)
        path.write_text(text)
        return path

    def test_the_example_of_an_mtrace_log(self):
        log = self.written("example.mtrace", self.example("qor-mtrace.5"))
        code, said = output_of(options.bin / "qortool", "--quiet", "mtrace", log)
        self.assertEqual(code, 0)
        leak = "LEAK at 0x55d0c5b1a2c0 size 17 type 0 caller [./app:(load+1d)[0x11a9]] type_name [] file [] line 0"
        self.assertEqual(re.findall("^LEAK.*|^BAD.*|^WARN.*", said, re.M), [leak])

    def test_the_example_of_a_memcheck_log(self):
        log = self.written("example.memcheck", self.example("qor-memcheck.5"))
        code, said = output_of(options.bin / "qortool", "--quiet", "memcheck", log)
        self.assertEqual((code, "No leaks found" in said, "looks like" in said), (0, True, False), said)

    def test_the_example_of_suppressions(self):
        log = self.written("suppressed.mtrace", self.example("qor-mtrace.5"))
        file = self.written("suppressions", self.example("qor-suppressions.5"))
        code, said = output_of(options.bin / "qor-heap", "sites", "--no-symbols", "--suppressions", file, log)
        self.assertEqual(code, 0, said)
        self.assertIn("17 bytes", said)

    def test_the_example_of_a_catalog(self):
        catalog = (options.messages / "qortool.de.msg").read_text().splitlines()
        lines = self.example("qor-messages.5").splitlines()
        self.assertGreaterEqual(len(lines), 3)
        for line in lines[1:]:
            self.assertIn(line, catalog)


def main():
    global options
    parser = argparse.ArgumentParser()
    for name in ("cmake", "build", "bin", "messages"):
        parser.add_argument(f"--{name}", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
