#!/usr/bin/env python3
"""Runs a Windows client with every kind of missing, damaged and misplaced libqor.dll, and checks everything that it
does.

    binding_test_windows.py --bin FOLDER --tool PATH --runner PROGRAM --compiler PATH --objdump PATH --include FOLDER

FOLDER holds the client, libqor.dll and the libraries that are sound but wrong. Messages for the debugger are read from
Wine, which can print them; a real Windows shows them only to a debugger.
"""

import argparse
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from binding_cases import WrongLibraries

NOT_BESIDE = ["FAILED LoadLibraryExW() of libqor.dll\n"]
NOT_ANYWHERE = NOT_BESIDE + ["FAILED path-base LoadLibraryW() of libqor.dll\n"]
BY_NAME = NOT_BESIDE + ["WARNING Loaded libqor.dll using name only\n"]
NO_EXPORT = ["FAILED GetProcAddress() on libqor.dll for main entry point\n"]

LOST = (100, b"before the first call\r\n")
BOUND = (0, b"before the first call\r\nbound\r\nend\r\n")

# A path from GetModuleFileNameW may have up to 260 characters, including its end.
PATH_LIMIT = 260

options = None


def sections(image):
    """Returns (offset, size in the file) of the parts of a PE image that a loader maps, without the padding of the last
    block."""
    pe, = struct.unpack_from("<I", image, 60)
    assert image[pe:pe + 4] == b"PE\0\0"
    count, = struct.unpack_from("<H", image, pe + 6)
    optional, = struct.unpack_from("<H", image, pe + 20)
    for n in range(count):
        used, _, size, offset = struct.unpack_from("<IIII", image, pe + 24 + optional + n * 40 + 8)
        if size:
            yield offset, min(used, size)


def debugger_messages(trace):
    """Returns the texts that reached a debugger. Wine prints each text when the function is entered, whatever its
    width, and when it is raised."""
    found = re.findall(rb":OutputDebugString[AW] L?\"((?:[^\"\\]|\\.)*)\"", trace)
    return [text.decode().replace("\\n", "\n") for text in found]


class Binding(WrongLibraries, unittest.TestCase):
    LOST, NOT_ANYWHERE, NO_EXPORT, NOT_A_WORD = LOST, NOT_ANYWHERE, NO_EXPORT, []
    INCOMPLETE = ["FAILED libqor.dll lacks operations that this program needs\n"]
    good_start, suffix = 256, ".dll"

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.bin = self.root / "bin"
        self.bin.mkdir()
        self.library = self.bin / "libqor.dll"
        self.client = self.copy("client.exe", self.bin)
        self.real = (options.bin / "libqor.dll").read_bytes()

    def copy(self, name, to):
        return Path(shutil.copy(options.bin / name, to))

    def run_client(self, *words, client=None, path="", **more):
        """Runs the client; returns ((exit code, standard output), messages). `path` comes before the places where
        Windows searches."""
        environment = {**os.environ, "WINEDEBUG": "-all,warn+seh", "WINEPATH": path}
        more.setdefault("cwd", self.root)  # Windows searches the current folder too
        run = subprocess.run([options.runner, client or self.client, *words], stdin=subprocess.DEVNULL,
                             capture_output=True, env=environment, timeout=120, **more)
        # Wine's own lines begin with the thread and a kind; the program itself prints nothing here.
        said = [line for line in run.stderr.splitlines() if not re.match(rb"[0-9a-f]{4}:", line)]
        self.assertEqual(said, [])
        return (run.returncode, run.stdout), debugger_messages(run.stderr)

    def check(self, expected, messages, **more):
        self.assertEqual(self.run_client(**more), (expected, messages))

    # ---- a library beside the client

    def test_beside_the_client(self):
        self.library.write_bytes(self.real)
        self.check(BOUND, [])

    def test_beside_the_client_from_another_folder(self):
        self.library.write_bytes(self.real)
        self.check(BOUND, [], cwd="/")

    def test_beside_the_client_in_a_folder_with_a_name_beyond_ascii(self):
        folder = self.root / "Größe 日本語"
        folder.mkdir()
        (folder / "libqor.dll").write_bytes(self.real)
        self.check(BOUND, [], client=self.copy("client.exe", folder))

    def test_up_to_the_limit_of_a_path(self):
        """The library's path, with "Z:" in front, has the maximum length; one character more, and the library counts as
        missing."""
        for longer, messages in ((0, []), (1, BY_NAME)):
            with self.subTest(longer=longer):
                room = PATH_LIMIT + longer - len(f"Z:{self.root}/") - len("/libqor.dll")
                folder = self.root / ("x" * (room // 2)) / ("y" * (room - room // 2 - 1))
                folder.mkdir(parents=True)
                self.assertEqual(len(f"Z:{folder}/libqor.dll"), PATH_LIMIT + longer)
                (folder / "libqor.dll").write_bytes(self.real)
                # Windows finds it by its bare name nevertheless, in the folder of the program.
                self.check(BOUND, messages, client=self.copy("client.exe", folder))

    # ---- no loadable library

    def test_cut_off(self):
        """The file is truncated before its last part. Wine accepts a truncated last part; Windows refuses it."""
        size = len(self.real)
        parts = sorted(sections(self.real))
        end = parts[-1][0]
        places = {1, 2, 63, 64, 200, 500, 1000, 1024, 4096, size // 4, size // 2, end - 1, end}
        for offset, in_file in parts[:-1]:
            places |= {offset, offset + in_file // 2, offset + in_file - 1}
        for place in sorted(places):
            with self.subTest(place=place, of=size):
                self.check_damaged(self.real[:place])

    def test_another_machine(self):
        machine = bytearray(self.real)
        pe, = struct.unpack_from("<I", machine, 60)
        struct.pack_into("<H", machine, pe + 4, 0xAA64)
        self.check_damaged(machine)

    def test_a_library_that_needs_another_one(self):
        self.copy("unresolved.dll", self.library)
        self.check(LOST, NOT_ANYWHERE)

    # ---- by its bare name

    def by_name(self):
        folder = self.root / "lib"
        folder.mkdir(exist_ok=True)
        (folder / "libqor.dll").write_bytes(self.real)
        return {"path": str(folder)}

    def test_by_name_along_the_path(self):
        self.check(BOUND, BY_NAME, **self.by_name())

    def test_by_name_without_the_export(self):
        more = self.by_name()
        self.copy("without_export.dll", self.root / "lib" / "libqor.dll")
        self.check(LOST, BY_NAME + NO_EXPORT, **more)

    # ---- from a module's folder, and the process's arguments

    def test_a_client_within_a_module(self):
        folder = self.root / "Größe 日本語"
        folder.mkdir()
        (folder / "libqor.dll").write_bytes(self.real)
        module = self.copy("null_table.dll", folder)
        self.assertEqual(self.run_client("module", str(module), client=self.copy("client_windows.exe", self.bin)),
                         ((0, f"Z:{folder}\\libqor.dll\r\n".replace("/", "\\").encode()), []))

    def test_words(self):
        self.library.write_bytes(self.real)
        words = ["plain", "", "two words", 'a "quoted" one', "C:\\folder\\", "Größe", "日本語", "😀", "*.txt"]
        self.assertEqual(self.run_client("words", *words, client=self.copy("client_windows.exe", self.bin)),
                         ((0, "".join(word + "\r\n" for word in ["words", *words]).encode()), []))

    # ---- the tool itself

    def test_the_tool_beside_its_library_and_by_name(self):
        beside = self.run_client("--quiet", client=options.tool)
        tool = Path(shutil.copy(options.tool, self.bin))
        elsewhere = self.run_client("--quiet", client=tool, **self.by_name())
        self.assertEqual(beside, ((10, b"No action was given. 'qortool help' lists the actions.\r\n"), []))
        self.assertEqual(elsewhere, (beside[0], BY_NAME))

    def test_the_tool_without_its_library(self):
        tool = Path(shutil.copy(options.tool, self.bin))
        self.assertEqual(self.run_client("help", client=tool), ((100, b""), NOT_ANYWHERE))


class Linking(unittest.TestCase):
    """A client needs only the headers and a compiler: no import library, and windows.h may be included anywhere."""

    def compile(self, text):
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder) / "client.cpp"
            source.write_text(text)
            out = Path(folder) / "client.exe"
            run = subprocess.run([options.compiler, "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                                  "-I", options.include, source, "-o", out], capture_output=True, text=True,
                                 timeout=120)
            self.assertEqual((run.returncode, run.stderr), (0, ""))
            self.imports_nothing_of_ours(out)

    def test_compiles_with_the_headers_alone(self):
        self.compile((Path(__file__).resolve().parent / "client.cpp").read_text())

    def test_compiles_beside_windows_h(self):
        use = "int main() { qorSaveErrorInfo e; qorString s; e.GetMessage(s); return static_cast<int>(GetTickCount()); }\n"
        before = '#include <windows.h>\n#include "qor/qor.h"\n'
        # Including windows.h last defines its macros again, so the client undefines GetMessage.
        after = '#include "qor/qor.h"\n#include <windows.h>\n#undef GetMessage\n'
        for order in (before, after):
            with self.subTest(order=order):
                self.compile(order + use)

    def test_the_tool_imports_nothing_of_the_library(self):
        self.imports_nothing_of_ours(options.tool)

    def imports_nothing_of_ours(self, program):
        listing = subprocess.check_output([options.objdump, "-p", program], text=True)
        libraries = re.findall(r"DLL Name: (\S+)", listing)
        self.assertIn("KERNEL32.dll", libraries)
        self.assertEqual([name for name in libraries if "qor" in name.lower()], [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    for name in ("tool", "runner", "compiler", "objdump", "include"):
        parser.add_argument(f"--{name}", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
