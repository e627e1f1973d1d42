#!/usr/bin/env python3
"""The sums of recorded programs beside those of heaptrack, and of valgrind and its massif, for the same programs.

    peers_test.py --bin FOLDER

The program is the same in each run: one thread, no clock, no random numbers, nothing of the environment. The differences that remain are the
observers' own, and are asserted, too.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "record"))
import stacks_file  # noqa: E402  # in tests/record

SQL = ("create table t(a,b); with recursive n(x) as (select 1 union all select x+1 from n where x<5000)"
       " insert into t select x, hex(zeroblob(20)) from n; create index i on t(b); select count(*) from t where b like '%1%';")
ROWS = ("create table t(a, b); with recursive n(x) as (select 1 union all select x+1 from n where x<3000)"
        " insert into t select x, json_object('number', x, 'text', hex(zeroblob(x % 100))) from n; delete from t where a % 3 = 0;"
        " update t set b = (select group_concat(a) from t where a < 900) where a % 10 = 0; select max(length(b)) from t;")

# heaptrack's library brings the C++ library along, which allocates its pool for exceptions in every program.
POOL = 72704


def rounded(text):
    """A number as heaptrack prints it, and how far it may be from what was rounded."""
    number, unit = re.fullmatch(r"([\d.]+)([KMG]?)B?", text).groups()
    factor = {"": 1, "K": 1000, "M": 1000**2, "G": 1000**3}[unit]
    return float(number) * factor, 0.005 * factor + 1


class Peers(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = {key: value for key, value in os.environ.items() if not key.startswith(("DEBUGINFOD", "LD_", "GLIBC"))}
        self.environment |= {"LANGUAGE": "en", "LC_ALL": "C"}

    def run_program(self, *words):
        result = subprocess.run(list(map(str, words)), env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=600)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result.stdout, result.stderr

    def temporary_blocks(self):
        """How many releases are right behind the allocation of the same block, and of one of the same size and stack."""
        alive, by_block, by_kind, recent, recent_kind = {}, 0, 0, None, None
        for _, address, record in stacks_file.Recording(self.folder / "own.mtrace").lines():
            if record is not None:
                recent, alive[address] = address, (record.node, record.size)
                recent_kind = alive[address]
            else:
                kind = alive.pop(address)
                by_block += address == recent
                by_kind += kind == recent_kind
                recent = recent_kind = None
        return by_block, by_kind

    def compare(self, command):
        self.run_program(BIN / "qor-record", "-o", "own", "--", *command)
        out, _ = self.run_program(BIN / "qor-heap", "sites", "--no-symbols", "--no-suppressions", "own.mtrace")
        blocks, size, temporary = map(int, re.search(r"; allocations: (\d+) \((\d+) bytes\), of them temporary: (\d+)", out).groups())
        peak = int(re.search(r"Peak: (\d+) bytes", out)[1])
        live, live_blocks = map(int, re.search(r"Live at the end: (\d+) bytes \(blocks: (\d+)", out).groups())
        self.assertGreater(blocks, 1000)

        # valgrind has the C library and the C++ library release what they keep at the end, so only a sum is compared.
        _, err = self.run_program("valgrind", "--run-libc-freeres=no", "--run-cxx-freeres=no", *command)
        numbers = [int(each.replace(",", "")) for each in re.search(
            r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks.*?([\d,]+) allocs.*?([\d,]+) bytes allocated", err, re.S).groups()]
        self.assertEqual(numbers, [live, live_blocks, blocks, size])
        self.run_program("valgrind", "--tool=massif", "--heap-admin=0", "--peak-inaccuracy=0.0", "--massif-out-file=massif", *command)
        self.assertEqual(max(map(int, re.findall(r"mem_heap_B=(\d+)", (self.folder / "massif").read_text()))), peak)

        self.run_program("heaptrack", "-o", self.folder / "track", *command)
        track = next(self.folder.glob("track*"))
        out, _ = self.run_program("heaptrack_print", track)
        self.assertEqual(int(re.search(r"calls to allocation functions: (\d+)", out)[1]), blocks + 1)
        # It knows a block by its size and stack, so the release of another such block counts as one of the last block; and
        # so does the release of its pool, as the first of all, behind another release.
        by_block, by_kind = self.temporary_blocks()
        self.assertEqual(by_block, temporary)
        self.assertIn(int(re.search(r"temporary memory allocations: (\d+)", out)[1]) - by_kind, (0, 1))
        number, slack = rounded(re.search(r"peak heap memory consumption: (\S+)", out)[1])
        self.assertAlmostEqual(number, peak + POOL, delta=slack)
        leaked, slack = rounded(re.search(r"total memory leaked: (\S+)", out)[1])
        suppressed, more = rounded((re.search(r"suppressed leaks: (\S+)", out) or ["", "0B"])[1])
        self.assertAlmostEqual(leaked + suppressed, live, delta=slack + more)

    def test_a_data_base(self):
        self.compare(["sqlite3", ":memory:", SQL])

    def test_rows_that_come_and_go(self):
        self.compare(["sqlite3", ":memory:", ROWS])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    arguments, rest = parser.parse_known_args()
    BIN = arguments.bin.resolve()
    sys.argv[1:] = rest
    unittest.main()
