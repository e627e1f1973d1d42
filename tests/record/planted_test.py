#!/usr/bin/env python3
"""The leaks of tests/record/programs/planted.*: the stacks that qor-record writes beside those of valgrind memcheck.

    planted_test.py --bin FOLDER --record PROGRAM --tool QORTOOL

For each leak, block by block, the functions and lines within the program and its library are those that memcheck finds.
"""

import argparse
import pathlib
import sys
import unittest

import recorded_runs
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


class Planted(recorded_runs.RecordedRuns):
    @classmethod
    def setUpClass(cls):
        cls.addr2line = symbols.Addr2line()
        cls.addClassCleanup(cls.addr2line.close)

    def check(self, name, program):
        self.environment["PLANTED"] = name
        program = self.options.bin / program
        self.assertEqual(self.record(program)[0], "")
        recording = self.recording()
        self.assertEqual(recording.bad, [])
        ours = of_program(symbols.recorded_leaks(recording, self.addr2line), program.parent)
        memchecks = of_program(symbols.memcheck_leaks([program], self.folder, self.environment), program.parent)
        self.assertIn(line_of(name), [(place.file, place.line) for _, places in ours for place in places])
        # On an alternate stack memcheck goes no further than the frame of the signal.
        if name == "signal_handler":
            for _, places in ours:
                self.assertEqual([place.function for place in places[2:]], ["signal_handler", "main"])
            ours = [(size, places[:2]) for size, places in ours]
        self.assertEqual(sorted(map(shown, ours)), sorted(map(shown, memchecks)))


def add_tests():
    for program, names in (("planted_leaks_c", C_LEAKS), ("planted_leaks", CXX_LEAKS)):
        for name in names:
            setattr(Planted, f"test_{name}", lambda self, name=name, program=program: self.check(name, program))


def main():
    rest = recorded_runs.parse(argparse.ArgumentParser())
    add_tests()
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
