#!/usr/bin/env python3
"""The sources are formatted as .clang-format says, shellcheck finds no fault in the shell scripts, and Windows allows
the names of all files.

clang-format is called by its version, because each version formats a little differently.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
# Build folders, and files that nobody edited by hand.
PASSED_OVER = {"build", ".git", "__pycache__"}


def sources():
    for folder, folders, names in os.walk(TREE):
        folders[:] = sorted(set(folders) - PASSED_OVER)
        yield from (Path(folder, name) for name in sorted(names))


def is_shell(path):
    """Recognises a script by its first line: scripts have no file extension here, and files for sourcing name their
    shell for shellcheck."""
    with open(path, "rb") as file:
        first = file.readline(200)
    return first.startswith((b"#!/usr/bin/env bash", b"#!/bin/bash", b"#!/bin/sh", b"# shellcheck shell="))


def check(program, *words):
    """Returns the findings of the program as one text; empty if there are none."""
    done = subprocess.run([program, *map(str, words)], cwd=TREE, stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout if done.returncode == 0 else done.stdout or f"{program} ends with {done.returncode}"


def misformatted(*paths):
    return check("clang-format-14", "--dry-run", "-Werror", f"--style=file:{TREE}/.clang-format", *paths)


def scripts_findings(*paths):
    return check("shellcheck", "--external-sources", *paths)


def is_for_any_system(path):
    """Returns whether Windows allows the name: it reserves those of devices, with any extension, and some characters."""
    device = re.match(r"(con|prn|aux|nul|com\d|lpt\d)(\.|$)", path.name, re.IGNORECASE)
    return not device and not re.search(r'[\0-\x1f<>:"|?*\\]|[ .]$', path.name)


class Style(unittest.TestCase):
    def test_sources_are_formatted(self):
        paths = [path for path in sources() if path.suffix in (".cpp", ".h", ".c")]
        self.assertGreater(len(paths), 300)
        self.assertEqual(misformatted(*paths), "")

    def test_scripts_are_clean(self):
        paths = [path for path in sources() if path.is_file() and not path.is_symlink() and is_shell(path)]
        names = {str(path.relative_to(TREE)) for path in paths}
        self.assertLessEqual({"test", "run", "package", ".ci/run", "scripts/setup.sh"}, names)
        self.assertEqual(scripts_findings(*paths), "")

    def test_names_are_for_any_system(self):
        self.assertEqual([path for path in sources() if not is_for_any_system(path)], [])
        for wrong in "nul", "NUL.txt", "com1", "a:b", "what?", "dot.":
            self.assertFalse(is_for_any_system(Path(wrong)), wrong)
        for right in "nul_byte", "console", ".ci", "a.b":
            self.assertTrue(is_for_any_system(Path(right)), right)

    def test_what_is_wrong_is_found(self):
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder, "wrong.cpp")
            source.write_text("int  main( ) { }\n")
            self.assertIn("wrong.cpp", misformatted(source))
            script = Path(folder, "wrong")
            script.write_text("#!/usr/bin/env bash\necho $1\n")
            self.assertTrue(is_shell(script))
            self.assertIn("SC2086", scripts_findings(script))


if __name__ == "__main__":
    sys.exit(unittest.main())
