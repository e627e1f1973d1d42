#!/usr/bin/env python3
"""Symbols of files of Windows: beside those of addr2line and llvm-symbolizer, and which files are read.

    windows_test.py --places PROGRAM --compiler PROGRAM [--runner PROGRAM]
"""

import argparse
import random
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import places

SOURCE = Path(__file__).resolve().parent / "sample.cpp"
TOOLS = "x86_64-w64-mingw32-"


def windows(path):
    """As Wine shows it."""
    return "Z:" + str(path).replace("/", "\\")


class Windows(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name).resolve()
        cls.whole = cls.folder / "sample.dll"
        subprocess.run([options.compiler, "-std=c++17", "-O2", "-g", "-shared", "-static", "-Wl,--build-id", SOURCE,
                        "-Wl,--export-all-symbols", "-o", cls.whole], check=True)
        cls.stripped = cls.folder / "stripped.dll"
        subprocess.run([TOOLS + "strip", "-o", cls.stripped, cls.whole], check=True)
        heads = subprocess.run([TOOLS + "objdump", "-ph", cls.whole], stdout=subprocess.PIPE, text=True, check=True).stdout
        cls.base = int(re.search(r"^ImageBase\s+(\w+)$", heads, re.MULTILINE)[1], 16)
        size, begin = re.search(r" \.text +(\w+) +(\w+) ", heads).groups()
        cls.begin, cls.size = int(begin, 16) - cls.base, int(size, 16)
        data = cls.whole.read_bytes()
        place = data.index(b"RSDS")
        cls.id = data[place + 4:place + 20].hex()

    def ask(self, *modules, words=()):
        runner = [options.runner] if options.runner else []
        return places.ask([*runner, options.places], modules, *words).modules

    def test_the_places_of_other_programs(self):
        chosen = random.Random(7)
        addresses = sorted({chosen.randrange(self.begin, self.begin + self.size) for _ in range(3000)})
        answer, = self.ask(places.Module(windows(self.whole), addresses, build_id=self.id))
        self.assertEqual((answer.status, answer.unverified, answer.file), ("ok", False, windows(self.whole)))
        llvm = places.by_llvm(self.whole, addresses)
        binutils = places.by_addr2line(self.whole, [self.base + address for address in addresses], TOOLS + "addr2line")
        known, differ = 0, []
        for address in addresses:
            ours = [places.comparable(place.function, place.file, place.line) for place in answer.places[address]]
            # The functions of the run-time have no lines. Others name them by the table of symbols, which is of no use
            # without debug information; here they are known if they are exported.
            if not ours or not ours[0].line:
                continue
            known += 1
            if ours not in (llvm[address], binutils[self.base + address]):
                differ.append((hex(address), ours, llvm[address], binutils[self.base + address]))
        print(f"{len(addresses)} addresses, {known} with a line, {len(differ)} differ", file=sys.stderr)
        lines = sum(found[0].line != 0 for found in llvm.values())
        self.assertGreater(known, 100)
        self.assertGreaterEqual(known, lines * 98 // 100)
        self.assertLessEqual(len(differ), known // 50, differ[:5])

    def test_a_return_address(self):
        code = subprocess.run([TOOLS + "objdump", "-dC", "--no-show-raw-insn", self.whole], stdout=subprocess.PIPE, text=True,
                              check=True).stdout
        body = code.split("<sample::shape::area", 1)[1].split("\n\n", 1)[0]
        call = next(line for line in body.splitlines() if "call" in line and "hidden_function" in line)
        address = int(call.split(":")[0], 16) - self.base + 5
        answer, = self.ask(places.Module(windows(self.whole), [address]), words=["return=1"])
        self.assertEqual([places.short_name(place.function) for place in answer.places[address]],
                         ["innermost", "middle", "area"])
        self.assertTrue(answer.unverified)

    def test_exported_functions_without_debug_information(self):
        table = subprocess.run([TOOLS + "objdump", "-p", self.stripped], stdout=subprocess.PIPE, text=True, check=True).stdout
        numbers = {int(number): int(address, 16) for number, address in
                   re.findall(r"^\s+\[ *(\d+)\] \+base\[ *\d+\] +(\w+) Export RVA$", table, re.MULTILINE)}
        names = {}
        for number, name in re.findall(r"^\s+\[ *(\d+)\] (\w\S*)$", table, re.MULTILINE):
            names.setdefault(numbers[int(number)], set()).add(name)
        code = {address: found for address, found in names.items() if self.begin <= address < self.begin + self.size}
        self.assertGreater(len(code), 10)
        self.assertIn({"sample_entry"}, code.values())
        answer, = self.ask(places.Module(windows(self.stripped), sorted(code), build_id=self.id))
        self.assertEqual(answer.status, "no_debug_information")
        plain = subprocess.run(["c++filt"], input="".join(min(code[address]) + "\n" for address in sorted(code)), text=True,
                               stdout=subprocess.PIPE, check=True).stdout.splitlines()
        self.assertEqual([answer.places[address] for address in sorted(code)],
                         [[places.Place(name, "", 0)] for name in plain])

    def test_which_files_are_read(self):
        text = self.folder / "text.dll"
        text.write_text("no library\n")
        (self.folder / "empty.dll").touch()
        names = {windows(self.whole): "ok", str(windows(self.whole)).replace("\\", "/"): "ok",
                 windows(self.folder): "refused", windows(self.folder / "nothing.dll"): "no_file",
                 windows(text): "damaged", windows(self.folder / "empty.dll"): "damaged",
                 "sample.dll": "refused", "\\\\localhost\\c$\\sample.dll": "refused", "//localhost/c$/sample.dll": "refused",
                 "\\\\?\\C:\\sample.dll": "refused", "\\\\.\\C:": "refused", "\\??\\C:\\sample.dll": "refused",
                 "C:sample.dll": "refused", "C:\\nul": "refused", "C:\\com1.dll": "refused", "C:\\sample.dll:stream": "refused",
                 "/usr/lib/libc.so.6": "refused", "": "no_file"}
        answers = self.ask(*(places.Module(name, [self.begin]) for name in names))
        self.assertEqual({name: answer.status for name, answer in zip(names, answers)}, names)

    def test_changed_files(self):
        for build_id in ("00" * 16, self.id + "00", "01"):
            answer, = self.ask(places.Module(windows(self.whole), [self.begin], build_id=build_id))
            self.assertEqual((answer.status, answer.places), ("changed", {self.begin: []}))
        written = self.whole.stat().st_mtime_ns
        for time, status in ((written - 10**9, "changed"), (written + 10**9, "ok")):
            answer, = self.ask(places.Module(windows(self.whole), [self.begin], recorded=str(time)))
            self.assertEqual(answer.status, status)

    def test_limits(self):
        modules = [places.Module(windows(self.whole), [self.begin])] * 5
        for words, expected in ((["file-time=0"], ["too_slow"] * 5), (["ends-after=2"], ["ok"] * 2 + ["interrupted"] * 3),
                                (["memory=1000"], ["no_debug_information"] * 5)):
            with self.subTest(words):
                answers = self.ask(*modules, words=words)
                self.assertEqual([answer.status for answer in answers], expected)

    def test_damaged_files(self):
        whole = self.whole.read_bytes()
        place = whole.index(b"GNU C++17")
        chosen = random.Random(23)
        modules = []
        for number in range(60):
            data = bytearray(whole)
            if number % 4 == 0:
                del data[chosen.randrange(len(data)):]
            for _ in range(chosen.choice((1, 4, 30, 300)) if number % 4 else 0):
                at = chosen.randrange(0x400) if number % 4 == 1 else place + chosen.randrange(-30000, 30000)
                data[min(len(data) - 1, max(0, at))] = chosen.randrange(256)
            mutant = self.folder / f"mutant-{number}.dll"
            mutant.write_bytes(data)
            modules += [places.Module(windows(mutant), range(self.begin, self.begin + 20000, 97)),
                        places.Module(windows(self.whole), [self.begin])]
        answers = self.ask(*modules, words=["memory=500000000"])
        self.assertEqual({answer.status for answer in answers[1::2]}, {"ok"})
        self.assertGreater(sum(bool(any(answer.places.values())) for answer in answers[::2]), 15)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--runner")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
