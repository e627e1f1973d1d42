#!/usr/bin/env python3
"""Follows the recipe of docs/modules.md outside of the tree: installs the framework into a temporary folder, builds the
module and its program against it, and runs the program.

    outside_test.py --build FOLDER --source FOLDER --compiler C++ [--runner PROGRAM] [--cmake PROGRAM]
"""

import argparse
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool  # noqa: E402  # in tests/support

options = None


class Outside(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.prefix = self.root / "installed"
        self.modules = self.root / "modules"
        self.modules.mkdir()
        subprocess.run([options.cmake, "--install", options.build, "--prefix", self.prefix], check=True,
                       stdout=subprocess.DEVNULL)
        text = (options.source / "docs/modules.md").read_text()
        recipe = re.search(r"^## A module and its program\n(.*?)^## ", text, re.M | re.S).group(1)
        # Each file is named in the sentence before it.
        for name, content in re.findall(r"`([\w.-]+\.(?:cpp|h|msg))`[^`]*?:\n\n```\w*\n(.*?)```", recipe, re.S):
            (self.root / name).write_text(content)
        self.assertEqual(sorted(each.name for each in self.root.iterdir() if each.is_file()),
                         ["greet.cpp", "greeter.cpp", "greeter.h", "vendor-greeter.de.msg"])
        commands = re.sub(r"```.*?```", "", recipe, flags=re.S)
        block = re.search(r"(?:^    .*\n)+", commands, re.M).group()
        self.steps = re.findall(r"^    \$ (.*)\n((?:(?!    \$ )    .*\n)*)", block, re.M)

    def run_step(self, command):
        """Runs a command of the recipe as it stands, or as it is for Windows."""
        words = command.replace("DIR", str(self.prefix)).replace("$PWD", str(self.root)).split()
        variables = {}
        while "=" in words[0]:
            name, value = words.pop(0).split("=")
            variables[name] = value
        if words[0] == "g++":
            words[0] = options.compiler
            if options.runner:
                words = [word.replace(".so", ".dll") for word in words if word != "-fPIC"] + ["-static"]
                if "-shared" not in words:
                    words[words.index("-o") + 1] += ".exe"
            words[1:1] = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror", *options.option]
            environment = None
        elif words[0] == "cp":
            environment = None
        else:
            tool = Tool(words[0] + (".exe" if options.runner else ""), options.runner)
            words = [*tool.command, *(self.other(word) for word in words[1:])]
            environment = tool.environment() | variables
        done = subprocess.run(words, cwd=self.root, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=600)
        return done.returncode, done.stdout.decode().replace("\r\n", "\n")

    def other(self, path):
        return "Z:" + path.replace("/", "\\") if options.runner else path

    def test_the_recipe(self):
        self.assertEqual(len(self.steps), 5)
        for command, output in self.steps:
            with self.subTest(command=command):
                self.assertEqual(self.run_step(command), (0, re.sub("^    ", "", output, flags=re.M)))

    def test_a_name_that_is_none_does_not_compile(self):
        source = self.root / "greeter.cpp"
        good = source.read_text()
        compiling = self.steps[0][0]
        for wrong, other, told in (('"vendor-greeter", "1.0.0"', '"vendor/greeter", "1.0.0"', "no_name_for_a_module"),
                                   ('"vendor-greeter", "1.0.0"', '"vendor-greeter", "first"', "no_version"),
                                   ('&start, "vendor.greeter.polite"', '&start, "greeter"', "no_name_for_a_component")):
            source.write_text(good.replace(wrong, other))
            self.assertNotEqual(source.read_text(), good)
            code, said = self.run_step(compiling)
            self.assertNotEqual(code, 0)
            self.assertIn(told, said)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--runner", help="what starts the programs, where they are another system's")
    parser.add_argument("--option", action="append", default=[], help="for the compiler")
    options = parser.parse_args()
    options.build, options.source = options.build.resolve(), options.source.resolve()
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Outside)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
