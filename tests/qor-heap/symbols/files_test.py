#!/usr/bin/env python3
"""Which files class symbols reads, and what becomes of those that are missing, changed, no files, or damaged.

    files_test.py --places PROGRAM --compiler PROGRAM [--mutants N]
"""

import argparse
import collections
import os
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import places

SOURCE = Path(__file__).resolve().parent / "sample.cpp"
ID = "0123456789abcdef0123456789abcdef01234567"
HIDDEN = "sample::(anonymous namespace)::hidden_function(int)"
OTHER_ID = "89abcdef0123456789abcdef0123456701234567"


def run(*command):
    subprocess.run([str(word) for word in command], check=True, stdin=subprocess.DEVNULL)


class Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.kept = Path(folder.name)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        self.debug = self.folder / "debug"  # in place of /usr/lib/debug

    def compile(self, *words, name="sample.so", build_id=ID):
        """Compiles each form once."""
        kept = self.kept / str(abs(hash((words, build_id))))
        if not kept.exists():
            run(options.compiler, "-std=c++17", "-O2", "-g", "-fPIC", "-shared", "-fvisibility=hidden", *words,
                f"-Wl,--build-id={'0x' + build_id if build_id else 'none'}", SOURCE, "-o", kept)
        return Path(shutil.copyfile(kept, self.folder / name))

    def ask(self, *modules, words=()):
        return places.ask(options.places, modules, f"debug={self.debug}", "fetch=0", *words).modules

    def one(self, path, addresses, words=(), **more):
        answer, = self.ask(places.Module(path, addresses, **more), words=words)
        return answer

    def stripped(self, path):
        result = path.with_name("stripped-" + path.name)
        run("strip", "-o", result, path)
        return result

    def separate(self, path):
        result = path.with_name(path.name + ".debug")
        run("objcopy", "--only-keep-debug", path, result)
        return result

    def function(self, path, name):
        """The address of a function."""
        symbols = subprocess.run(["nm", "-C", path], stdout=subprocess.PIPE, text=True, check=True).stdout
        found = [line.split(" ")[0] for line in symbols.splitlines() if line[19:] == name]
        self.assertEqual(len(found), 1, symbols)
        return int(found[0], 16)

    def call_in(self, path, function):
        """An address in an inlined function: that of the call of hidden_function()."""
        code = subprocess.run(["objdump", "-dC", "--no-show-raw-insn", path], stdout=subprocess.PIPE, text=True, check=True)
        body = code.stdout.split(f"<{function}>:\n", 1)[1].split("\n\n", 1)[0]
        calls = [line.split(":")[0] for line in body.splitlines() if "call" in line and "hidden_function" in line]
        return int(calls[0], 16)

    # ---- what is found

    def test_inlined_functions_in_each_form_of_debug_information(self):
        def line(text):
            found, = [number for number, line in enumerate(SOURCE.read_text().splitlines(), 1) if text in line]
            return found

        expected = [("innermost", line("hidden_function(value) + 1")), ("middle", line("innermost(value + 2) - 4")),
                    ("area", line("known[unit] * middle("))]
        for words in (["-gdwarf-4"], ["-gdwarf-5"], ["-gdwarf-5", "-gz"], ["-gdwarf-4", "-gz=zlib-gnu"],
                      ["-gdwarf-4", "-ffunction-sections", "-Wl,--gc-sections"], ["-flto"]):
            with self.subTest(words):
                path = self.compile(*words)
                name = "sample::shape::area(std::__cxx11::basic_string<char, std::char_traits<char>, " \
                       "std::allocator<char> > const&) const"
                address = self.call_in(path, name)
                answer = self.one(path, [address], build_id=ID)
                self.assertEqual((answer.status, answer.unverified, answer.file), ("ok", False, str(path)))
                found = answer.places[address]
                self.assertEqual([(places.short_name(place.function), place.line) for place in found], expected)
                self.assertEqual({place.file for place in found}, {str(SOURCE)})
                # Of a return address, the place is that of the call before it.
                call = self.one(path, [address + 5], build_id=ID, words=["return=1"])
                self.assertEqual(call.places[address + 5], found)

    def test_all_addresses_as_other_programs_find_them(self):
        for words in (["-O0"], ["-O3"], ["-gdwarf-4", "-Os"]):
            with self.subTest(words):
                path = self.compile(*words)
                begin, size = places.text_section(path)
                addresses = range(begin, begin + size)
                answer = self.one(path, addresses, build_id=ID)
                binutils, llvm = places.by_addr2line(path, addresses), places.by_llvm(path, addresses)
                ours = {address: [places.comparable(place.function, place.file, place.line)
                                  for place in answer.places[address]] or places.UNKNOWN for address in addresses}
                differ = [address for address in addresses if ours[address] not in (binutils[address], llvm[address])]
                self.assertLessEqual(len(differ), size // 100,
                                     [(hex(a), ours[a], binutils[a], llvm[a]) for a in differ[:5]])

    def test_functions_without_debug_information(self):
        path = self.compile()
        hidden, entry = self.function(path, HIDDEN), self.function(path, "sample_entry")
        debug_only = self.folder / "table-of-symbols.so"
        run("strip", "--strip-debug", "-o", debug_only, path)
        answer = self.one(debug_only, [hidden, entry + 1], build_id=ID)
        self.assertEqual(answer.status, "no_debug_information")
        self.assertEqual([place.function for place in answer.places[hidden]], [HIDDEN])
        self.assertEqual(answer.places[entry + 1], [places.Place("sample_entry", "", 0)])
        # Then only what the library offers to others.
        answer = self.one(self.stripped(path), [hidden, entry + 1], build_id=ID)
        self.assertEqual(answer.places[hidden], [])
        self.assertEqual(answer.places[entry + 1], [places.Place("sample_entry", "", 0)])

    def test_a_label_without_a_size(self):
        path = self.compile()
        label = self.function(path, "sample_label")
        self.assertEqual(self.one(path, [label + 1], build_id=ID).places, {label + 1: [places.Place("sample_label", "", 0)]})
        # The table of what is offered to others may lack the functions behind it.
        self.assertEqual(self.one(self.stripped(path), [label + 1], build_id=ID).places, {label + 1: []})

    def test_an_address_outside_of_the_code(self):
        path = self.compile()
        outside = [0, 1, 8, 64, 2**40, 2**63, 2**64 - 1]
        for words in ([], ["return=1"]):
            self.assertEqual(set(map(tuple, self.one(path, outside, words=words).places.values())), {()})

    def test_debug_information_in_files_of_its_own(self):
        path = self.compile()
        address = self.function(path, "sample_entry")
        expected = self.one(path, [address], build_id=ID).places
        self.assertEqual(expected[address][0].file, str(SOURCE))
        debug = self.separate(path)
        linked = self.folder / "linked.so"
        run("objcopy", "--strip-all", f"--add-gnu-debuglink={debug}", path, linked)
        within = self.debug / str(self.folder).lstrip("/")
        for place in (self.debug / ".build-id" / ID[:2] / (ID[2:] + ".debug"), debug, self.folder / ".debug" / debug.name,
                      within / debug.name):
            with self.subTest(place):
                place.parent.mkdir(parents=True, exist_ok=True)
                aside = debug.with_name("aside")
                shutil.move(debug, aside)
                shutil.copy(aside, place)
                answer = self.one(linked, [address], build_id=ID)
                self.assertEqual((answer.status, answer.file), ("ok", str(place)))
                self.assertEqual(answer.places, expected)
                # A file of another build is not taken for it, whatever it is named.
                place.unlink()
                shutil.copy(self.separate(self.compile(name="other.so", build_id=OTHER_ID)), place)
                self.assertEqual(self.one(linked, [address], build_id=ID).status, "no_debug_information")
                place.unlink()
                shutil.move(aside, debug)

    def test_the_checksum_where_there_is_no_build_id(self):
        path = self.compile(build_id="")
        address = self.function(path, "sample_entry")
        debug, linked = self.separate(path), self.folder / "linked.so"
        run("objcopy", "--strip-all", f"--add-gnu-debuglink={debug}", path, linked)
        self.assertEqual(self.one(linked, [address]).status, "ok")
        with open(debug, "ab") as file:
            file.write(b"changed")
        self.assertEqual(self.one(linked, [address]).status, "no_debug_information")

    def test_a_part_that_several_files_share(self):
        """As dwz makes it, which Debian's packages of debug information are made with."""
        paths = [self.compile(name="one.so"), self.compile("-O1", name="two.so", build_id=OTHER_ID)]
        address = self.function(paths[0], "sample_entry")
        expected = self.one(paths[0], [address], build_id=ID).places
        run("dwz", "-m", self.folder / "shared.debug", "-M", self.folder / "shared.debug", *paths)
        self.assertIn(b".gnu_debugaltlink", paths[0].read_bytes())
        answer = self.one(paths[0], [address], build_id=ID)
        self.assertEqual((answer.status, answer.places), ("ok", expected))
        # Without it, names are missing, and nothing waits for a pipe in its place.
        (self.folder / "shared.debug").unlink()
        self.assertEqual(self.one(paths[0], [address], build_id=ID).status, "ok")
        os.mkfifo(self.folder / "shared.debug")
        self.assertEqual(self.one(paths[0], [address], build_id=ID).status, "no_debug_information")

    # ---- what is not used

    def test_changed_files(self):
        path = self.compile()
        address = self.function(path, "sample_entry")
        debug = self.separate(path)
        self.compile(build_id=OTHER_ID)
        answer = self.one(path, [address], build_id=ID)
        self.assertEqual((answer.status, answer.places), ("changed", {address: []}))
        self.compile(build_id="")
        self.assertEqual(self.one(path, [address], build_id=ID).status, "changed")
        # What belongs to the recorded build serves nonetheless.
        place = self.debug / ".build-id" / ID[:2] / (ID[2:] + ".debug")
        place.parent.mkdir(parents=True)
        shutil.copy(debug, place)
        for found in (path, self.folder / "gone.so"):
            answer = self.one(found, [address], build_id=ID)
            self.assertEqual((answer.status, answer.file, answer.reason), ("ok", str(place), ""))
            self.assertEqual(answer.places[address][0].file, str(SOURCE))

    def test_without_a_build_id_a_file_that_is_newer_than_the_recording_is_another_one(self):
        path = self.compile(build_id="")
        address = self.function(path, "sample_entry")
        written = path.stat().st_mtime_ns
        self.assertEqual([self.one(path, [address], recorded=str(time)).status for time in (written - 1, written, written + 1)],
                         ["changed", "ok", "ok"])
        answer = self.one(path, [address])
        self.assertEqual((answer.status, answer.unverified), ("ok", True))

    def test_what_is_no_regular_file(self):
        os.mkfifo(self.folder / "pipe")
        (self.folder / "link").symlink_to(self.folder / "pipe")
        (self.folder / "loop").symlink_to(self.folder / "loop")
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(str(self.folder / "socket"))
            names = {self.folder: "refused", self.folder / "pipe": "refused", self.folder / "link": "refused",
                     self.folder / "socket": "refused", "/dev/zero": "refused", "/dev/tty": "refused",
                     "sample.so": "refused", "./sample.so": "refused", "../x": "refused", "linux-vdso.so.1": "refused",
                     "[vdso]": "refused", "": "no_file", "/": "refused", self.folder / "nothing": "no_file",
                     self.folder / "loop": "no_file", "/etc/passwd/x": "no_file", "/" + "x" * 300: "no_file",
                     "/" + "y/" * 4000: "no_file", "/proc/kmsg": "damaged", "/proc/self/mem": "damaged",
                     "/proc/self/environ": "damaged", SOURCE: "damaged", "/sys/kernel/notes": "damaged"}
            names = {name: status for name, status in names.items() if not str(name).startswith("/sys") or os.path.exists(name)}
            self.compile()
            answers = self.ask(*(places.Module(name, [0x1000]) for name in names))
            self.assertEqual({name: answer.status for name, answer in zip(names, answers)}, names)

    def test_names_in_the_files_lead_to_no_pipe(self):
        path = self.compile()
        address = self.function(path, "sample_entry")
        debug = self.separate(path)
        linked = self.folder / "linked.so"
        run("objcopy", "--strip-all", f"--add-gnu-debuglink={debug}", path, linked)
        debug.unlink()
        os.mkfifo(debug)
        place = self.debug / ".build-id" / ID[:2] / (ID[2:] + ".debug")
        place.parent.mkdir(parents=True)
        os.mkfifo(place)
        self.assertEqual(self.one(linked, [address], build_id=ID).status, "no_debug_information")

    def test_a_link_does_not_lead_out_of_its_folder(self):
        path = self.compile(name="folder.so")
        address = self.function(path, "sample_entry")
        within = self.folder / "within"
        within.mkdir()
        debug, linked = self.separate(path), within / "linked.so"
        link = f"../{debug.name}".encode()
        section = self.folder / "section"
        section.write_bytes(link + b"\0" * (8 - len(link) % 4) + b"\0\0\0\0")
        run("objcopy", "--strip-all", f"--add-section=.gnu_debuglink={section}", path, linked)
        self.assertEqual(self.one(linked, [address], build_id=ID).status, "no_debug_information")

    def test_the_files_of_split_debug_information_are_not_opened(self):
        path = self.compile("-gsplit-dwarf")
        split, = self.kept.glob("*.dwo")
        split.unlink()
        os.mkfifo(split)
        address = self.function(path, "sample_entry")
        found = self.one(path, [address], build_id=ID)
        # The lines are in the file itself, and the names of functions in its table of symbols.
        self.assertEqual(found.status, "ok")
        self.assertEqual([(place.function, place.file) for place in found.places[address]], [("sample_entry", str(SOURCE))])

    # ---- damaged files

    def test_damaged_files(self):
        """Any bytes of the debug information or of the heads may be others. Whatever becomes of a file, the others are
        read. The reasons of those that were given up say whether libdw ended, or a sanitizer in our own code ("exit
        code")."""
        path = self.compile("-gdwarf-4")
        whole = path.read_bytes()
        good = self.folder / "good.so"
        shutil.copy(path, good)
        begin, size = places.text_section(path)
        addresses = list(range(begin, begin + size, 7))
        expected = self.one(path, addresses, build_id=ID).places
        debug = whole.index(b"GNU C++17")
        chosen = random.Random(19)
        modules, answers = [], []
        for number in range(options.mutants):
            data = bytearray(whole)
            kind = number % 4
            if kind == 0:
                del data[chosen.randrange(len(data)):]
            for _ in range(chosen.choice((1, 4, 30, 300)) if kind else 0):
                place = chosen.randrange(64) if kind == 1 else chosen.randrange(len(data) // 3, len(data)) if kind == 2 \
                    else min(len(data) - 1, max(0, debug + chosen.randrange(-20000, 20000)))
                data[place] = chosen.choice((0, 1, 0x7f, 0x80, 0xff, chosen.randrange(256)))
            mutant = self.folder / f"mutant-{number % 50}"
            mutant.write_bytes(data)
            modules += [places.Module(mutant, addresses), places.Module(good, addresses, build_id=ID)]
            if len(modules) == 100 or number == options.mutants - 1:
                answers += self.ask(*modules, words=["file-time=60", "memory=1000000000"])
                modules.clear()
        counts = collections.Counter((answer.status, answer.reason) for answer in answers[::2])
        print(counts, file=sys.stderr)
        self.assertEqual([reason for _, reason in counts if reason.startswith("exit code")], [])
        self.assertGreater(sum(bool(any(answer.places.values())) for answer in answers[::2]), options.mutants // 4)
        for answer in answers[1::2]:
            self.assertEqual((answer.status, answer.places), ("ok", expected))

    def test_the_limit_of_memory(self):
        path = self.compile()
        answer = self.one(path, [self.function(path, "sample_entry")], words=["memory=1"])
        self.assertIn(answer.status, ("damaged", "no_debug_information"))
        self.assertNotEqual(answer.reason, "")

    def test_the_end_of_a_search(self):
        path = self.compile()
        address = self.function(path, "sample_entry")
        modules = [places.Module(path, [address], build_id=ID)] * 50
        answers = self.ask(*modules, words=["ends-after=3", "processes=1"])
        counts = collections.Counter(answer.status for answer in answers)
        self.assertEqual(set(counts), {"ok", "interrupted"})
        self.assertGreaterEqual(counts["ok"], 3)
        for number in (1, 3, 16):
            answers = self.ask(*modules, words=[f"processes={number}"])
            self.assertEqual(len({(answer.status, str(answer.places)) for answer in answers}), 1)

    def test_a_missing_libdw(self):
        path = self.compile()
        (self.folder / "libdw.so.1").write_bytes(b"")
        found = places.ask(options.places, [places.Module(path, [1])], environment={"LD_LIBRARY_PATH": str(self.folder)})
        self.assertEqual(found.modules[0].status, "no_reader")
        self.assertRegex(found.modules[0].reason, r"libdw\.so\.1.* \(Debian package: libdw1\)$")


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    parser.add_argument("--compiler", default="g++")
    parser.add_argument("--mutants", type=int, default=1000 if os.environ.get("QOR_TEST_WHOLE") else 150)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
