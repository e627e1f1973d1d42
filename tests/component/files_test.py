#!/usr/bin/env python3
"""Modules whose files are damaged, cut off, strange or hostile: each is refused with a reason, and nothing crashes.

    files_test.py --driver PROGRAM --modules FOLDER [--runner PROGRAM]
"""

import argparse
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from strange_files import KINDS, strange_file  # noqa: E402  # in tests/support
from tool import Tool  # noqa: E402  # in tests/support

options = None
MAGIC = b"qor mod\n"
SHEET = b"test.scanner.sheet"


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        self.module = self.folder / ("test-scanner" + options.library)
        self.real = (options.modules / "good" / self.module.name).read_bytes()
        self.tool = Tool(options.driver, options.runner)

    def run_driver(self, *components):
        """Returns the lines of the driver, which must end well whatever the folder has."""
        folder = str(self.folder) if not options.runner else "Z:" + str(self.folder).replace("/", "\\")
        done = subprocess.run([*self.tool.command, folder, *components], cwd=self.folder, capture_output=True, timeout=120,
                              env=self.tool.environment())
        self.assertEqual((done.returncode, done.stderr.replace(b"\r", b"")), (0, b""), done)
        return done.stdout.decode().replace("\r\n", "\n").splitlines()

    def description(self):
        """Returns where the description is, and its size."""
        at = self.real.find(MAGIC)
        self.assertGreater(at, 0)
        return at, struct.unpack_from("<I", self.real, at + 12)[0]

    def check(self, image, expected_reason=None):
        """The component is made, or refused with a reason. Returns whether it was made."""
        self.module.write_bytes(image)
        lines = self.run_driver("test.scanner.sheet")
        if lines[-1] == "test.scanner.sheet: 14":
            return True
        self.assertEqual(len(lines), 2, lines)
        self.assertRegex(lines[1], "^(There is no component|The module|The file|The component) ")
        if expected_reason:
            self.assertIn(expected_reason, lines[0])
        return False

    def test_sound(self):
        self.assertTrue(self.check(self.real))
        self.assertEqual(self.run_driver(),
                         ["test-scanner 1.2.10 0  test.scanner.flatbed test.scanner.sheet test.scanner.broken"])

    def test_cut_off(self):
        at, size = self.description()
        for place in (0, 1, 3, 4, 16, 60, 63, 64, 100, at, at + 8, at + size // 2, at + size - 1, len(self.real) // 2):
            with self.subTest(place=place):
                self.assertFalse(self.check(self.real[:place]))

    def test_not_a_library(self):
        for image in (b"", b"\n", b"text " * 1000, bytes(10000), b"MZ", b"\x7fELF", MAGIC * 100,
                      random.Random(1).randbytes(50000)):
            with self.subTest(begin=image[:8]):
                self.assertFalse(self.check(image, "it is not a library, or only part of one"))

    def test_library_of_another_kind(self):
        names = {".so": "libqor.so", ".dll": "libqor.dll"}
        image = (options.driver.parent / names[options.library]).read_bytes()
        self.assertFalse(self.check(image, "it has no description of a module"))

    def test_fields_of_the_description(self):
        """Each field of the head has values that do not fit what follows."""
        at, size = self.description()
        rows = struct.unpack_from("<I", self.real, at + 20)[0]
        text = at + 24 + 8 * rows
        cases = {"magic": (at, b"QOR mod\n"), "layout": (at + 8, struct.pack("<I", 7)),
                 "size 0": (at + 12, bytes(4)), "size of the head": (at + 12, struct.pack("<I", 24)),
                 "size beyond": (at + 12, b"\xff\xff\xff\xff"), "one byte more": (at + 12, struct.pack("<I", size + 4096)),
                 "one byte less": (at + 12, struct.pack("<I", size - 1)), "no rows": (at + 20, bytes(4)),
                 "rows beyond": (at + 20, b"\xff\xff\xff\xff"), "one row more": (at + 20, struct.pack("<I", rows + 1)),
                 "one row less": (at + 20, struct.pack("<I", rows - 1)), "short table": (at + 16, struct.pack("<I", 5)),
                 "rows twice": (at + 24, self.real[at + 32:at + 40]), "bad name": (text, b"/"),
                 "empty name": (text, b"\0"), "control character": (text + 3, b"\n"),
                 "version": (self.real.index(b"1.2.10", text), b"1.2..0"),
                 "component": (self.real.index(SHEET, text), b"test/scanner.sheet"),
                 "the same component": (self.real.index(SHEET, text), b"test.scanner.broken"[:18]),
                 "invalid UTF-8": (self.real.index(SHEET, text), b"\xff")}
        for what, (place, other) in cases.items():
            with self.subTest(what=what):
                image = self.real[:place] + other + self.real[place + len(other):]
                self.assertNotEqual(image, self.real)
                if what == "the same component":
                    image = image.replace(b"test.scanner.flatbed", b"test.scanner.broke\0x", 1)
                self.assertFalse(self.check(image))

    def test_single_bits(self):
        """Every bit of the head, and some of the rows and texts: no changed description is used."""
        at, size = self.description()
        places = [(at + byte, bit) for byte in range(24) for bit in range(0, 8, 3)]
        others = random.Random(3)
        places += [(at + 24 + others.randrange(size - 24), others.randrange(8)) for _ in range(10 if options.runner else 60)]
        for place, bit in places:
            with self.subTest(byte=place - at, bit=bit):
                image = bytearray(self.real)
                image[place] ^= 1 << bit
                made = self.check(image)
                # A bit of the texts may lead to another version, or rename another component.
                rows = struct.unpack_from("<I", self.real, at + 20)[0]
                if place < at + 24 + 8 * rows:
                    # Only a shorter table can still do, where no row is behind its end.
                    self.assertTrue(not made or at + 16 <= place < at + 20, image[at:at + 24])

    def test_headers_at_random(self):
        """Random numbers in the headers of the file, where the sections are looked for."""
        numbers = random.Random(4)
        made = 0
        if options.library == ".dll":
            start = struct.unpack_from("<I", self.real, 60)[0]
            ranges = [(60, 64), (start, start + 24), (start + 24 + 240, start + 24 + 240 + 400)]
        else:
            table, = struct.unpack_from("<Q", self.real, 40)
            ranges = [(0, 64), (table, len(self.real))]
        for _ in range(20 if options.runner else 150):
            image = bytearray(self.real)
            begin, end = numbers.choice(ranges)
            place = numbers.randrange(begin, end)
            image[place] = numbers.randrange(256)
            # What the loader itself would trust is checked by tests/module; here the driver lists the folder only.
            self.module.write_bytes(image)
            made += any("test.scanner.sheet" in line for line in self.run_driver())
        self.assertGreater(made, 0)

    def test_a_copy_is_no_second_module(self):
        shutil.copy(options.modules / "good" / self.module.name, self.folder)
        copy = self.folder / ("test-copy" + options.library)
        shutil.copy(options.modules / "good" / self.module.name, copy)
        (self.folder / ("." + self.module.name)).write_bytes(self.real)  # hidden
        lines = self.run_driver("test.scanner.sheet")
        self.assertEqual(len(lines), 3, lines)
        self.assertEqual(lines[0], "test-copy 1.2.10 2 its description is that of 'test-scanner'")
        self.assertEqual(lines[2], "test.scanner.sheet: 14")

    def test_many_files(self):
        """A folder with other files and folders, and an empty one."""
        self.assertEqual(len(self.run_driver("test.scanner.sheet")), 1)
        for number in range(300):
            (self.folder / f"test-{number}.txt").write_text("text")
            (self.folder / f"test-{number}{options.library}").write_text("text")
        (self.folder / f"test-folder{options.library}").mkdir()
        self.module.write_bytes(self.real)
        lines = self.run_driver("test.scanner.sheet")
        self.assertEqual(len(lines), 302)
        self.assertEqual(lines[-1], "test.scanner.sheet: 14")


class FilesPosix(Files):
    """Cases that only POSIX has."""

    def test_strange_files(self):
        """A FIFO or a device of that name does not stop the search."""
        for kind in KINDS:
            with self.subTest(kind=kind), strange_file(kind, self.module, self.real):
                lines = self.run_driver("test.scanner.sheet")
                self.assertRegex(lines[-1], "cannot be loaded: Too many levels of symbolic links" if
                                 kind == "link to itself" else "^There is no component")

    def test_unreadable(self):
        self.module.write_bytes(self.real)
        self.module.chmod(0)
        os.chmod(self.folder, 0o755)
        lines = self.run_driver("test.scanner.sheet")
        if os.geteuid() != 0:
            self.assertIn("Permission denied", lines[0])
        else:
            self.assertEqual(lines[-1], "test.scanner.sheet: 14")  # everything is readable to root

    def test_huge_sections(self):
        """Sizes and places that no file has: nothing is read for them, and no memory is taken."""
        table, = struct.unpack_from("<Q", self.real, 40)
        size, count, names = struct.unpack_from("<HHH", self.real, 58)
        for section in range(count):
            for field, value in ((24, 2**64 - 1), (32, 2**64 - 1), (32, 2**40), (24, 2**63), (0, 2**32 - 1)):
                image = bytearray(self.real)
                struct.pack_into("<I" if field == 0 else "<Q", image, table + section * size + field,
                                 value)
                self.module.write_bytes(image)
                if section in (0, names, count // 2, count - 1):
                    self.assertEqual(len(self.run_driver()), 1)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", type=Path, required=True)
    parser.add_argument("--modules", type=Path, required=True)
    parser.add_argument("--runner", help="what starts the programs, where they are another system's")
    options = parser.parse_args()
    options.driver = options.driver.resolve()
    options.library = ".dll" if options.runner else ".so"
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Files if options.runner else FilesPosix)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
