#!/usr/bin/env python3
"""The leaks of tests/record/programs/planted.*: the stacks that qor-record writes beside those of valgrind memcheck.

    planted_test.py --bin FOLDER --record PROGRAM

FOLDER holds the built programs. For each leak: the frames within the program and its library, functions and lines, are
those that memcheck finds, block by block, and the innermost one of a block is the line that the source names.
"""

import argparse
import collections
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import stacks_file
import symbols

SOURCES = pathlib.Path(__file__).resolve().parent / "programs"
C_LEAKS = ["function_pointer", "realloc_chain", "strdup", "asprintf"]
CXX_LEAKS = ["new_array", "aligned_new", "vector", "map_in_template", "string", "inlined", "lambda", "function",
             "shared_pointer", "coroutine", "thread", "library", "unloaded_library", "exception", "signal_handler",
             "global_constructor"]
assert len(C_LEAKS + CXX_LEAKS) == 20


def line_of(name):
    """(file, line) of the leak's comment."""
    name = "library" if name == "unloaded_library" else name
    found = [(path.name, number) for path in SOURCES.glob("planted*")
             for number, line in enumerate(path.read_text().splitlines(), 1) if line.endswith((f"// {name}", f"/* {name} */"))]
    assert len(found) == 1, (name, found)
    return found[0]


def of_program(leaks, folder):
    """[(size, places within the folder)] without what the loader keeps of a library."""
    return [(leak.size, tuple(leak.within(folder))) for leak in leaks
            if leak.within(folder) and not any("/ld-linux" in path for path in leak.objects)]


def shown(leak):
    size, places = leak
    return "\n".join([f"{size} bytes", *(f"    {place}" for place in places)])


class Planted(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.addr2line = symbols.Addr2line()
        cls.addClassCleanup(cls.addr2line.close)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def both(self, program, name):
        """(what qor-record has, what memcheck has): each block's size and places."""
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "PLANTED": name}
        done = subprocess.run([options.record, "-o", "log", "--", program], cwd=self.folder, env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        recording = stacks_file.Recording(self.folder / "log.mtrace")
        self.assertEqual(recording.stacks_left, 0)
        self.assertEqual(recording.replay()[1], [])
        return (of_program(symbols.recorded_leaks(recording, self.addr2line), program.parent),
                of_program(symbols.memcheck_leaks([program], self.folder, environment), program.parent))

    def check(self, program, name):
        ours, memchecks = self.both(options.bin / program, name)
        self.assertIn(line_of(name), [(places[0].file, places[0].line) for _, places in memchecks]
                      + [(place.file, place.line) for _, places in memchecks for place in places])
        # On an alternate stack memcheck goes no further than the frame of the signal.
        if name == "signal_handler":
            for size, places in ours:
                self.assertEqual([place.function for place in places[2:]], ["signal_handler", "main"])
            ours = [(size, places[:2]) for size, places in ours]
        self.assertEqual(sorted(map(shown, ours)), sorted(map(shown, memchecks)))


def add_tests():
    for program, names in (("planted_leaks_c", C_LEAKS), ("planted_leaks", CXX_LEAKS)):
        for name in names:
            setattr(Planted, f"test_{name}", lambda self, program=program, name=name: self.check(program, name))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--record", type=lambda path: pathlib.Path(path).resolve(), required=True)
    options, rest = parser.parse_known_args()
    add_tests()
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
