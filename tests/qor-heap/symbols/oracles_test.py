#!/usr/bin/env python3
"""Functions, lines and inlined frames of thousands of addresses, beside addr2line -i (binutils) and llvm-symbolizer.

    oracles_test.py --places PROGRAM [--count N] FILE...

The two disagree with each other at one address in ten. At each address, the places are those of at least one of them;
or each name and each line is one of theirs ("mixed"): addr2line takes an inlined function for the one around it, and the
file of a line for that of the unit; llvm-symbolizer takes the name of an alias. The other differences are
counted by their reason:

name    functions that have several names, of which each program takes another one
line    a row of the line table without a line, which each program reads in its own way
"""

import argparse
import collections
import sys
import unittest

import places


def reason(ours, *others):
    """Why places are those of none of the others as a whole: None if they are nonetheless right."""
    same = [other for other in others if len(other) == len(ours)]
    if same and all(any(other[i].function == place.function for other in same)
                    and any((other[i].file, other[i].line) == (place.file, place.line) for other in same)
                    for i, place in enumerate(ours)):
        return "mixed"
    if any([place.function for place in other] == [place.function for place in ours] for other in same):
        return "line"
    if any([(place.file, place.line) for place in other] == [(place.file, place.line) for place in ours] for other in same):
        return "name"
    return "other"


class Oracles(unittest.TestCase):
    def check(self, path):
        addresses = places.addresses_of(path, options.count)
        # Without a build id nothing is verified, so the same is found.
        answer, = places.ask(options.places, [places.Module(path, addresses)], "fetch=0").modules
        self.assertEqual((answer.status, answer.unverified), ("ok", True))
        binutils, llvm = places.by_addr2line(path, addresses), places.by_llvm(path, addresses)
        counts, strange, with_lines = collections.Counter(), [], 0
        for address in addresses:
            ours = [places.comparable(place.function, place.file, place.line) for place in answer.places[address]]
            ours = ours or places.UNKNOWN
            with_lines += ours[0].line != 0
            others = binutils[address], llvm[address]
            agree = [ours == other for other in others]
            kind = "both" if all(agree) else "one" if any(agree) else reason(ours, *others)
            counts[kind] += 1
            if kind not in ("both", "one"):
                strange.append(f"{address:#x} {kind}\n  ours     {ours}\n  binutils {others[0]}\n  llvm     {others[1]}")
        print(f"{path}: {len(addresses)} addresses, {with_lines} with a line: {dict(counts)}", file=sys.stderr)
        few = max(4, len(addresses) // 50)
        message = f"{counts}\n" + "\n".join(strange[:10])
        self.assertGreater(with_lines, len(addresses) // 3, message)
        self.assertLessEqual(counts["mixed"] + counts["line"] + counts["name"], few, message)
        self.assertLessEqual(counts["other"], few // 10, message)


def add_test(path):
    setattr(Oracles, "test_" + path, lambda self: self.check(path))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    parser.add_argument("--count", type=int, default=2000)
    parser.add_argument("files", nargs="+")
    options, rest = parser.parse_known_args()
    for path in options.files:
        add_test(path)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
