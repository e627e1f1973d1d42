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
# How long each kind of work rests between two rounds: what ten minutes write can be read, too.
PAUSE_MICROSECONDS = 5000 if recorded_runs.longer() else 100

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
        self.check_program()
        forked = 0
        for name in self.logs()[1:]:
            # Programs that were started have logs, too.
            if self.leaks(name).get(LOST_BY_CHILD):
                forked += 1
        self.assertEqual(forked, children)

    def leaks(self, name):
        """{size: number}, as a plain replay, qortool and the script see them."""
        recording = self.recording(name)
        alive, bad = recording.replay()
        self.assertEqual(bad[:5], [])
        self.assertEqual(return_addresses.Checker().foreign(recording.stacks)[:10], [])
        found = sorted((address, record.size) for address, record in alive.items())
        self.assert_same(self.by_tool(name), found)
        return collections.Counter(record.size for record in alive.values())

    def check_program(self):
        leaks = self.leaks("log.mtrace")
        self.assertEqual({size: leaks[size] for size in LOST}, {size: number for size, (number, _) in LOST.items()})
        recording = self.recording()
        counted = self.folder / f"counts.{recording.stacks.process.pid}.1"
        self.assertEqual(self.counts(recording), struct.unpack("=3Q", counted.read_bytes()))
        addr2line = symbols.Addr2line()
        self.addCleanup(addr2line.close)
        for leak in symbols.recorded_leaks(recording, addr2line):
            if leak.size in LOST:
                functions = [place.function for place in leak.within(self.options.bin)]
                expected = LOST[leak.size][1]
                self.assertEqual(functions[:len(expected)], expected)
        self.check_ends(recording)

    def check_ends(self, recording):
        """Stacks go to the start of the program or of a thread, but for some that a signal has cut into."""
        whole = cut = 0
        for record in (record for _, _, record in recording.lines if record):
            frames = recording.stacks.frames(record.node)
            if len(frames) < recording.stacks.process.depth:
                module = frames[-1].module if frames else None
                if module is not None and module.path.endswith(("/torture", "/libc.so.6")):
                    whole += 1
                else:
                    cut += 1
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
