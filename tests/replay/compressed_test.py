#!/usr/bin/env python3
"""Logs that are compressed, as a whole, cut off, damaged and mixed.

    compressed_test.py --tool PATH [--runner PROGRAM]

The programs gzip and zstd make them, and what the tool must write is what the plain replay beside this file writes of the
text. How much of a part can be read comes from Python's zlib and from the form of zstd's frames.
"""

import argparse
import lzma
import subprocess
import sys
import tempfile
import unittest
import zlib
from pathlib import Path

import replay

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
import tool as under_test  # noqa: E402  # beside this folder

GUARD = 300  # seconds; instrumented builds on a busy machine are slow
ZSTD_BLOCK = 128 * 1024  # bytes of text in each block of a frame but the last

MTRACE = b"".join(
    b"@ /usr/bin/app:[0x%x] + 0x%x 0x%x\n" % (0x4000 + i * 7919 % 977, 0x55550000 + i * 48, i * i)
    + (b"@ /usr/bin/app:[0x1] - 0x%x\n" % (0x55550000 + i * 24) if i % 2 == 0 else b"")
    for i in range(8_000)
)
MEMCHECK = b"".join(b"A %x %d 0 src/file%d %d\nT %x Type%d\n" % (0x55550000 + i * 48, i, i % 30, i, 0x55550000 + i * 48, i % 9)
                    for i in range(1_000))

EXPECTED = {}  # of the plain replay, by action and text

ENDS = "Cannot read '{}': it ends unexpectedly at byte {}. The report covers only what was read before that.\n"
DAMAGED = "Cannot read '{}': its compressed data are damaged behind byte {}. The report covers only what was read before that.\n"
WINDOW = ("Cannot read '{}': zstd needs a window of more than 128 MiB to decompress it. Decompress it first, with "
          "'zstd -d --long=31'. The report covers only what was read before that.\n")


def made_by(program, data):
    return subprocess.run([*program.split(), "-c"], input=data, stdout=subprocess.PIPE, check=True).stdout


def gzip(data):
    return made_by("gzip -6", data)


def zstd(data):
    return made_by("zstd -q -1", data)


def text_of_gzip(data):
    """What of the text is there before the data end or are damaged, and where."""
    state, text = zlib.decompressobj(31), bytearray()
    for at, byte in enumerate(data):
        try:
            text += state.decompress(bytes([byte]))
        except zlib.error:
            return bytes(text), at + 1
    return bytes(text), len(data)


def zstd_blocks(frame):
    """Where each block begins, and the end of the last; of a frame of the program zstd."""
    sizes = frame[4] >> 6, frame[4] >> 5 & 1, frame[4] & 3
    assert frame[:4] == b"\x28\xb5\x2f\xfd"
    at = 5 + (not sizes[1]) + (0, 1, 2, 4)[sizes[2]] + (sizes[1] if sizes[0] == 0 else 1 << sizes[0])
    places, is_last = [at], False
    while not is_last:
        head = int.from_bytes(frame[at:at + 3], "little")
        is_last = head & 1
        at += 3 + (1 if head >> 1 & 3 == 1 else head >> 3)
        places.append(at)
    return places


def run(*words):
    done = subprocess.run([*tool.command, "--quiet", *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True,
                          env=tool.environment(), timeout=GUARD, check=False)
    return done.returncode, tool.printed(done.stdout), tool.printed(done.stderr)


class Compressed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.count = 0

    def file(self, data):
        self.count += 1
        path = self.folder / f"log{self.count}"
        path.write_bytes(data)
        return path

    def require(self, data, text, said="", at=0, action="mtrace"):
        """A file of the data is replayed like a log of the text, and at the end that is said, with the place `at`."""
        path = self.file(data)
        if (action, text) not in EXPECTED:
            EXPECTED[action, text] = replay.replay(action, self.file(text))
        out, err = EXPECTED[action, text]
        code, found_out, found_err = run(action, path)
        self.assertEqual((code, found_err[-400:]), (0, (err + said.format(path, at).encode())[-400:]))
        self.assertTrue(found_out == out, "standard output differs")
        self.assertTrue(found_err == err + said.format(path, at).encode(), "standard error differs")

    def test_both_actions(self):
        for action, text in (("mtrace", MTRACE), ("memcheck", MEMCHECK), ("mtrace", b"@ a + 0x10 1"), ("mtrace", b"")):
            for data in (gzip(text), zstd(text), made_by("zstd -q -19 --no-check", text)):
                with self.subTest(action=action, begin=data[:8], size=len(data)):
                    self.require(data, text, action=action)

    def test_joined_logs(self):
        expected = replay.replay("mtrace", self.file(MTRACE), self.file(MEMCHECK))
        for mtrace, memcheck in ((gzip(MTRACE), zstd(MEMCHECK)), (zstd(MTRACE), gzip(MEMCHECK)), (MTRACE, gzip(MEMCHECK)),
                                 (zstd(MTRACE), MEMCHECK)):
            self.assertTrue(run("mtrace", self.file(mtrace), self.file(memcheck)) == (0, *expected))

    def test_several_streams(self):
        half = len(MTRACE) // 2
        first, second = MTRACE[:half], MTRACE[half:]
        skippable = b"\x5b\x2a\x4d\x18\x03\0\0\0abc"
        for data in (gzip(first) + gzip(second), zstd(first) + zstd(second), zstd(first) + gzip(second),
                     gzip(b"") + gzip(first) + gzip(b"") + zstd(second), skippable + zstd(first) + skippable + zstd(second),
                     zstd(MTRACE) + skippable, gzip(MTRACE) + bytes(5000)):
            with self.subTest(begin=data[:8], size=len(data)):
                self.require(data, MTRACE)

    def test_cut_off(self):
        """What is there of the text is read, of zstd the whole blocks."""
        whole = gzip(MTRACE)
        for size in (2, 9, 11, 100, 5_000, len(whole) - 8, len(whole) - 1):
            with self.subTest(format="gzip", size=size):
                self.require(whole[:size], text_of_gzip(whole[:size])[0], ENDS, size)
        whole = zstd(MTRACE)
        places = zstd_blocks(whole)
        self.assertEqual(len(places) - 1, -(-len(MTRACE) // ZSTD_BLOCK))
        for size in (4, 5, 12, places[1] - 1, places[1], places[2] + 2, places[-2] + 50, len(whole) - 1):
            with self.subTest(format="zstd", size=size):
                blocks = sum(place <= size for place in places[1:])
                self.require(whole[:size], MTRACE[:blocks * ZSTD_BLOCK], ENDS, size)
        first = gzip(b"@ a + 0x10 1\n")
        self.require(first + whole[:3], b"@ a + 0x10 1\n", ENDS, len(first) + 3)

    def test_damaged(self):
        whole = gzip(MTRACE)
        for at, bits in ((2, 1), (5_000, 0x55), (20_000, 0x80), (len(whole) - 7, 1), (len(whole) - 2, 1)):
            with self.subTest(format="gzip", at=at):
                data = bytearray(whole)
                data[at] ^= bits
                text, place = text_of_gzip(data)
                self.assertLess(len(text), len(MTRACE) + 1)
                self.require(data, text, DAMAGED, place)
        whole = zstd(MTRACE)
        places = zstd_blocks(whole)
        for block in (0, 1, len(places) - 2):
            with self.subTest(format="zstd", block=block):
                data = bytearray(whole)
                data[places[block]] |= 6  # a kind of block that there is not
                self.require(data, MTRACE[:block * ZSTD_BLOCK], DAMAGED, places[block])
        data = bytearray(whole)
        data[-1] ^= 1
        self.require(data, MTRACE, DAMAGED, places[-1] + 1)
        for data in (gzip(MTRACE), zstd(MTRACE)):
            self.require(data + b"@ b - 0x10\n", MTRACE, DAMAGED, len(data))

    def test_a_huge_window(self):
        frame = b"\x28\xb5\x2f\xfd\0%c\x69\0\0@ a + 0x10 1\n"
        self.require(frame % 0x88, b"@ a + 0x10 1\n")
        self.require(frame % 0x89, b"", WINDOW)
        self.require(made_by("zstd -q --long=31", MTRACE), b"", WINDOW)

    def test_what_is_in_it_is_no_log(self):
        path = self.file(gzip(gzip(MTRACE)))
        self.assertIn(b"It looks like a file compressed with gzip, which must be decompressed first.", run("mtrace", path)[2])
        path = self.file(zstd(MEMCHECK))
        self.assertIn(b"It looks like a memcheck log", run("mtrace", path)[2])
        path = self.file(lzma.compress(MTRACE))
        self.assertIn(b"It looks like a file compressed with xz", run("mtrace", path)[2])

    def test_lines_are_traced(self):
        text = b"@ a + 0x10 1\n\n# nothing\n@ odd\n@ a - 0x10\n"
        trace = self.folder / "trace"
        run("--qor-debug=qortool.mtrace", f"--qor-debug-file={trace}", "mtrace", self.file(zstd(text)))
        traced = [line.partition("mtrace line: [")[2] for line in trace.read_text().splitlines() if "mtrace line: [" in line]
        self.assertEqual(traced, [line + "]" for line in text.decode().splitlines()])


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="Replays logs that are compressed.")
    under_test.add_options(parser)
    options = parser.parse_args()
    tool = under_test.Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], "-v"])
