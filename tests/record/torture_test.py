#!/usr/bin/env python3
"""Everything at once: tests/record/programs/torture.cpp, recorded, with an allocator that its signals may interrupt.

    torture_test.py --bin FOLDER --record PROGRAM --tool QORTOOL [--seconds N]

Ten seconds, or ten minutes in ./test load. No block may be missing or misplaced in a log, and no frame be one that cannot be.
"""

import argparse
import collections
import struct
import sys
import unittest

import recorded_runs
import return_addresses
import symbols

BRIEF_SECONDS, LONG_SECONDS = 10, 600
# How long each kind of work rests between two rounds, for a log of some hundred thousand lines a second.
PAUSE_MICROSECONDS = 3000

# For each size: how many blocks of it are lost, and the functions that their stacks begin with.
LOST = {
    71001: (50, ["lose", "handle"]),
    71002: (100, ["lose", "throw_exceptions"]),
    71003: (50, ["lose", "work"]),
    71004: (50, ["work_of_one", "use_library", "load_libraries"]),
    71005: (50, ["work_of_two", "use_library", "load_libraries"]),
}
LOST_BY_CHILD = 72001

seconds = BRIEF_SECONDS


class Torture(recorded_runs.RecordedRuns):
    def test_everything_at_once(self):
        libraries = self.with_libraries("counting.so", "signal_safe_malloc.so", COUNTING=self.folder / "counts")
        out, errors = self.record(*libraries, self.options.bin / "torture", seconds, PAUSE_MICROSECONDS)
        print(out, errors, sep="", end="", file=sys.stderr)
        children = int(out.split()[0])
        program, *others = self.logs()
        self.check_program(self.read(program))
        # Programs that were started have logs, too.
        forked = [any(record.size == LOST_BY_CHILD for record in self.read(name).alive.values()) for name in others]
        self.assertEqual(sum(forked), children)

    def read(self, name):
        """The recording; a plain replay of it, and qortool's, agree."""
        recording = self.recording(name)
        self.assertEqual(recording.bad[:5], [])
        self.assertEqual(return_addresses.Checker().foreign(recording.stacks)[:10], [])
        self.assert_same(self.by_tool(name), sorted((address, record.size) for address, record in recording.alive.items()))
        return recording

    def check_program(self, recording):
        sizes = collections.Counter(record.size for record in recording.alive.values())
        self.assertEqual({size: sizes[size] for size in LOST}, {size: number for size, (number, _) in LOST.items()})
        counted = self.folder / f"counts.{recording.stacks.process.pid}.1"
        self.assertEqual(self.counts(recording), struct.unpack("=3Q", counted.read_bytes()))
        addr2line = symbols.Addr2line()
        self.addCleanup(addr2line.close)
        for leak in symbols.recorded_leaks(recording, addr2line):
            if leak.size in LOST:
                functions = [place.function for place in leak.within(self.options.bin)]
                expected = LOST[leak.size][1]
                self.assertEqual(functions[:len(expected)], expected)
        self.check_ends(recording.stacks)

    def check_ends(self, stacks):
        """Stacks go to the start of the program or of a thread, but for some that a signal has cut into."""
        whole = cut = 0
        for node, number in collections.Counter(stacks.records).items():
            frames = stacks.frames(node)
            if len(frames) < stacks.process.depth:
                module = frames[-1].module if frames else None
                if module is not None and module.path.endswith(("/torture", "/libc.so.6")):
                    whole += number
                else:
                    cut += number
        print(f"{whole} stacks, {cut} that end early", file=sys.stderr)
        self.assertLess(cut, whole / 100)


def main():
    global seconds
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=LONG_SECONDS if recorded_runs.longer() else BRIEF_SECONDS)
    rest = recorded_runs.parse(parser)
    seconds = recorded_runs.RecordedRuns.options.seconds
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
