#!/usr/bin/env python3
"""Runs a client with every kind of missing, damaged and misplaced libqor, and checks everything that it does.

    binding_test.py --bin FOLDER --tool PATH --compiler PATH --include FOLDER [--instrumented]

FOLDER holds the client, libqor.so, the preloaded recorder of the system log, and the libraries that are sound but
wrong. --instrumented: the build has a sanitizer, whose own dlopen does not follow the executable's run path; for a load
by the bare name, LD_LIBRARY_PATH then contains the library's folder.
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

LOG_USER_DEBUG = 8 | 7
NOT_BESIDE = f"{LOG_USER_DEBUG} FAILED dlopen() of libqor.so\n"
NOT_ANYWHERE = NOT_BESIDE + f"{LOG_USER_DEBUG} FAILED path-base dlopen() of libqor.so\n"
BY_NAME = NOT_BESIDE + f"{LOG_USER_DEBUG} WARNING Loaded libqor.so using name only\n"
NO_EXPORT = f"{LOG_USER_DEBUG} FAILED dlsym() on libqor.so for main entry point\n"

LOST = (100, b"before the first call\n", b"")
BOUND = (0, b"before the first call\nbound\nend\n", b"")

NOBODY = 65534
PT_LOAD = 1

options = None


def segments(image):
    """Returns (offset, size in the file) of the parts of an ELF image that a loader maps."""
    assert image[:5] == b"\x7fELF\x02", "a 64-bit ELF file"
    at, = struct.unpack_from("<Q", image, 32)
    size, count = struct.unpack_from("<HH", image, 54)
    for n in range(count):
        kind, _, offset, _, _, in_file = struct.unpack_from("<IIQQQQ", image, at + n * size)
        if kind == PT_LOAD:
            yield offset, in_file


class Binding(WrongLibraries, unittest.TestCase):
    LOST, NOT_ANYWHERE, NO_EXPORT, NOT_A_WORD = LOST, NOT_ANYWHERE, NO_EXPORT, ""
    INCOMPLETE = f"{LOG_USER_DEBUG} FAILED libqor.so lacks operations that this program needs\n"
    good_start, suffix = 16, ".so"

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.root.chmod(0o777)
        self.bin = self.root / "bin"
        self.bin.mkdir()
        self.log = self.root / "log"
        self.library = self.bin / "libqor.so"
        self.client = self.copy("client", self.bin)
        self.recorder = self.copy("fake_syslog.so", self.root)
        self.real = (options.bin / "libqor.so").read_bytes()

    def copy(self, name, to):
        return Path(shutil.copy(options.bin / name, to))

    def run_client(self, *words, client=None, environment=None, **more):
        """Runs the client; returns (exit code, standard output, standard error). The log is then in self.log."""
        self.log.unlink(missing_ok=True)
        environment = {
            "PATH": "/usr/bin:/bin",
            "LD_PRELOAD": str(self.recorder),
            "FAKE_SYSLOG": str(self.log),
            # The preloaded library comes before the sanitizer's, which would be an error.
            "ASAN_OPTIONS": "verify_asan_link_order=0",
            **(environment or {}),
        }
        run = subprocess.run([client or self.client, *words], stdin=subprocess.DEVNULL, capture_output=True,
                             env=environment, timeout=120, **more)
        return run.returncode, run.stdout, run.stderr

    def logged(self):
        return self.log.read_text() if self.log.exists() else ""

    def check(self, expected, log, **more):
        self.assertEqual(self.run_client(**more), expected)
        self.assertEqual(self.logged(), log)

    # ---- a library beside the client

    def test_beside_the_client(self):
        self.library.write_bytes(self.real)
        self.check(BOUND, "")

    def test_beside_the_client_from_another_folder(self):
        self.library.write_bytes(self.real)
        self.check(BOUND, "", cwd="/")

    def test_beside_the_file_that_a_link_leads_to(self):
        self.library.write_bytes(self.real)
        link = self.root / "link"
        link.symlink_to(self.client)
        self.check(BOUND, "", client=link)

    def test_a_long_path(self):
        folder = self.root.joinpath(*["a-long-name-" * 15] * 6)
        folder.mkdir(parents=True)
        self.assertGreater(len(str(folder)), 1024)
        (folder / "libqor.so").write_bytes(self.real)
        self.check(BOUND, "", client=self.copy("client", folder))

    # ---- installed: the client in bin, the library in the private folder

    def test_installed(self):
        self.install(self.real)
        self.check(BOUND, "")

    def test_installed_behind_a_damaged_one(self):
        self.library.write_bytes(b"")
        self.install(self.real)
        self.check(BOUND, "")

    def test_installed_but_beside_is_nearer(self):
        self.library.write_bytes(self.real)
        self.install((options.bin / "without_export.so").read_bytes())
        self.check(BOUND, "")

    def test_installed_cut_off(self):
        self.install(self.real[:len(self.real) // 4])
        self.check(LOST, NOT_ANYWHERE)

    def test_the_tool_installed(self):
        beside = self.run_client("--quiet", "help", client=options.tool)
        self.install(self.real)
        installed = self.run_client("--quiet", "help", client=Path(shutil.copy(options.tool, self.bin)))
        self.assertEqual(self.logged(), "")
        self.assertEqual(installed, beside)
        self.assertEqual(installed[0], 1)
        self.assertIn(b"memcheck", b"".join(installed[1:]))

    def test_installed_in_another_folder(self):
        """As the headers of an installation say, or the program's own compiler options."""
        client = self.bin / "other"
        source = Path(__file__).resolve().parent / "client.cpp"
        for folder in ("../lib64/qor", "../deep/er/lib/x86_64-linux-gnu/qor", "inside"):
            with self.subTest(folder):
                subprocess.run([options.compiler, "-std=c++20", f'-DQOR_LIBRARY_FOLDER="{folder}"', "-I",
                                options.include, source, "-o", client], check=True, timeout=300)
                self.check(LOST, NOT_ANYWHERE, client=client)
                self.install(self.real, self.bin / folder)
                self.check(BOUND, "", client=client)

    def test_not_above_the_root(self):
        """More folders up than there are: nothing is found there, and nothing before the path is read."""
        client = self.bin / "other"
        source = Path(__file__).resolve().parent / "client.cpp"
        subprocess.run([options.compiler, "-std=c++20", f'-DQOR_LIBRARY_FOLDER="{"../" * 60}lib"', "-I", options.include,
                        source, "-o", client], check=True, timeout=300)
        self.check(LOST, NOT_ANYWHERE, client=client)

    def install(self, image, folder=None):
        folder = folder or self.root / "lib/qor"
        folder.mkdir(parents=True)
        (folder / "libqor.so").write_bytes(image)

    # ---- no loadable library

    def test_cut_off(self):
        """The file is truncated at various places. Without the check, a loader would map the remaining part and crash
        on the rest."""
        size = len(self.real)
        places = {1, 4, 16, 63, 64, 65, 120, 500, 1000, 4095, 4096, 4097, size // 4, size // 2,
                  size * 3 // 4, size - 1}
        for offset, in_file in segments(self.real):
            places |= {offset, offset + 1, offset + in_file // 2, offset + in_file - 1, offset + in_file}
        for place in sorted(places - {0}):
            with self.subTest(place=place, of=size):
                self.check_damaged(self.real[:place])

    def test_another_machine(self):
        machine = bytearray(self.real)
        machine[18:20] = b"\xff\x7f"
        self.check_damaged(machine)

    def test_another_word_size(self):
        machine = bytearray(self.real)
        machine[4] = 1
        self.check_damaged(machine)

    def test_a_link_to_nothing(self):
        self.library.symlink_to(self.root / "nothing")
        self.check(LOST, NOT_ANYWHERE)

    def test_a_link_to_itself(self):
        self.library.symlink_to(self.library)
        self.check(LOST, NOT_ANYWHERE)

    def test_unreadable(self):
        self.library.write_bytes(self.real)
        self.library.chmod(0)
        # Every file is readable to root.
        somebody = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        self.bin.chmod(0o755)
        self.client.chmod(0o755)
        self.recorder.chmod(0o755)
        self.check(LOST, NOT_ANYWHERE, **somebody)

    def test_unresolved_symbols(self):
        self.copy("unresolved.so", self.library)
        self.check(LOST, NOT_ANYWHERE)

    def test_a_fifo(self):
        os.mkfifo(self.library)
        self.check(LOST, NOT_ANYWHERE)

    def test_an_export_that_cannot_be_called(self):
        for name in ("function_without_code.so", "number_in_code.so"):
            with self.subTest(name):
                self.copy(name, self.library)
                self.check(LOST, NO_EXPORT)

    def test_single_bits_of_the_headers(self):
        """Flips each bit of the file header and the program headers. If the bit matters, the library is refused, and
        nothing outside the file is mapped."""
        self.library.write_bytes(self.real)
        at, = struct.unpack_from("<Q", self.real, 32)
        size, count = struct.unpack_from("<HH", self.real, 54)
        self.assertEqual(at, 64)
        bits = range((at + size * count) * 8)
        refused = 0
        with open(self.library, "r+b", buffering=0) as library:
            # Starting a program with a sanitizer takes many times as long.
            for bit in bits[::17] if options.instrumented else bits:
                byte = self.real[bit // 8]
                os.pwrite(library.fileno(), bytes([byte ^ 1 << bit % 8]), bit // 8)
                result = self.run_client()
                os.pwrite(library.fileno(), bytes([byte]), bit // 8)
                self.assertIn(result, (LOST, BOUND), f"byte {bit // 8}, bit {bit % 8}")
                refused += result == LOST
        self.assertGreater(refused, 0)
        self.check(BOUND, "")

    # ---- without /proc

    def without_proc(self, *words):
        """Returns the words that run a program with an empty /proc."""
        if options.instrumented:
            self.skipTest("a sanitizer needs /proc itself")
        for space in (["unshare", "-m"], ["unshare", "-r", "-m"]):
            hide = [*space, "sh", "-c", 'mount -t tmpfs none /proc && exec "$@"', "sh"]
            if subprocess.run([*hide, "true"], capture_output=True).returncode == 0:
                return [*hide, *words]
        self.skipTest("this host lets nobody have name spaces")

    def run_without_proc(self, *words, before=(), **more):
        run = subprocess.run([*self.without_proc(*before), *words], stdin=subprocess.DEVNULL, capture_output=True,
                             timeout=120, **more)
        return run.returncode, run.stdout, run.stderr

    def test_without_proc(self):
        self.library.write_bytes(self.real)
        self.assertEqual(self.run_without_proc(self.client), BOUND)
        self.assertEqual(self.run_without_proc("./client", cwd=self.bin), BOUND)

    def test_without_proc_installed_behind_a_link(self):
        self.install(self.real)
        link = self.root / "link"
        link.symlink_to("bin/client")
        self.assertEqual(self.run_without_proc("./link", cwd=self.root), BOUND)

    def test_without_proc_and_without_the_library(self):
        self.assertEqual(self.run_without_proc(self.client), LOST)

    def test_without_proc_where_the_path_cannot_be_trusted(self):
        """A set-user-id program ignores paths that its user chose."""
        if os.geteuid() != 0:
            self.skipTest("only root makes a program that runs as root")
        if os.statvfs(self.bin).f_flag & os.ST_NOSUID:
            self.skipTest("no program in the folder for temporary files runs as another user")
        self.library.write_bytes(self.real)
        self.bin.chmod(0o755)
        self.library.chmod(0o755)
        somebody = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        for mode, expected in ((0o755, BOUND), (0o4755, LOST)):
            self.client.chmod(mode)
            self.assertEqual(self.run_without_proc(self.client, before=somebody), expected)

    def test_the_tool_without_proc(self):
        beside = self.run_client("--quiet", "help", client=options.tool)
        self.assertEqual(self.run_without_proc(options.tool, "--quiet", "help"), beside)
        code, out, _ = self.run_without_proc(options.tool, "--quiet", "path-list")
        self.assertEqual(code, 0)
        self.assertRegex(out.decode(), rf"qor-executable += {re.escape(str(options.tool.resolve().parent))}\n")

    # ---- by its bare name

    def by_name(self):
        folder = self.root / "along"
        folder.mkdir(exist_ok=True)
        (folder / "libqor.so").write_bytes(self.real)
        return {"environment": {"LD_LIBRARY_PATH": str(folder)} if options.instrumented else None}

    def test_by_name_along_the_run_path(self):
        self.check(BOUND, BY_NAME, **self.by_name())

    def test_by_name_where_the_one_beside_is_damaged(self):
        more = self.by_name()
        self.library.write_bytes(b"")
        self.check(BOUND, BY_NAME, **more)

    def test_by_name_without_the_export(self):
        more = self.by_name()
        self.copy("without_export.so", self.root / "along" / "libqor.so")
        self.check(LOST, BY_NAME + NO_EXPORT, **more)

    def test_by_name_cut_off(self):
        more = self.by_name()
        (self.root / "along" / "libqor.so").write_bytes(self.real[:len(self.real) // 4])
        self.check(LOST, NOT_ANYWHERE, **more)

    def test_not_in_the_current_folder(self):
        (self.root / "libqor.so").write_bytes(self.real)
        self.check(LOST, NOT_ANYWHERE, cwd=self.root)

    # ---- the tool itself

    def test_the_tool_without_its_library(self):
        tool = Path(shutil.copy(options.tool, self.bin))
        self.assertEqual(self.run_client("help", client=tool), (100, b"", b""))
        self.assertEqual(self.logged(), NOT_ANYWHERE)


class Linking(unittest.TestCase):
    """A client needs only the headers and a compiler."""

    def test_compiles_with_the_headers_alone(self):
        with tempfile.TemporaryDirectory() as folder:
            source = Path(__file__).resolve().parent / "client.cpp"
            out = Path(folder) / "client"
            run = subprocess.run([options.compiler, "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                                  "-I", options.include, source, "-o", out], capture_output=True, text=True,
                                 timeout=120)
            self.assertEqual((run.returncode, run.stderr), (0, ""))
            self.imports_nothing_of_ours(out)

    def test_the_tool_imports_nothing_of_the_library(self):
        self.imports_nothing_of_ours(options.tool)

    def test_the_tool_has_no_run_path(self):
        """The loader would use it for the C library too, at every start."""
        self.assertNotIn("PATH)", subprocess.check_output(["readelf", "-dW", options.tool], text=True))

    def imports_nothing_of_ours(self, program):
        needed = subprocess.check_output(["readelf", "-dW", program], text=True)
        libraries = re.findall(r"\(NEEDED\).*\[(.*)\]", needed)
        self.assertIn("libc.so.6", libraries)
        self.assertEqual([name for name in libraries if "qor" in name], [])
        undefined = subprocess.check_output(["nm", "-D", "--undefined-only", program], text=True)
        self.assertIn(" dlopen", undefined)
        self.assertEqual(re.findall(r".*(?:qor|QOR|zet|glue_).*", undefined), [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--tool", type=Path, required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("--instrumented", action="store_true")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
