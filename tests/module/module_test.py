#!/usr/bin/env python3
"""Runs clients with every kind of missing, damaged and misplaced module. The result is an error of the operation that
needs the module, and never the end of the process.

    module_test.py --bin FOLDER [--runner PROGRAM]

FOLDER holds libqor, in its folder "qor" the module qor-openssl, the clients digest and twice, and the libraries that
are sound but wrong.
"""

import argparse
import hashlib
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from damaged_libraries import DamagedLibraries  # noqa: E402  # in tests/support
from strange_files import KINDS, REASONS, strange_file  # noqa: E402  # in tests/support
from tool import Tool  # noqa: E402  # in tests/support

NOBODY = 65534
TEXT = b"the text\n"

options = None


class Modules(DamagedLibraries, unittest.TestCase):
    good_start = 256

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.root.chmod(0o755)
        (self.root / "text").write_bytes(TEXT)
        self.bin = self.root / "bin"
        (self.bin / "qor").mkdir(parents=True)
        self.library = self.copy("libqor" + options.library, self.bin)
        self.module = self.bin / "qor" / ("qor-openssl" + options.library)
        self.real = (options.bin / "qor" / self.module.name).read_bytes()

    def copy(self, name, to):
        return Path(shutil.copy(options.bin / name, to))

    def start(self, client, *words, **more):
        tool = Tool(self.copy(client + options.program, self.bin), options.runner)
        return subprocess.Popen([*tool.command, *words], cwd=self.root, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env=tool.environment(), **more)

    def end(self, process, given=b""):
        """Returns (exit code, standard output, standard error), with the line ends of POSIX."""
        out, err = process.communicate(given, timeout=120)
        return process.returncode, *(text.replace(b"\r\n", b"\n").decode() for text in (out, err))

    def path(self, path):
        """Returns a path as the programs print it: Wine has this system's files on a drive Z:."""
        if not options.runner:
            return str(path)
        return "Z:" + str(path.parent).replace("/", "\\").removesuffix("\\qor") + (
            "\\qor/" if path.parent.name == "qor" else "\\") + path.name

    def digest(self, algorithm="sha256", **more):
        return self.end(self.start("digest", algorithm, "text", **more))

    def check_works(self, algorithm="sha256"):
        expected = hashlib.new(algorithm, TEXT, usedforsecurity=False).hexdigest()
        self.assertEqual(self.digest(algorithm), (0, expected + "  text\n", ""))

    def check_fails(self, message, **more):
        for algorithm in ("sha1", "sha256", "sha512"):
            code, out, err = self.digest(algorithm, **more)
            self.assertEqual((code, out), (1, ""), err)
            self.assertRegex(err, "^" + message + "\n$")
        # An operation that needs no module still works.
        self.check_works("md5")

    def check_missing(self, **more):
        package = "" if options.runner else (" Install its package \\(on Debian libqor-openssl\\), or build the framework "
                                             "with what it needs\\.")
        self.check_fails(f"The module '{self.quoted(self.module)}' is missing\\.{package}", **more)

    def check_unusable(self, module=None, reason=".+", **more):
        self.check_fails(f"The module '{self.quoted(module or self.module)}' cannot be loaded: {reason}\\.", **more)

    def check_damaged(self, image, reason=".+"):
        self.module.write_bytes(image)
        self.check_unusable(reason=reason)

    def check_wrong(self, reason):
        self.check_fails(f"The file '{self.quoted(self.module)}' is not a module that this library can use: {reason}\\.")

    def quoted(self, path):
        return self.path(path).replace("\\", "\\\\").replace(".", "\\.")

    # ---- a sound module

    def test_in_the_folder_qor(self):
        self.module.write_bytes(self.real)
        for algorithm in ("md5", "sha1", "sha256", "sha512"):
            self.check_works(algorithm)

    def test_beside_the_library(self):
        (self.bin / self.module.name).write_bytes(self.real)
        self.check_works()

    # ---- no loadable module

    def test_missing(self):
        self.check_missing()

    def test_a_folder_of_that_name(self):
        self.module.mkdir()
        self.check_unusable()
        self.module.rmdir()
        beside = self.bin / self.module.name
        beside.mkdir()
        self.check_unusable(beside)
        self.module.write_bytes(self.real)
        self.check_works()

    def test_cut_off(self):
        """The file is truncated at various places. The last quarter of a Windows library contains symbols that no
        loader reads."""
        size = len(self.real)
        places = [1, 4, 63, 64, 65, 500, 4095, 4096, 4097, size // 4, size // 2, size * 3 // 4]
        if not options.runner:
            places += [size * 9 // 10, size - 1]
        for place in places:
            with self.subTest(place=place, of=size):
                self.check_damaged(self.real[:place])

    # ---- a library that is not a module

    def test_without_the_export(self):
        self.copy("without_entry" + options.library, self.module)
        self.check_wrong("it has no usable entry")

    def test_without_a_description(self):
        self.copy("without_export" + options.library, self.module)
        self.check_wrong("it has no description of a module")

    def test_with_the_name_of_another(self):
        other = self.bin / "qor" / ("qor-network" + options.library)
        shutil.copy(options.bin / "qor" / other.name, self.module)
        self.check_wrong("its description is that of 'qor-network'")

    def test_another_library_of_ours(self):
        shutil.copy(self.library, self.module)
        self.check_wrong("it has no description of a module")

    def test_a_module_that_cannot_work_with_this_library(self):
        self.copy("refusing_module" + options.library, self.module)
        self.check_wrong("it refuses this library")

    def test_needs_what_nobody_has(self):
        self.copy("unresolved_module" + options.library, self.module)
        self.check_unusable()

    def test_exports_that_are_no_functions(self):
        self.copy("no_function_module" + options.library, self.module)
        self.check_wrong("it has no usable entry")

    # ---- in one process

    def test_put_right_while_the_process_runs(self):
        process = self.start("twice", "sha1")
        process.stdout.readline()  # the first attempt is over
        self.module.write_bytes(self.real)
        self.assertEqual(self.end(process, b"\n"), (0, "made\n", ""))

    def test_taken_away_while_it_is_used(self):
        self.module.write_bytes(self.real)
        process = self.start("twice", "sha1")
        self.assertEqual(process.stdout.readline().split(), [b"made"])
        if not options.runner:  # Windows cannot delete the file of a loaded library
            self.module.unlink()
        self.assertEqual(self.end(process, b"\n"), (0, "made\n", ""))


class ModulesPosix(Modules):
    """Cases that only POSIX has."""

    def test_unreadable(self):
        self.module.write_bytes(self.real)
        self.module.chmod(0)
        # Every file is readable to root.
        nobody = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        self.check_unusable(reason="Permission denied", **nobody)

    def test_what_is_no_file(self):
        """Opening does not wait for the other end of a pipe, and a dangling link counts as a missing file."""
        for kind in KINDS:
            with self.subTest(kind=kind), strange_file(kind, self.module, self.real):
                if kind == "link to nothing":
                    self.check_missing()
                else:
                    self.check_unusable(reason=REASONS.get(kind, "it is not a regular file"))

    def test_another_machine(self):
        machine = bytearray(self.real)
        machine[18:20] = b"\xff\x7f"
        self.check_damaged(machine)

    def test_the_reason_of_a_part_of_a_library(self):
        self.check_damaged(self.real[:-1], "it is not a library, or only part of one")

    def test_single_bits_of_the_headers(self):
        """Tries some of the bits of which binding_test.py tries all: the module works, or is refused with a reason."""
        self.module.write_bytes(self.real)
        digest = self.copy("digest", self.bin)
        sound = (0, hashlib.sha256(TEXT).hexdigest() + "  text\n", "")
        size, count = struct.unpack_from("<HH", self.real, 54)
        refused = 0
        with open(self.module, "r+b", buffering=0) as module:
            for bit in range(0, (64 + size * count) * 8, 19):
                byte = self.real[bit // 8]
                os.pwrite(module.fileno(), bytes([byte ^ 1 << bit % 8]), bit // 8)
                run = subprocess.run([digest, "sha256", "text"], cwd=self.root, capture_output=True, timeout=120,
                                     text=True)
                os.pwrite(module.fileno(), bytes([byte]), bit // 8)
                if (run.returncode, run.stdout, run.stderr) != sound:
                    self.assertEqual((run.returncode, run.stdout), (1, ""), f"byte {bit // 8}, bit {bit % 8}")
                    # The index of the names of sections is one of the fields.
                    self.assertRegex(run.stderr, "^The (module .* cannot be loaded|file .* is not a module .*): ")
                    refused += 1
        self.assertGreater(refused, 0)

    def install(self):
        """Puts the library among its modules, in the private folder of an installation."""
        private = self.root / "lib/qor"
        private.parent.mkdir()
        shutil.move(self.bin / "qor", private)
        shutil.move(self.library, private)
        self.module = private / self.module.name
        self.copy("digest", self.bin)

    def digest_installed(self):
        run = subprocess.run([self.bin / "digest", "sha1", "text"], cwd=self.root, capture_output=True, timeout=120,
                             text=True)
        return run.returncode, run.stdout, run.stderr

    def test_installed(self):
        self.install()
        self.module.write_bytes(self.real)
        self.assertEqual(self.digest_installed(), (0, hashlib.sha1(TEXT).hexdigest() + "  text\n", ""))

    def test_installed_and_missing(self):
        """The path in the message is that in the private folder."""
        self.install()
        code, _, problem = self.digest_installed()
        self.assertEqual(code, 1)
        self.assertTrue(problem.startswith(f"The module '{self.module}' is missing."), problem)

    def test_in_a_program_folder_of_that_name(self):
        """A program may lie in a folder with the name of the private one: its modules lie in a folder inside."""
        self.bin = self.bin.rename(self.root / "qor")
        module = self.bin / "qor" / self.module.name
        module.write_bytes(self.real)
        self.copy("digest", self.bin)
        self.assertEqual(self.digest_installed(), (0, hashlib.sha1(TEXT).hexdigest() + "  text\n", ""))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--runner", help="what starts the programs, where they are another system's")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    options.library, options.program = (".dll", ".exe") if options.runner else (".so", "")
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Modules if options.runner else ModulesPosix)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
