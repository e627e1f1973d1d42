#!/usr/bin/env python3
"""Compares the list of the operations with the public headers and with the reserved rows of the table.

    operations_test.py --compiler C++ --include FOLDER [--option OPTION]...

Each name of the list `operations` must be declared in the headers, or stand in the list `unwritten`. A name that stands
in both places fails, and so does a reserved row that is not in `unwritten`. So that list can only become shorter.
"""

import argparse
import pathlib
import re
import subprocess
import tempfile
import unittest

here = pathlib.Path(__file__).resolve().parent
options = None


def names(file):
    lines = [line for line in (here / file).read_text().splitlines() if not line.startswith(("#", "=="))]
    return " ".join(lines).split()


def using(name):
    """Returns the C++ source that compiles only if the name is declared."""
    if "::" not in name:
        return f"using ::{name};"
    owner, member = name.split("::")
    if member == owner:  # a constructor: nothing but its class is certain, since some take arguments
        return f"static_assert(sizeof({owner}) != 0);"
    # A using-declaration for a member needs a derived class, but no object of it.
    identifier = re.sub(r"\W", "_", member)
    return f"struct probe_{owner}_{identifier} : {owner} {{ using {owner}::{member}; }};"


def compiled(source):
    """Returns what the compiler says about these declarations; empty if it accepts them."""
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "operations.cpp"
        file.write_text('#include "qor/qor.h"\n' + "\n".join(source) + "\n")
        done = subprocess.run([options.compiler, "-std=c++20", "-fsyntax-only", f"-I{options.include}", *options.option,
                               file], capture_output=True, text=True)
    return done.stderr if done.returncode != 0 else ""


class Operations(unittest.TestCase):
    def test_no_name_stands_twice(self):
        for file in ["operations", "unwritten"]:
            all_names = names(file)
            self.assertEqual(sorted(set(all_names)), sorted(all_names), file)

    def test_what_is_unwritten_is_an_operation(self):
        self.assertEqual([name for name in names("unwritten") if name not in names("operations")], [])

    def test_each_written_one_is_declared(self):
        unwritten = names("unwritten")
        self.assertEqual(compiled([using(name) for name in names("operations") if name not in unwritten]), "")

    def test_the_probe_sees_what_is_missing(self):
        self.assertIn("no_such_operation", compiled([using("no_such_operation")]))
        self.assertIn("NoSuchOperation", compiled([using("qorString::NoSuchOperation")]))

    def test_what_is_unwritten_is_not_declared(self):
        headers = "\n".join(re.sub(r"//.*", "", path.read_text())
                            for path in pathlib.Path(options.include).rglob("*.h"))
        files = (pathlib.Path(options.include) / "qor/system/File.h").read_text()
        for name in names("unwritten"):
            owner, _, member = name.rpartition("::")
            text = files.partition("class qorFile {")[2].partition("\n};")[0] if owner == "qorFile" else headers
            with self.subTest(name=name):  # one that is declared has to leave the list
                self.assertIsNone(re.search(rf"\b{member}\(", text))

    def test_the_reserved_rows_are_unwritten(self):
        table = (pathlib.Path(options.include) / "qor/glue/slots.def").read_text()
        reserved = re.findall(r"^QOR_RESERVED\(\d+, (\w+)\)", table, re.M)
        reserved = {re.sub("^qorFile_", "qorFile::", re.sub("_object$", "", op)) for op in reserved}
        self.assertEqual(reserved, set(names("unwritten")))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("--option", action="append", default=[])
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
