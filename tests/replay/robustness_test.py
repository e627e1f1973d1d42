#!/usr/bin/env python3
"""Logs that come through pipes, that are still being written, that are truncated, huge, or not logs at all.

    robustness_test.py --tool PATH [--instrumented] [--full]

The expected output comes from the plain replay beside this file, or is simple enough to be written here. Memory is also
limited, unless the tool is instrumented. --full uses sizes for an otherwise idle machine.
"""

import argparse
import gzip
import os
import pty
import random
import re
import resource
import select
import subprocess
import sys
import tempfile
import threading
import unittest
import zlib
from pathlib import Path

import replay

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
import tool as under_test  # noqa: E402  # in tests/support

MIB = 1 << 20
GUARD = 120  # seconds; instrumented builds on a busy machine are slow
LOG = b"".join(
    b"@ /usr/bin/app:[0x%x] + 0x%x 0x%x\n" % (0x4000 + i % 7, 0x55550000 + i * 48, i)
    + (b"@ /usr/bin/app:[0x1] - 0x%x\n" % (0x55550000 + i * 24) if i % 2 == 0 else b"")
    for i in range(40_000)
)
LEAK = re.compile(rb"LEAK at 0x([0-9a-f]+) ")


class Run:
    """One run of the tool; `feed(stream)`, if given, writes its standard input. The run fails if it needs more than
    `limit` bytes of address space, which is more than the memory that it really uses."""

    def __init__(self, words, feed=None, limit=256 * MIB, environment={}):
        def bound():
            if not options.instrumented:
                resource.setrlimit(resource.RLIMIT_AS, (limit, limit))

        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            process = subprocess.Popen(
                [*tool.command, "--quiet", *words], stdin=subprocess.PIPE, stdout=out, stderr=err,
                env={**tool.environment(), **environment}, preexec_fn=bound,
            )
            if feed is not None:
                feed(process.stdin)
            process.stdin.close()
            self.code = process.wait()
            out.seek(0)
            err.seek(0)
            self.out = out.read()
            self.err = err.read()


class Robustness(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.log = self.folder / "log"

    def require_output(self, run, expected):
        self.assertEqual(run.code, 0)
        self.assertTrue(run.out == expected[0], "standard output differs")
        self.assertTrue(run.err == expected[1], "standard error differs")

    def expected(self, data, action="mtrace"):
        self.log.write_bytes(data)
        return replay.replay(action, self.log)

    def write_in_pieces(self, stream, data):
        chooser = random.Random(1)
        at = 0
        while at < len(data):
            size = chooser.choice([1, 2, 50, 4096, 65536, 300_000])
            stream.write(data[at : at + size])
            stream.flush()
            at += size

    def fifo(self, data):
        """Makes a FIFO and a thread that writes the data into it."""
        path = self.folder / "fifo"
        os.mkfifo(path)

        def write():
            with open(path, "wb") as stream:
                self.write_in_pieces(stream, data)

        writer = threading.Thread(target=write)
        writer.start()
        return path, writer

    def test_standard_input_by_name(self):
        run = Run(["mtrace", "/dev/stdin"], lambda stream: self.write_in_pieces(stream, LOG))
        self.require_output(run, self.expected(LOG))

    def test_fifo(self):
        fifo, writer = self.fifo(LOG)
        run = Run(["mtrace", fifo])
        writer.join()
        self.require_output(run, self.expected(LOG))

    def test_compressed_logs_through_pipes(self):
        expected = self.expected(LOG)
        zstd = subprocess.run(["zstd", "-q", "-c"], input=LOG, stdout=subprocess.PIPE, check=True).stdout
        for data in (gzip.compress(LOG), zstd):
            fifo, writer = self.fifo(data)
            run = Run(["mtrace", fifo])
            writer.join()
            fifo.unlink()
            self.require_output(run, expected)
            self.require_output(Run(["mtrace", "/dev/stdin"], lambda stream: self.write_in_pieces(stream, data)), expected)

    def test_memory_of_compressed_logs(self):
        """It follows neither the length of the log nor what its beginning asks for, up to the limit that users are told."""
        line = b"@ app + 0x10 0x20\n@ app - 0x10\n"
        def feed(stream):
            state = zlib.compressobj(1, zlib.DEFLATED, 31)
            for _ in range(100):
                stream.write(state.compress(line * 20_000))
            stream.write(state.flush())

        run = Run(["mtrace", "/dev/stdin"], feed, 64 * MIB)
        self.assertEqual((run.code, run.out), (0, b"No leaks found\nDone\n"))
        # A window of 128 MiB.
        frame = b"\x28\xb5\x2f\xfd\0\x88" + (len(line) << 3 | 1).to_bytes(3, "little") + line
        run = Run(["mtrace", "/dev/stdin"], lambda stream: stream.write(frame), 200 * MIB)
        self.assertEqual((run.code, run.out), (0, b"No leaks found\nDone\n"))
        if not options.instrumented:
            run = Run(["mtrace", "/dev/stdin"], lambda stream: stream.write(frame), 100 * MIB)
            self.assertEqual(run.code, 1)
            self.assertIn(b"out of memory", run.err)

    def test_a_library_that_is_missing(self):
        folder = self.folder / "libraries"
        folder.mkdir()
        for data, program, library in ((gzip.compress(LOG), "gzip", "libz.so.1"),
                                       (b"\x28\xb5\x2f\xfd", "zstd", "libzstd.so.1")):
            with self.subTest(program=program):
                (folder / library).write_bytes(b"no library")
                self.log.write_bytes(data)
                run = Run(["mtrace", self.log], environment={"LD_LIBRARY_PATH": str(folder)})
                self.assertEqual((run.code, run.out), (0, b"No leaks found\nDone\n"))
                self.assertRegex(run.err.decode(), f"\nCannot read '{self.log}': it is compressed with {program}, and the "
                                 f"library '{library}' cannot be used: .*{library}.*\\. The report covers only what was read "
                                 "before that\\.\n$")

    def test_join_of_two_pipes(self):
        memcheck = b"".join(b"A %x %d 0 src/a %d\n" % (0x55550000 + i * 48, i, i) for i in range(40_000))
        expected_log, joined = self.folder / "expected", self.folder / "joined"
        expected_log.write_bytes(LOG)
        joined.write_bytes(memcheck)
        fifo, writer = self.fifo(memcheck)
        # Neither pipe is read to its end before data comes from the other, so each is written by its own thread.
        run = Run(["mtrace", "/dev/stdin", fifo], lambda stream: self.write_in_pieces(stream, LOG))
        writer.join()
        self.require_output(run, replay.replay("mtrace", expected_log, joined))

    def test_a_log_that_is_still_written(self):
        """Data that is there at the start is replayed, and later data line by line, as far as it was seen."""
        before, after = 20_000, 200_000
        line = b"@ a + 0x%x 1\n"
        self.log.write_bytes(b"".join(line % (0x1000 + i * 16) for i in range(before)))

        def write():
            with open(self.log, "ab", buffering=0) as stream:
                for i in range(before, after):
                    stream.write(line % (0x1000 + i * 16))

        writer = threading.Thread(target=write)
        writer.start()
        run = Run(["mtrace", self.log], limit=64 * MIB)
        writer.join()
        self.assertEqual(run.code, 0)
        leaks = [int(address, 16) for address in LEAK.findall(run.out)]
        self.assertGreaterEqual(len(leaks), before)
        # Here the table is in the order of the addresses. The last line may have been read in part.
        self.assertEqual(leaks[:before], [0x1000 + i * 16 for i in range(before)])

    def test_every_line_is_traced_when_its_turn_comes(self):
        """Lines without meaning are traced too, whichever thread reads them."""
        data = LOG.replace(b"[0x4000] +", b"[0x4000] +\n\n# nothing\n  @ odd 0x10\n@ app +")
        self.log.write_bytes(data)
        trace = self.folder / "trace"
        run = Run(["--qor-debug=qortool.mtrace", f"--qor-debug-file={trace}", "mtrace", self.log])
        self.require_output(run, self.expected(data))
        said = [line.split(b" ", 3)[3] for line in trace.read_bytes().splitlines()]
        traced = [line[len(b"mtrace line: ["):-1] for line in said if line.startswith(b"mtrace line: [")]
        self.assertTrue(traced == [line.strip() for line in data.splitlines()], "other lines were traced")
        # When the replay asks for a record, the trace shows the lines up to it.
        records = [n for n, line in enumerate(said) if line == b">>ENTER>> read_mtrace()"]
        for begin, end in zip(records, records[1:]):
            lines = [line for line in said[begin:end] if line.startswith(b"mtrace line: [")]
            self.assertTrue(lines[-1].startswith(b"mtrace line: [@ "), lines)

    def test_truncated_logs(self):
        for action, data in (("mtrace", b"@ p:[0x45a4] + 0x1b3c0 0x20\n@ p:[0x45a4] - 0x1b3c0\n"),
                             ("memcheck", b"A 1f3a0 48 0 src/foo 120\nT 1f3a0 Widget\n")):
            for size in range(len(data) + 1):
                with self.subTest(action=action, size=size):
                    self.require_output_of(action, data[:size])

    def require_output_of(self, action, data):
        expected = self.expected(data, action)
        self.require_output(Run([action, self.log]), expected)

    def test_binary_garbage(self):
        chooser = random.Random(7)
        garbage = chooser.randbytes(1 << 20)
        # The same with the letters of both grammars, and with line ends but no blanks.
        letters = bytes(chooser.choice(b"@AFTE#+-<> 0x1f\n\n\r\t\0\xff") for _ in range(1 << 19))
        for action in ("mtrace", "memcheck"):
            for data in (garbage, letters, garbage.replace(b" ", b"\n@ "), b"\n" * (1 << 18), b"\0" * (1 << 20)):
                self.require_output_of(action, data)

    def test_huge_lines(self):
        size = 100_000_000 if options.full else 10_000_000
        huge = b"x" * size
        rest = b"\n@ app + 0x10 0x20\n@ app - 0x10\n@ app + 0x30 4"
        leak = b"LEAK at 0x30 size 4 type 0 caller [app] type_name [] file [] line 0\n"
        one, two = b"Leaked 1 objects totalling 4 bytes\nDone\n", b"Leaked 2 objects totalling 12 bytes\nDone\n"
        another = b"LEAK at 0x70 size 8 type 0 caller [%s] type_name [] file [] line 0\n"
        for line, out in (
            (huge, leak + one),
            (b"@ " + huge, leak + one),
            (b"@ %s - 0x20" % huge, b"BAD FREE at 0x20 (not allocated)\n" + leak + one),
            (b"@ %s + 0x70 8" % huge, another % huge + leak + two),
            (b"@ b + 0x70 8 %s" % huge, another % b"b" + leak + two),
            (b"@ b + 0x70" + b" " * size + b"8", another % b"b" + leak + two),
            (b"@ b + 0x" + b"0" * size + b"70 8", another % b"b" + leak + two),
        ):
            with self.subTest(line=line[:20]):
                # The line is read and kept, with room to grow.
                limit = 64 * MIB + 6 * size
                run = Run(["mtrace", "/dev/stdin"], lambda stream: (stream.write(line), stream.write(rest)), limit)
                self.assertEqual(run.code, 0)
                self.assertTrue(run.out == out)

    def test_lines_that_are_too_long(self):
        """Lines that are too long are skipped, not kept; one that begins like a meaningful line causes a warning."""
        longest = 256 * MIB
        before = [b"@ app:[0x%x] + 0x%x 0x20\n" % (i, 0x10 + i * 16) for i in range(20_000)]
        leak = b"LEAK at 0x4 size 8 type 0 caller [%s] type_name [] file [%s] line 0\n"
        leaks = b"Leaked 1 objects totalling 8 bytes\nDone\n"
        mtrace, memcheck = b"@ b + 0x4 8\n", b"A 4 8 0 b\n"
        warning = b"WARNING Invalid line in %s() file\n"
        for action, begin, fill, warnings, ahead in (
            ("mtrace", b"@ a + 0x10 1 ", b"x", 1, False),
            ("mtrace", b"@ a + 0x10 1 ", b"x", 1, True),  # read by the thread that reads ahead
            ("mtrace", b"A 10 1 0 ", b"@", 0, False),
            ("memcheck", b"A 10 1 0 ", b"x", 1, False),
            ("memcheck", b"x", b"x", 1, False),
            ("memcheck", b"# ", b"A", 0, False),
            ("memcheck", b"", b" ", 0, False),
        ):
            with self.subTest(action=action, begin=begin, fill=fill, ahead=ahead):

                def feed(stream):
                    if ahead:
                        stream.writelines(before)
                        stream.writelines(line.replace(b" +", b" -").rsplit(b" ", 1)[0] + b"\n" for line in before)
                    for end in (b"\n", b"\n" + (mtrace if action == "mtrace" else memcheck)):
                        stream.write(begin)
                        for _ in range(longest // MIB):
                            stream.write(fill * MIB)
                        stream.write(b"." + end)

                run = Run([action, "/dev/stdin"], feed, 640 * MIB)
                shown = leak % ((b"b", b"") if action == "mtrace" else (b"", b"b"))
                self.assertEqual((run.code, run.out), (0, shown + leaks))
                self.assertEqual(run.err.count(b"WARNING"), 2 * warnings)
                self.assertEqual(run.err.count(warning % action.encode()), 2 * warnings)

    def test_a_line_that_is_too_long_beside_the_plain_replay(self):
        if options.instrumented:
            self.skipTest("it takes more than a gigabyte beside what the instruments take")
        self.log.write_bytes(b"@ a + 0x10 1\n@ b ")
        with open(self.log, "ab") as stream:
            stream.truncate(300 * MIB)
            stream.write(b"\n@ c - 0x10\n@ d - 0x20\n")
        self.require_output(Run(["mtrace", self.log], limit=640 * MIB), replay.replay("mtrace", self.log))

    def shows(self, terminal, wanted, seen):
        """Waits until the terminal shows the text."""
        while wanted not in seen:
            ready, _, _ = select.select([terminal], [], [], GUARD)
            self.assertTrue(ready, f"{wanted} is not on the screen, but only {bytes(seen[-200:])}")
            seen += os.read(terminal, 65536)

    def test_a_stalled_pipe_on_a_terminal(self):
        """While no data comes, the screen shows everything known so far, at any place of the log."""
        many = b"".join(b"@ a + 0x%x 1\n@ a - 0x%x\n" % (i * 16, i * 16) for i in range(1, 20_001))
        for joined in (False, True):
            with self.subTest(joined=joined):
                log, other = self.folder / f"log{joined}", self.folder / f"memcheck{joined}"
                os.mkfifo(log)
                os.mkfifo(other)
                # Both ends are open, so that opening does not wait.
                writer, second = os.open(log, os.O_RDWR), os.open(other, os.O_RDWR)
                screen, terminal = pty.openpty()
                process = subprocess.Popen([*tool.command, "--quiet", "mtrace", log, *([other] if joined else [])],
                                           stdin=subprocess.DEVNULL, stdout=terminal, stderr=terminal,
                                           env=tool.environment())
                os.close(terminal)
                seen = bytearray()
                try:
                    self.shows(screen, b"Processing mtrace file...", seen)
                    # Followed by the beginning of a line.
                    os.write(writer, b"@ odd\n@ a - 0x8\n" + b"@ a - 0x9\n" * 19 + b"@ a")
                    self.shows(screen, b"BAD FREE at 0x8 ", seen)
                    self.shows(screen, b"20\r", seen)
                    os.write(writer, b" - 0x8\n@ a + 0x10 1\n")
                    if joined:
                        os.write(writer, b"@ a - 0x10\n" * 20)
                        os.write(second, b"A 20 1 3 f 1\nF 30 3\nx 1\nA 1")
                        self.shows(screen, b"BAD FREE at 0x30 ", seen)
                        self.shows(screen, b"WARNING Invalid memcheck line code x", seen)
                        os.write(second, b"0 1 0 f 1\n")
                    else:
                        for at in range(0, len(many), 4096):
                            os.write(writer, many[at : at + 4096])
                        os.write(writer, b"@ a - 0x77\n@ a + 0x")
                        self.shows(screen, b"BAD FREE at 0x77 ", seen)
                        self.shows(screen, b"40020\r", seen)
                        os.write(writer, b"10 1\n")
                    os.close(writer)
                    os.close(second)
                    self.shows(screen, b"Done", seen)
                    self.assertEqual(process.wait(GUARD), 0)
                finally:
                    process.kill()
                    process.wait()
                    os.close(screen)

    def test_a_stalled_pipe_with_a_compressed_log(self):
        """All that has come is on the screen, however it was compressed."""
        fifo = self.folder / "compressed"
        os.mkfifo(fifo)
        writer = os.open(fifo, os.O_RDWR)
        screen, terminal = pty.openpty()
        process = subprocess.Popen([*tool.command, "--quiet", "mtrace", fifo], stdin=subprocess.DEVNULL, stdout=terminal,
                                   stderr=terminal, env=tool.environment())
        os.close(terminal)
        seen = bytearray()
        try:
            state = zlib.compressobj(1, zlib.DEFLATED, 31)
            for i in range(1, 4):
                # More than a batch, the second time.
                text = b"@ a - 0x%x\n" % i + b"@ a + 0x1000 1\n@ a - 0x1000\n" * (10_000 * (i - 1))
                data = state.compress(text) + state.flush(zlib.Z_SYNC_FLUSH)
                for piece in (data[:1], data[1:2], data[2:]):
                    os.write(writer, piece)
                self.shows(screen, b"BAD FREE at 0x%x " % i, seen)
            os.write(writer, state.flush())
            os.close(writer)
            self.shows(screen, b"Done", seen)
            self.assertNotIn(b"Cannot read", seen)
            self.assertEqual(process.wait(GUARD), 0)
        finally:
            process.kill()
            process.wait()
            os.close(screen)

    def test_distinct_callers(self):
        """The memory for callers depends on the live blocks, not on the length of the log."""
        count = 10_000_000 if options.full else 1_000_000 if not options.instrumented else 200_000

        def feed(stream):
            for begin in range(0, count, 10_000):
                stream.write(
                    b"".join(
                        b"@ /usr/lib/x86_64-linux-gnu/libapp.so.1:[0x%08x] + 0x1000 0x40\n@ a - 0x1000\n" % i
                        for i in range(begin, begin + 10_000)
                    )
                )
            stream.write(b"@ last + 0x1000 0x40\n")

        run = Run(["mtrace", "/dev/stdin"], feed, 64 * MIB)
        self.assertEqual(run.code, 0)
        self.assertEqual(
            run.out,
            b"LEAK at 0x1000 size 64 type 0 caller [last] type_name [] file [] line 0\n"
            b"Leaked 1 objects totalling 64 bytes\nDone\n",
        )

    def test_distinct_files_and_types(self):
        """The same if all records of the allocation log belong to one allocation, or to huge blocks."""
        count = 400_000 if not options.instrumented else 100_000
        huge = b"".join(b"A 2000 1 3 /a/long/path/of/a/file/%08d.cpp 1\nF 2000 3\n" % i for i in range(count))
        own = b"".join(b"T 1000 app::module::Type%08d\nA 1000 8 0 /a/long/path/%08d.cpp 7\n" % (i, i) for i in range(count))
        self.log.write_bytes(b"@ app + 0x1000 8\n")
        for memcheck in (huge + own, own + huge):
            run = Run(["mtrace", self.log, "/dev/stdin"], lambda stream: stream.write(memcheck), 64 * MIB)
            self.assertEqual(run.code, 0)
            self.assertEqual(
                run.out,
                b"LEAK at 0x1000 size 8 type 0 caller [app] type_name [app::module::Type%08d]"
                b" file [/a/long/path/%08d.cpp] line 7\nLeaked 1 objects totalling 8 bytes\nDone\n"
                % (count - 1, count - 1),
            )
    
    def test_live_blocks_keep_their_callers(self):
        """Dropping unused callers does not affect those of live blocks and of waiting records."""
        count = 300_000
        mtrace = self.folder / "mtrace"
        memcheck = self.folder / "memcheck"
        with open(mtrace, "wb") as stream:
            for i in range(count):
                stream.write(b"@ caller/with/a/long/name/%08d + 0x%x 1\n" % (i, 0x1000 + i % 977 * 64))
                if i % 977 > 500 and i > 977:
                    stream.write(b"@ x - 0x%x\n" % (0x1000 + i % 977 * 64))
        waiting = b"".join(b"A %x 7 0 waiting/%d 3\nT %x Waiting%d\n" % (i << 40, i, i << 40, i) for i in range(1, 400))
        own = b"".join(b"A %x 9 0 own/file%d %d\n" % (0x1000 + i % 977 * 64, i, i) for i in range(20_000))
        memcheck.write_bytes(waiting + own)
        expected = replay.replay("mtrace", mtrace, memcheck)
        self.require_output(Run(["mtrace", mtrace, memcheck]), expected)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="Replays logs of every unpleasant kind.")
    under_test.add_options(parser)
    parser.add_argument("--instrumented", action="store_true", help="the tool has a sanitizer in it")
    parser.add_argument("--full", action="store_true", help="sizes for a machine at rest")
    options = parser.parse_args()
    tool = under_test.Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], "-v"])
