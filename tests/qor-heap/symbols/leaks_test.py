#!/usr/bin/env python3
"""The leaks of tests/record/programs/planted.*: their stacks with the functions and lines that class symbols finds, beside
those of valgrind memcheck.

    leaks_test.py --places PROGRAM --bin FOLDER --record PROGRAM --tool QORTOOL
"""

import argparse
import os
import sys
import unittest

import places
import planted_test as planted  # in tests/record
import recorded_runs


class Places:
    """In the place of elfutils' addr2line, which the test of the recorder uses."""

    def __init__(self, program):
        self.program, self.known = program, {}

    def close(self):
        pass

    def prepare(self, recording):
        """Finds the places of all frames of a recording at once."""
        stacks, modules = recording.stacks, {}
        for record in recording.alive.values():
            for frame in stacks.frames(record.node):
                if frame.module is not None:
                    modules.setdefault((frame.module.path, frame.module.build_id), set()).add(frame.address)
        asked = [places.Module(path, sorted(addresses), build_id.hex()) for (path, build_id), addresses in modules.items()]
        for module, answer in zip(asked, places.ask(self.program, asked, "return=1", "fetch=0").modules):
            for address, found in answer.places.items():
                self.known[module.path, address] = [
                    places.Place(places.short_name(place.function), os.path.basename(place.file), place.line)
                    for place in found]

    def places(self, path, address):
        return self.known[path, address] or places.UNKNOWN


class PlantedLeaks(planted.Planted):
    @classmethod
    def setUpClass(cls):
        cls.addr2line = Places(cls.options.places)

    def recording(self, name="log.mtrace"):
        result = super().recording(name)
        self.addr2line.prepare(result)
        return result


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    rest = recorded_runs.parse(parser)
    planted.add_tests()
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(PlantedLeaks)
    assert not rest and tests.countTestCases() == 20
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
