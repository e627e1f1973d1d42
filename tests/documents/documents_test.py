#!/usr/bin/env python3
"""Checks the documents against the tree and the tool.

    documents_test.py --source FOLDER --tool QORTOOL [--compiler C++] [--worked-examples]

Links must lead to existing files and headings, paths must be those of files, and README and docs/command-line.md must
list the actions and options that `help` lists. --worked-examples: runs the commands with which README finds a leak and
compares their output, and compiles and runs the first program of each page.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

options = None

FILE_PATH = re.compile(r"`((?:bench|cmake|docs|examples|fuzz|packages|qorcore|samples|scripts|tests|util)/[\w./-]+)`")


def documents():
    found = [*options.source.glob("*.md"), *options.source.glob("docs/*.md"), *options.source.glob("bench/*.md")]
    assert len(found) > 20, found
    return {path.relative_to(options.source): path.read_text() for path in found}


def read(name):
    return (options.source / name).read_text()


def prose(text):
    """Returns the lines outside code, with their numbers."""
    is_code = False
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("```"):
            is_code = not is_code
        elif not is_code and not line.startswith("    "):
            yield number, line


def anchors(text):
    """Returns the headings in the form that links use."""
    headings = [line.lstrip("#").strip() for _, line in prose(text) if line.startswith("#")]
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def section(text, heading):
    """Returns the text from a heading to the next one of its level."""
    return re.search(rf"^{re.escape(heading)}\n(.*?)(?=^## |\Z)", text, re.M | re.S).group(1)


def first_words(text, heading):
    """Returns the first words of the code in the first column of a section's tables."""
    return re.findall(r"^\| `(\S+?)[ `=\[]", section(text, heading), re.M)


def help_lines():
    text = subprocess.run([options.tool, "help"], capture_output=True, text=True, env={"LC_ALL": "C"}).stderr
    return re.findall(r"^  (\S+)", text, re.M)


class Documents(unittest.TestCase):
    def test_links_lead_to_files_and_headings(self):
        for name, text in documents().items():
            for target in re.findall(r"\]\((?!https?:)([^)]+)\)", re.sub(r"```.*?```", "", text, flags=re.S)):
                with self.subTest(document=str(name), link=target):
                    file, _, anchor = target.partition("#")
                    path = (options.source / name).parent / file if file else options.source / name
                    self.assertTrue(path.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(path.read_text()))

    def test_paths_are_those_of_files(self):
        for name, text in documents().items():
            # The recipes name files that the contributor will create.
            if name == pathlib.Path("CONTRIBUTING.md"):
                text = text.replace(section(text, "## Recipes"), "")
            for number, line in prose(text):
                for path in FILE_PATH.findall(line):
                    with self.subTest(document=str(name), line=number):
                        self.assertTrue((options.source / path).exists(), path)

    def test_readme_lists_the_actions(self):
        actions = [word for word in help_lines() if not word.startswith("--")]
        self.assertGreaterEqual(len(actions), 18)
        self.assertEqual(sorted(first_words(read("README.md"), "## The actions")), sorted(actions))

    def test_command_line_lists_the_options(self):
        words = [re.split(r"[=\[]", word)[0] for word in help_lines() if word.startswith("--qor-")]
        self.assertGreaterEqual(len(words), 6)
        heading = "## Options of every program of the framework"
        self.assertEqual(sorted(first_words(read("docs/command-line.md"), heading)), sorted(words))


class WorkedExamples(unittest.TestCase):
    def setUp(self):
        if not options.worked_examples:
            self.skipTest("not asked for")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_in_shell(self, command):
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "XDG_CACHE_HOME": str(self.folder / "cache")}
        done = subprocess.run(["bash", "-c", command], cwd=options.source, env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def follow(self, block, address):
        """Runs the commands of a block and compares their output, except for addresses and times. `address` is the caller in
        README and the one here. Returns the address of this run."""
        shown = re.sub(r"^    ", "", block, flags=re.M).strip()
        for command, output in re.findall(r"^\$ (.*)\n?((?:(?!\$ ).*\n?)*)", shown, re.M):
            command = command.replace(*address).replace("/tmp/", f"{self.folder}/")
            command = re.sub(r"\./run (qor-\S+)", f"{options.tool.parent}/\\1", command)
            command = command.replace("./run ", f"{options.tool} ")
            said = self.run_in_shell(command).replace(f"{self.folder}/", "/tmp/")
            callers = [re.search(r"caller \[.*\[(0x[0-9a-f]+)\]\]", text) for text in (output, said)]
            if all(callers):
                address = tuple(caller.group(1) for caller in callers)
            expected, found = (re.sub(r"0x[0-9a-f]+|after [\d.]+ s", "", text).rstrip("\n") for text in (output, said))
            self.assertEqual(found, expected, command)
        return address

    def test_the_leak_in_readme(self):
        text = section(read("README.md"), "## Find a leak")
        program = re.search(r"```c\n(.*?)```", text, re.S).group(1)
        blocks = re.findall(r"(?:^    .*\n|^\n(?=    ))+", re.sub(r"```.*?```", "", text, flags=re.S), re.M)
        blocks = [block for block in blocks if "$ " in block]
        self.assertEqual(len(blocks), 3)
        source = self.folder / "notes.c"
        source.write_text(program)
        self.follow(blocks[1], self.follow(blocks[0], ("0x", "0x")))
        mended = "".join(line for line in program.splitlines(True) if "the mistake" not in line)
        self.assertNotEqual(mended, program)
        source.write_text(mended)
        self.follow(blocks[2], ("0x", "0x"))

    def test_the_first_program_of_each_page(self):
        """Compiles the program under "A first program", and runs it by the commands that follow it."""
        pages = {name: text for name, text in documents().items() if re.search("^## A first program$", text, re.M)}
        self.assertGreaterEqual(len(pages), 3)
        for name in ("libqor.so", "qor"):  # the library and its modules
            (self.folder / name).symlink_to(options.tool.parent / name)
        for name, text in pages.items():
            with self.subTest(page=str(name)):
                self.follow_program(section(text, "## A first program"))

    def follow_program(self, text):
        program = re.search(r"```cpp\n(.*?)```", text, re.S).group(1)
        block = re.search(r"(?:^    .*\n)+", text.split("```")[2], re.M).group()
        commands = re.sub(r"^    ", "", block, flags=re.M)
        source, built = re.search(r"(\w+\.cpp) -o (\S+)", commands).groups()
        (self.folder / source).write_text(program)
        commands = commands.replace("$ g++ ", f"$ {options.compiler} ").replace("/tmp/", f"{self.folder}/")
        for place in (built, source):
            commands = re.sub(rf"(?<= ){re.escape(place)}(?!:)", str(self.folder / pathlib.Path(place).name), commands)
        ran = re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", commands, re.M)
        self.assertGreaterEqual(len(ran), 2)
        for command, output in ran:
            self.assertEqual(self.run_in_shell(command), output)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--tool", type=pathlib.Path, required=True)
    parser.add_argument("--compiler", default="c++")
    parser.add_argument("--worked-examples", action="store_true")
    options, rest = parser.parse_known_args()
    options.source, options.tool = options.source.resolve(), options.tool.resolve()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
