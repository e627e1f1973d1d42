#!/usr/bin/env python3
"""A project outside of the tree finds an installed framework by CMake, and its program runs: on Linux with what
`cmake --install` installs, for Windows with the zip, the toolchain file of docs/windows.md, and Wine.

    outside_test.py --build FOLDER --version VERSION --cmake PROGRAM --compiler C++ [--zip FILE --runner PROGRAM]
"""

import argparse
import re
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool  # noqa: E402  # in tests/support

SOURCE = Path(__file__).resolve().parents[2]
PROJECT = SOURCE / "tests/packages/program"

options = None


class Outside(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name).resolve()
        cls.installed = cls.folder / "a place"
        if options.zip:
            with zipfile.ZipFile(options.zip) as archive:
                archive.extractall(cls.installed)
            cls.installed /= f"qor-{options.version}"
            page = (SOURCE / "docs/windows.md").read_text()
            cls.toolchain = cls.folder / "mingw.cmake"
            cls.toolchain.write_text(re.search(r"`mingw\.cmake`[^`]*?:\n\n```cmake\n(.*?)```", page, re.S).group(1))
        else:
            subprocess.run([options.cmake, "--install", options.build, "--prefix", cls.installed], check=True,
                           stdout=subprocess.DEVNULL)

    def configure(self, name, source=PROJECT, **more):
        build = self.folder / name
        words = [options.cmake, "-G", "Ninja", "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.installed}",
                 *(f"-D{name}={value}" for name, value in more.items())]
        words.append(f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}" if options.zip
                     else f"-DCMAKE_CXX_COMPILER={options.compiler}")
        done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=300)
        return build, done

    def run_program(self, program, *words, **variables):
        tool = Tool(program, options.runner)
        done = subprocess.run([*tool.command, *words], env=tool.environment() | variables, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=120)
        return done.returncode, done.stdout.decode().replace("\r\n", "\n")

    def test_a_program_is_built_and_runs(self):
        build, done = self.configure("build", CMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror")
        self.assertEqual(done.returncode, 0, done.stdout)
        done = subprocess.run([options.cmake, "--build", build], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, timeout=600)
        self.assertEqual(done.returncode, 0, done.stdout)
        program = build / ("sorted.exe" if options.zip else "sorted")
        self.assertEqual(self.run_program(program, "pear", "apple", "pear"),
                         (0, "apple\npear\nThis is not supported here.\n"))
        self.assertEqual(self.run_program(program, "a", QOR_LANGUAGE="de")[1].splitlines()[0], "a")
        self.assertNotIn("This is not supported here", self.run_program(program, "a", QOR_LANGUAGE="de")[1])
        # Without the library, the binding fails.
        (build / "libqor.dll" if options.zip else self.installed / "lib/libqor.so").rename(self.folder / "away")
        try:
            self.assertEqual(self.run_program(program, "a"), (100, ""))
        finally:
            (self.folder / "away").rename(build / "libqor.dll" if options.zip else self.installed / "lib/libqor.so")

    def test_versions(self):
        """Those of the same major number up to the installed one fit."""
        major = options.version.split(".")[0]
        for version, fits in ((options.version, True), (f"{major}.1", True), (f"{major}.999", False),
                              (f"{int(major) - 1}.0", False), (f"{int(major) + 1}.0", False)):
            with self.subTest(version=version):
                source = self.folder / f"asks for {version}"
                source.mkdir()
                (source / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\n"
                                                       "project(asks LANGUAGES CXX)\n"
                                                       f"find_package(qor {version} REQUIRED)\n")
                _, done = self.configure(f"build {version}", source)
                self.assertEqual(done.returncode == 0, fits, done.stdout)
                if not fits:
                    self.assertIn(f"version: {options.version}", done.stdout)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--zip")
    parser.add_argument("--runner")
    options = parser.parse_args()
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Outside)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
