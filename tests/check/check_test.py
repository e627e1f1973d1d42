#!/usr/bin/env python3
"""qor-check explains what the binding of a program finds. The oracle is the program itself: it ends with 100 where
qor-check ends with 1, and works where qor-check ends with 0.

    check_test.py --bin FOLDER      with qor-check, client, libqor.so, its folder, and the libraries that are wrong
"""

import argparse
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

VERSION = re.compile(r'#define QOR_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)')
HEADER = Path(__file__).resolve().parents[2] / "qorcore/include/qor/system/Version.h"
OWN = ("qor-config", "qor-network", "qor-openssl", "qor-pam", "qor-store", "qor-systemd")

options = None


class Check(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.bin = self.root / "bin"
        self.bin.mkdir()
        self.library = self.bin / "libqor.so"
        self.program = self.copy("client", self.bin)
        self.check_program = self.copy("qor-check", self.bin)
        self.version = ".".join(VERSION.findall(HEADER.read_text()))
        slots = (Path(__file__).resolve().parents[1] / "glue/slots.expected").read_text().splitlines()
        self.rows = str(len(slots))
        self.slots = slots

    def copy(self, name, to):
        return Path(shutil.copy(options.bin / name, to))

    def run_check(self, *words, program=None, **variables):
        done = subprocess.run([program or self.check_program, *words], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, errors="replace", env={"LC_ALL": "C"} | variables, timeout=120)
        return done.returncode, done.stdout, done.stderr

    def explained(self, **variables):
        """Returns the explanation of the client's binding in lines, with short names for what varies."""
        code, out, err = self.run_check(self.program, **variables)
        self.assertEqual(err, "")
        client = subprocess.run([self.program], stdin=subprocess.DEVNULL, capture_output=True, env=variables,
                                timeout=120)
        self.assertEqual((code, client.returncode), (1, 100) if client.returncode else (0, 0), out)
        for real, short in ((str(self.root), "ROOT"), (self.version, "VERSION"), (self.rows, "ROWS")):
            out = re.sub(rf"(?<![\w.]){re.escape(real)}(?![\w.])", short, out)
        # The folders of the system.
        return [line for line in out.splitlines() if not re.match(r"    /.*/libqor\.so: missing$", line)]

    HEAD = ["Program: ROOT/bin/client", "    built with version VERSION; needs a table of ROWS rows",
            "Places of libqor, in the order of the search:"]
    NOT_BESIDE = ["    ROOT/bin/libqor.so: missing"]
    NOT_INSTALLED = ["    ROOT/lib/qor/libqor.so: missing"]
    BY_NAME = ["    by the name alone; the system's log gets a warning:"]
    NOWHERE = ["No usable libqor was found, so the program ends with exit code 100. On Debian, the package libqor "
               "contains it."]
    ENDS = ["The program ends with exit code 100."]
    GOOD = ["    version VERSION; has a table of ROWS rows", "The library has all that the program needs.", "Modules:"]

    def works(self):
        """The lines of the modules, when all of them can be used."""
        return [f"    {name}: works" for name in OWN]

    # ---- a library that can be used

    def test_beside_the_program(self):
        self.copy("libqor.so", self.bin)
        shutil.copytree(options.bin / "qor", self.bin / "qor")
        self.assertEqual(self.explained(), self.HEAD + ["    ROOT/bin/libqor.so: used", "Library: ROOT/bin/libqor.so"] +
                         self.GOOD + self.works())

    def test_installed(self):
        (self.root / "lib").mkdir()
        shutil.copytree(options.bin / "qor", self.root / "lib/qor")
        self.copy("libqor.so", self.root / "lib/qor")
        self.assertEqual(self.explained(), self.HEAD + self.NOT_BESIDE + [
            "    ROOT/lib/qor/libqor.so: used", "Library: ROOT/lib/qor/libqor.so"] + self.GOOD + self.works())

    def test_along_the_run_path(self):
        (self.root / "along").mkdir()
        self.copy("libqor.so", self.root / "along")
        lines = self.explained()
        found = ["    ROOT/bin/../along/libqor.so: used", "Library: ROOT/bin/../along/libqor.so"]
        self.assertEqual(lines[:len(lines) - len(OWN)],
                         self.HEAD + self.NOT_BESIDE + self.NOT_INSTALLED + self.BY_NAME + found + self.GOOD)

    def test_where_the_loader_is_told_to_look(self):
        (self.root / "told").mkdir()
        self.copy("libqor.so", self.root / "told")
        lines = self.explained(LD_LIBRARY_PATH=f"{self.root}/told")
        self.assertIn("Library: ROOT/told/libqor.so", lines)

    def test_itself(self):
        self.copy("libqor.so", self.bin)
        code, out, err = self.run_check()
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(out.startswith(f"Program: {self.check_program}\n    built with version {self.version}; "), out)

    # ---- a library that cannot

    def test_nowhere(self):
        self.assertEqual(self.explained(), self.HEAD + self.NOT_BESIDE + self.NOT_INSTALLED + self.BY_NAME +
                         ["    ROOT/bin/../along/libqor.so: missing"] + self.NOWHERE)

    def test_damaged(self):
        self.library.write_bytes((options.bin / "libqor.so").read_bytes()[:5000])
        self.assertEqual(self.explained(), self.HEAD + ["    ROOT/bin/libqor.so: not a library, or only part of one"] +
                         self.NOT_INSTALLED + self.BY_NAME + ["    ROOT/bin/../along/libqor.so: missing"] +
                         self.NOWHERE)

    def test_needs_what_nobody_has(self):
        self.copy("unresolved.so", self.library)
        lines = self.explained()
        self.assertRegex(lines[3], r"^    ROOT/bin/libqor\.so: ROOT/bin/libqor\.so: undefined symbol: \w+$")
        self.assertEqual(lines[-1:], self.NOWHERE)

    def test_something_else(self):
        found = ["    ROOT/bin/libqor.so: used", "Library: ROOT/bin/libqor.so"]
        for name, line in (("without_export", "    is not libqor: it has no usable entry 'glue_binding_point'"),
                           ("no_function", "    is not libqor: it has no usable entry 'glue_binding_point'"),
                           ("null_table", "    hands out no table")):
            with self.subTest(name):
                self.copy(name + ".so", self.library)
                self.assertEqual(self.explained(), self.HEAD + found + [line] + self.ENDS)

    def test_an_older_library(self):
        last = len(self.slots) - 1
        advice = "the program ends with exit code 100. Install a libqor of version VERSION or later."
        for name, version, length in (("short_table", "3.2.1", last), ("table_without_length", "unknown", 0)):
            with self.subTest(name):
                self.copy(name + ".so", self.library)
                lines = self.explained()
                self.assertEqual(lines[5:], [
                    f"    version {version}; has a table of {length} rows",
                    f"The library is older than the program, which needs rows up to {last}: {advice}",
                    "Its modules are not examined: this qor-check is newer than the library."])

    def test_a_library_with_a_gap(self):
        row = next(line.split()[0] for line in self.slots if " slot qor_do_delete:" in line)
        self.copy("table_with_a_gap.so", self.library)
        self.assertIn(f"The library lacks row {row} (qor_do_delete), which the program needs: the program ends with "
                      "exit code 100. Install a libqor of version VERSION or later.", self.explained())

    # ---- modules

    def test_modules(self):
        """One is missing, one is cut off, one was built for another version, and one of somebody else fits."""
        self.copy("libqor.so", self.bin)
        shutil.copytree(options.bin / "qor", self.bin / "qor")
        (self.bin / "qor/qor-openssl.so").unlink()
        network = self.bin / "qor/qor-network.so"
        network.write_bytes(network.read_bytes()[:3000])
        for name in ("good/test-scanner.so", "test-version/test-version.so"):
            self.copy("test_modules/" + name, self.bin / "qor")
        lines = self.explained()
        self.assertEqual(lines[-1],
                         "    test-version: it was compiled for version 4.0.0 of the framework, and this is VERSION")
        self.assertEqual(lines[-2], "    test-scanner: fits; it is loaded when one of its components is wanted")
        self.assertIn("    qor-openssl: missing; on Debian, its package is libqor-openssl", lines)
        refused = "    qor-network: The module 'ROOT/bin/qor/qor-network.so' cannot be loaded: "
        self.assertTrue(any(line.startswith(refused) for line in lines), lines)
        self.assertFalse((self.bin / "ran.test-scanner").exists(), "nothing of a stranger's module runs")

    # ---- programs that say nothing, and words that are wrong

    def test_a_program_of_others(self):
        self.copy("libqor.so", self.bin)
        program = Path(shutil.copy("/bin/true", self.bin))
        code, out, _ = self.run_check(program)
        self.assertEqual(code, 0)
        self.assertIn("    does not say what it needs: it was built with older headers, or without the framework\n",
                      out)

    def test_what_is_no_program(self):
        (self.root / "text").write_text("qor app\n")
        (self.root / "empty").touch()
        (self.root / "part").write_bytes(self.program.read_bytes()[:80])
        for name in ("text", "empty", "part"):
            with self.subTest(name):
                self.assertEqual(self.run_check(self.root / name),
                                 (2, "", f"'{self.root / name}' is not a program of this system.\n"))
        self.assertEqual(self.run_check(self.root / "none"),
                         (2, "", f"'{self.root}/none' cannot be read: No such file or directory.\n"))
        self.assertEqual(self.run_check(self.root), (2, "", f"'{self.root}' cannot be read: Is a directory.\n"))

    def test_descriptions_that_are_damaged(self):
        """The description is cut or changed at every byte: qor-check ends with one of its codes, never by a signal."""
        image = bytearray(self.program.read_bytes())
        at = image.find(b"qor app\n")
        self.assertGreater(at, 0)
        for offset in range(0, 24):
            changed = image.copy()
            changed[at + offset] ^= 0xff
            self.program.write_bytes(changed)
            self.assertIn(self.run_check(self.program)[0], (0, 1), offset)

    def test_usage(self):
        code, out, err = self.run_check("--help")
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(out.startswith("Usage: qor-check [PROGRAM]\n"))
        self.assertEqual(self.run_check("--what"),
                         (2, "", "Unknown option '--what'. 'qor-check --help' shows the usage.\n"))
        self.assertEqual(self.run_check("a", "b"),
                         (2, "", "One program at a time: 'qor-check --help' shows the usage.\n"))
        odd = self.copy("client", self.root).rename(self.root / "--client")
        self.assertIn(str(odd), self.run_check("--", odd)[1])

    def test_languages(self):
        """With a library, the texts are in the user's language; without one, in English."""
        self.copy("libqor.so", self.bin)
        shutil.copytree(options.bin / "qor", self.bin / "qor")
        for language, line in (("de", "Die Bibliothek hat alles, was das Programm braucht."),
                               ("fr", "La bibliothèque a tout ce qu'il faut au programme.")):
            self.assertIn(line, self.run_check(self.program, QOR_LANGUAGE=language, LC_ALL="C.UTF-8")[1])
        german = {"QOR_LANGUAGE": "de", "LC_ALL": "C.UTF-8"}
        self.assertTrue(self.run_check("--help", **german)[1].startswith("Aufruf: qor-check [PROGRAMM]\n"))
        self.assertEqual(self.run_check("--what", **german),
                         (2, "", "Unbekannte Option „--what“. „qor-check --help“ zeigt den Aufruf.\n"))
        self.assertIn("kann nicht gelesen werden", self.run_check(self.root / "none", **german)[2])
        self.assertIn("--qor-nonsense", self.run_check("--qor-nonsense", self.program)[2])
        self.library.unlink()
        self.assertIn(self.NOWHERE[0], self.run_check(self.program, QOR_LANGUAGE="de", LC_ALL="C.UTF-8")[1])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    options, rest = parser.parse_known_args()
    options.bin = options.bin.resolve()
    unittest.main(argv=[sys.argv[0], "-v", *rest])
