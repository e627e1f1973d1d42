#!/usr/bin/env python3
"""Whole runs of qor-heap over small logs.

    run_test.py --heap PROGRAM [--runner PROGRAM]
"""

import argparse
import gzip
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from stacks_writer import StacksWriter

ENVIRONMENT = {key: value for key, value in os.environ.items() if key != "DEBUGINFOD_URLS"} | {"LANGUAGE": "en", "LC_ALL": "C.UTF-8"}
NO_SUCH_FILE = b"/nowhere/app"  # so that a test does not depend on the symbols of a real one

LOG = b"""= Start
@ /nowhere/app:[0x11] + 0x1000 0x64
@ /nowhere/app:[0x22] + 0x2000 0xc8
@ /nowhere/app:[0x22] - 0x2000
@ /nowhere/app:[0x22] + 0x3000 0x12c
@ /nowhere/app:[0x33] - 0x4000
"""
MEMCHECK = b"# allocation log\nA 1000 100 1 src/widget 7\nT 1000 Widget\nA 3000 300 0 src/table 9\n"


class HeapRuns(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def file(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return str(path)

    def run_heap(self, *words, code=0, stdin=subprocess.DEVNULL, **more):
        result = subprocess.run([*PROGRAM, *map(str, words)], env=ENVIRONMENT, stdin=stdin, capture_output=True, timeout=120,
                                **more)
        self.out, self.err = (text.decode("utf-8", "backslashreplace").replace("\r\n", "\n")
                              for text in (result.stdout, result.stderr))
        self.assertEqual(result.returncode, code, self.out + self.err)
        return self.out

    # The table of places: {first line of the place: (bytes, blocks)}.
    def places(self, *words, command="sites", **more):
        self.run_heap(command, "--no-symbols", *words, **more)
        rows = re.findall(r"^ *(\d+) +(?:[\d.]+%|-) +(\d+) +(?:(?:once|growing|-) +)?(\S.*)$", self.out, re.M)
        return {place: (int(size), int(blocks)) for size, blocks, place in rows}

    def stacks(self, name, pid, parent, allocations, inherited=0, start=0):
        """A recording in which allocations are (address, size, frames); the log's and the file's of stacks paths."""
        writer = StacksWriter(pid=pid, parent=parent, start=start, path=NO_SUCH_FILE)
        module = writer.module(0x400000, 0x400000, 0x500000, NO_SUCH_FILE, b"\x12\x34")
        if inherited:
            writer.inherited(inherited)
        lines = b"= Start\n"
        for number, (address, size, frames) in enumerate(allocations, 1):
            writer.time(number * 10**9)
            writer.stack([(module, frame) for frame in frames])
            lines += b"@ /nowhere/app:[0x%x] + 0x%x 0x%x\n" % (frames[0], address, size)
        return self.file(name, lines), self.file(name.replace("mtrace", "stacks"), bytes(writer.data))


class Runs(HeapRuns):
    def test_sites(self):
        log = self.file("app.mtrace", LOG)
        self.assertEqual(self.places(log), {"app+0x22": (300, 1), "app+0x11": (100, 1)})
        self.assertIn("Records: 5; allocations: 3 (600 bytes), of them temporary: 1\n", self.out)
        self.assertIn("Peak: 400 bytes (blocks: 2), at record 4\n", self.out)
        self.assertIn("Live at the end: 400 bytes (blocks: 2, places: 2)\n", self.out)
        self.assertIn("Releases of what was not allocated: 1\n  0x4000 at record 5 by /nowhere/app:[0x33]\n", self.out)
        self.assertEqual(self.err, "")
        self.assertEqual(self.places(log, "--peak"), {"app+0x22": (300, 1), "app+0x11": (100, 1)})
        self.assertEqual(self.places(log, "--allocations"), {"app+0x22": (500, 2), "app+0x11": (100, 1)})
        self.assertEqual(self.places(log, "--temporary"), {"app+0x22": (200, 1)})
        self.assertEqual(self.places("--at", "2", log), {"app+0x22": (200, 1), "app+0x11": (100, 1)})
        self.assertEqual(self.places("--at=0", log), {})
        self.assertEqual(self.places("--limit", "1", log), {"app+0x22": (300, 1)})
        self.assertIn("... and more places: 1, with 100 bytes (blocks: 1)\n", self.out)

    def test_an_allocation_log_alone_and_joined(self):
        log, memcheck = self.file("app.mtrace", LOG), self.file("app.memcheck", MEMCHECK)
        self.assertEqual(self.places(memcheck), {"src/table src/table:9": (300, 1), "src/widget src/widget:7 [Widget]": (100, 1)})
        for words in ((log, memcheck), (memcheck, log)):
            self.assertEqual(self.places(*words), {"app+0x22 src/table:9": (300, 1), "app+0x11 src/widget:7 [Widget]": (100, 1)})
        # Another name of the only log.
        self.assertEqual(self.places(log, self.file("other", MEMCHECK))["app+0x11 src/widget:7 [Widget]"], (100, 1))

    def test_stacks_beside_the_log(self):
        log, stacks = self.stacks("app.mtrace", 5, 1, [(16, 8, (0x10, 0x20)), (32, 8, (0x10, 0x30)), (48, 1, (0x10, 0x20))])
        self.run_heap("sites", "--no-symbols", log)
        self.assertRegex(self.out, r"\n +9  52.9% +2 +-  app[+]0x10\n +app[+]0x20\n")
        self.assertIn("Peak: 17 bytes (blocks: 3), at record 3, after 3.000 s\n", self.out)
        self.run_heap("sites", "--no-symbols", "--frames=1", log, stacks)
        self.assertRegex(self.out, r" app[+]0x10\n +... and more functions: 1\n")
        # Elsewhere they have to be named.
        other = self.file("elsewhere", pathlib.Path(log).read_bytes())
        self.assertEqual(self.places(other), {"app+0x10": (17, 3)})
        self.places(other, stacks)
        self.assertIn("places: 2)", self.out)
        self.run_heap("sites", stacks, code=1)
        self.assertIn("is a file of stacks. Name its log.", self.err)
        # Compressed, one or both.
        for log_name, stacks_name in (("z.mtrace.gz", "z.stacks.gz"), ("y.mtrace.gz", "y.stacks"), ("x.mtrace", "x.stacks.gz")):
            for name, content in ((log_name, log), (stacks_name, stacks)):
                data = pathlib.Path(content).read_bytes()
                self.file(name, gzip.compress(data) if name.endswith(".gz") else data)
            self.places(self.folder / log_name)
            self.assertIn("places: 2)", self.out)

    def test_stacks_that_end_early(self):
        log, stacks = self.stacks("app.mtrace", 5, 1, [(16, 8, (0x10, 0x20)), (32, 8, (0x10, 0x30)), (48, 1, (0x10, 0x20))])
        whole = pathlib.Path(stacks).read_bytes()
        for end, text in ((whole[:-2], "is cut off"), (whole[:-1] + b"\xff\xff\xff\x01", "is damaged"), (whole[:-1] + b"\x00", "is of a newer kind")):
            pathlib.Path(stacks).write_bytes(end)
            self.places(log)
            self.assertIn("Live at the end: 17 bytes (blocks: 3", self.out)
            self.assertIn(text, self.err)
        pathlib.Path(stacks).write_bytes(b"something else")
        self.assertEqual(self.places(log), {"app+0x10": (17, 3)})
        self.assertIn("cannot be read as a file of stacks", self.err)

    def test_a_process_tree_is_added_up(self):
        parent, _ = self.stacks("app.mtrace", 5, 1, [(16, 8, (0x10,)), (32, 8, (0x20,))], start=10**18)
        child, _ = self.stacks("app.mtrace.6", 6, 5, [(16, 8, (0x10,)), (64, 1, (0x10,))], inherited=1, start=10**18 + 5 * 10**8)
        self.assertEqual(self.places(parent), {"app+0x10": (8, 1), "app+0x20": (8, 1)})
        # Alone, the child shows what it inherited; beside its parent, it does not.
        self.assertEqual(self.places(child), {"app+0x10": (9, 2)})
        self.assertIn("Inherited from the parent process: 8 bytes (blocks: 1)\n", self.out)
        self.assertEqual(self.places(parent, child), {"app+0x10": (9, 2), "app+0x20": (8, 1)})
        self.assertIn("Records: 3; allocations: 3 (17 bytes)", self.out)
        self.assertIn("Peaks of the processes together: 17 bytes (blocks: 3)\n", self.out)
        # All the files of a recording, as a shell's pattern names them.
        self.assertEqual(self.places(*sorted(self.folder.iterdir())), {"app+0x10": (9, 2), "app+0x20": (8, 1)})
        self.run_heap("timeline", "--no-symbols", parent, child)
        # The child starts half a second later, so its second block comes as the last of three.
        self.assertRegex(self.out, r"0.000 s +1 +8 +1 .*\n *1.000 s +2 +16 +2 .*\n *1.500 s +3 +17 +3 .* peak\n")
        self.run_heap("sites", "--at", 1, parent, child, code=1)
        self.assertIn("'--at' needs the log of one process", self.err)

    def test_pipes_and_standard_input(self):
        for log in (LOG, gzip.compress(LOG)):
            result = subprocess.run([*PROGRAM, "sites", "--no-symbols", "-"], input=log, env=ENVIRONMENT, capture_output=True)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn(b"Live at the end: 400 bytes (blocks: 2", result.stdout)
            self.assertEqual(result.stderr, b"")
        result = subprocess.run([*PROGRAM, "sites", "-"], input=MEMCHECK, env=ENVIRONMENT, capture_output=True)
        self.assertIn(b"src/table:9", result.stdout)

    def test_foreign_files_are_refused(self):
        for content, text in ((b"hello\nworld\n", "some other text"), (b"\x7fELF\x02\x01", "an ELF file"),
                              (b"<!DOCTYPE html>\n", "an HTML page"), (b"BZh91AY", "bzip2"), (bytes(range(256)), "binary data"),
                              (b"\n\n", "nothing but blank lines"), (bytes(100), "nothing but zero bytes")):
            self.run_heap("sites", self.file("foreign", content), code=1)
            self.assertEqual(self.out, "")
            self.assertIn("is neither an mtrace log nor an allocation log. It looks like ", self.err)
            self.assertIn(text, self.err)
        self.run_heap("sites", self.file("empty", b""), code=1)
        self.assertIn("is empty", self.err)
        self.run_heap("sites", self.folder / "missing", code=1)
        self.assertIn("missing", self.err)
        self.run_heap("sites", self.folder, code=1)

    def test_a_log_that_is_cut_off(self):
        path = self.file("log.mtrace.gz", gzip.compress(LOG)[:-12])
        self.run_heap("sites", "--no-symbols", path)
        self.assertIn("The report covers only what was read before that.", self.err)
        path = self.file("odd.mtrace", LOG + b"@ app\n")
        self.run_heap("sites", "--no-symbols", path)
        self.assertIn("has 1 lines that are no good records", self.err)

    def test_exit_codes_for_ci(self):
        log = self.file("app.mtrace", LOG)
        good = self.file("good.mtrace", b"@ a:[0x1] + 0x10 0x64\n@ a:[0x1] - 0x10\n")
        for words, code in ((("--fail-on", "0"), 3), (("--fail-on", "399"), 3), (("--fail-on", "400"), 0), (("--fail-on=1k",), 0),
                            (("--fail-on-bad-free",), 4), (("--fail-on-bad-free", "--fail-on", "0"), 4)):
            self.run_heap("sites", "--no-symbols", *words, log, code=code)
            self.run_heap("sites", "--no-symbols", *words, good)
        self.run_heap("sites", "--no-symbols", "--peak", "--fail-on", "99", good, code=3)

    def test_wrong_command_lines(self):
        log = self.file("app.mtrace", LOG)
        for words, code, text in (((), 10, "No command"), (("walk", log), 13, "Unknown command 'walk'"),
                                  (("sites",), 1, "sites LOG"), (("diff", log), 1, "diff OLD NEW"),
                                  (("top", log, log), 1, "top LOG"), (("sites", "--wrong", log), 2, "'--wrong'"),
                                  (("sites", "--peak=1", log), 2, "'--peak=1'"), (("sites", log, "--limit"), 2, "needs a value"),
                                  (("sites", log, "--limit", "x"), 2, "'x' is no value for --limit"),
                                  (("sites", log, "--fail-on", "1T"), 2, "'1T'"),
                                  (("sites", log, "--fail-on", "99999999999999G"), 2, "'99999999999999G'"),
                                  (("export", log, "--format", "x"), 2, "'x'"), (("export", log), 1, "--format"),
                                  (("export", log, "--label", "x"), 2, "'x'")):
            self.run_heap(*words, code=code)
            self.assertIn(text, self.err)
            self.assertEqual(self.out, "")
        self.assertIn("--fail-on-bad-free", self.run_heap("--help"))
        self.assertEqual(self.err, "")

    def test_suppressions(self):
        log = self.file("app.mtrace", LOG + b"@ /usr/lib/libstdc++.so.6:[0x1] + 0x9000 0x11c00\n@ /lib64/ld-linux-x86-64.so.2:[0x1] + 0x9800 0x5\n")
        self.assertNotIn("libstdc++.so.6+0x1", self.places(log))
        self.assertIn("Suppressed: 72709 bytes (blocks: 2, places: 2)\n", self.out)
        self.assertIn("libstdc++.so.6+0x1", self.places(log, "--no-suppressions"))
        self.assertIn("libstdc++.so.6+0x1", self.places(log, "--peak"))
        rules = self.file("rules", b"# ours\nobject */app function app+0x2* # all of it\n")
        self.assertEqual(self.places(log, "--suppressions", rules), {"app+0x11": (100, 1)})
        self.run_heap("sites", log, "--suppressions", rules, "--fail-on", "100", "--no-symbols")
        self.run_heap("sites", log, "--suppressions", rules, "--fail-on", "99", "--no-symbols", code=3)
        listed = self.run_heap("--list-suppressions")
        self.assertIn("libstdc++", listed)
        # The list is such a file itself.
        both = self.file("listed", listed.encode())
        self.assertNotIn("libstdc++.so.6+0x1", self.places(log, "--no-suppressions", "--suppressions", both))
        for bad in (b"object\n", b"\nsize x\n", b"colour red\n", b"innermost\n"):
            self.run_heap("sites", log, "--suppressions", self.file("bad", bad), code=1)
            self.assertIn("see line 2" if bad[:1] == b"\n" else "see line 1", self.err)

    def test_growing(self):
        lines, live = [b"@ a:[0x1] + 0x10 0x400"], 0
        for i in range(1, 400):
            lines.append(b"@ a:[0x2] + 0x%x 0x8" % (i * 4096))
            lines.append(b"@ a:[0x3] + 0x20 0x10")
            lines.append(b"@ a:[0x3] - 0x20")
        lines.append(b"@ a:[0x3] + 0x20 0x10")
        log = self.file("log.mtrace", b"\n".join(lines) + b"\n")
        self.assertEqual(self.places(log), {"a+0x2": (399 * 8, 399), "a+0x1": (1024, 1), "a+0x3": (16, 1)})
        for course, place in (("growing", "a[+]0x2"), ("once", "a[+]0x1")):
            self.assertRegex(self.out, f" {course}  {place}\n")
        self.assertEqual(self.places(log, "--growing"), {"a+0x2": (399 * 8, 399)})
        self.run_heap("sites", log, "--growing", "--fail-on", 399 * 8, "--no-symbols")

    def test_diff(self):
        old = self.file("old.mtrace", b"@ /b/app:[0x1] + 0x10 0x8\n@ /b/app:[0x2] + 0x20 0x10\n@ /b/app:[0x3] + 0x30 0x20\n@ /b/app:[0x5] + 0x50 0x1\n")
        new = self.file("new.mtrace", b"@ /c/app:[0x1] + 0x910 0x18\n@ /c/app:[0x2] + 0x20 0x8\n@ /c/app:[0x4] + 0x30 0x40\n@ /c/app:[0x5] + 0x50 0x1\n")
        self.run_heap("diff", "--no-symbols", old, new)
        self.assertEqual(re.sub(" +", " ", self.out), """57 bytes before, 97 now: +40 bytes (blocks: +0)

Grown: +16 bytes (places: 1)
change bytes change blocks place
 +16 24 +0 1 app+0x1

New: +64 bytes (places: 1)
change bytes change blocks place
 +64 64 +1 1 app+0x4

Shrunk: -8 bytes (places: 1)
change bytes change blocks place
 -8 8 +0 1 app+0x2

Gone: -32 bytes (places: 1)
change bytes change blocks place
 -32 0 -1 0 app+0x3
""")

    def test_tree(self):
        log, _ = self.stacks("app.mtrace", 5, 1, [(16, 900, (0x10, 0x20, 0x30)), (32, 95, (0x11, 0x20, 0x30)), (48, 5, (0x12, 0x40, 0x30))])
        rows = [re.sub("^ *", "", line) for line in self.run_heap("tree", "--no-symbols", log).splitlines()]
        self.assertEqual(rows, ["bytes   share  blocks  function", "1000  100.0%       3  app+0x30", "995   99.5%       2    app+0x20",
                                "900   90.0%       1      app+0x10", "95    9.5%       1      app+0x11",
                                "Branches with less than 1% of the bytes are not shown: 1; '--limit 0' shows them."])
        rows = self.run_heap("tree", "--no-symbols", "--bottom-up", "--limit", 0, log)
        self.assertEqual(re.findall("app.*", rows), ["app+0x10", "app+0x20", "app+0x30", "app+0x11", "app+0x20", "app+0x30", "app+0x12", "app+0x40", "app+0x30"])

    def test_timeline(self):
        self.run_heap("timeline", "--no-symbols", self.file("app.mtrace", LOG))
        self.assertIn("     4    400       2  ######################################## peak\n", self.out)
        self.assertIn("     3    100       1  ##########\n", self.out)
        self.assertIn("Live at the peak: 400 bytes (blocks: 2, places: 2)\n", self.out)

    def test_anonymise(self):
        log, _ = self.stacks("app.mtrace", 5, 1, [(16, 8, (0x10,))])
        memcheck = self.file("x.memcheck", b"A 10 8 0 /home/quincy/src/widget 7\n")
        for command in (["sites"], ["tree"], ["timeline"], ["page"], *(["export", "--format", each] for each in ("json", "csv", "folded"))):
            for word in ("--anonymise", "--anonymize"):
                self.run_heap(*command, word, "--no-symbols", log, memcheck)
                for name in ("nowhere", "quincy", str(self.folder)):
                    self.assertNotIn(name, self.out + self.err, command)

    def test_names_cannot_control_a_terminal(self):
        log = self.file("log.mtrace", b"@ /x/\x1b[31mred:[0x1] + 0x10 0x8\n@ a\xff\xe2\x80\xae:[0x2] + 0x20 0x8\n@ y + 0x30 0x8\n")
        for command in (["sites"], ["tree"], ["timeline"], ["diff", log]):
            self.run_heap(*command, "--no-symbols", log)
            self.assertNotIn("\x1b", self.out)
            self.assertNotIn("\u202e", self.out)

    def test_pages_and_exports(self):
        log = self.file("app.mtrace", LOG)
        page = self.folder / "page.html"
        self.run_heap("page", log, "-o", page, "--compare", log, "--no-symbols")
        self.assertEqual(self.out, "")
        self.assertTrue(page.read_bytes().startswith(b"<!"))
        self.assertEqual(self.run_heap("export", "--format=folded", log, "--no-symbols"), "app+0x11 100\napp+0x22 300\n")
        self.run_heap("export", "--format=pprof", log, "--label", "host=a", "-o", self.folder / "profile.gz", "--no-symbols")
        self.assertIn(b"host", gzip.decompress((self.folder / "profile.gz").read_bytes()))
        self.run_heap("page", log, "-o", self.folder, code=1)
        self.assertIn("cannot be written", self.err)


@unittest.skipUnless(os.name == "posix", "pipes, signals and terminals of POSIX")
class PosixRuns(HeapRuns):
    def start(self, *words, **more):
        return subprocess.Popen([*PROGRAM, *map(str, words)], env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)

    def test_an_interrupt_shows_what_is_known(self):
        for many in (1, 60000):  # before and after the reading of a long log begins
            process = self.start("sites", "--no-symbols", "-", stdin=subprocess.PIPE)
            process.stdin.write(LOG * many)
            process.stdin.flush()
            time.sleep(1)
            process.send_signal(signal.SIGINT)
            out, err = process.stdout.read(), process.stderr.read()
            self.assertEqual(process.wait(120), 130)
            self.assertIn(b"Live at the end: ", out)
            self.assertIn(b"Interrupted: the figures cover only what was read.", err)
            process.stdin.close()
            process.stdout.close()
            process.stderr.close()

    def test_top_follows(self):
        log = self.folder / "app.mtrace"
        log.write_bytes(LOG[:60])
        process = self.start("top", "--no-symbols", "--count", 3, log)
        time.sleep(1.5)
        with open(log, "ab") as more:
            more.write(LOG[60:])
        out, err = process.communicate(timeout=120)
        self.assertEqual((process.returncode, err), (0, b""))
        tables = out.decode().split("\n\n\n")
        self.assertIn("Records: 5", out.decode())
        self.assertIn("live: 400 B (blocks: 2); peak: 400 B", out.decode())
        self.assertIn("app+0x22", out.decode())
        self.assertEqual(len(re.findall("Records", out.decode())), 3, tables)

    # The runner's system numbers its processes on its own; running_test.cpp is the test there.
    @unittest.skipIf("--runner" in sys.argv, "the process of another system")
    def test_top_ends_with_the_recorded_process(self):
        recorded = subprocess.Popen(["sleep", "1000"])
        try:
            log, _ = self.stacks("app.mtrace", recorded.pid, 1, [(0x1000, 5, [0x10])])
            process = self.start("top", "--no-symbols", log)
            with self.assertRaises(subprocess.TimeoutExpired):
                process.communicate(timeout=6)
        finally:
            recorded.kill()
            recorded.wait()
        out, err = process.communicate(timeout=120)
        self.assertEqual((process.returncode, err), (0, b""))
        self.assertIn(b"live: 5 B (blocks: 1)", out)

    def test_top_ends_at_an_interrupt(self):
        process = self.start("top", "--no-symbols", self.file("app.mtrace", LOG))
        time.sleep(1.5)
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=120)
        self.assertEqual((process.returncode, err), (0, b""))
        self.assertIn(b"live: 400 B (blocks: 2)", out)

    def test_progress_on_a_terminal(self):
        import pty
        big = self.file("big.mtrace.gz", gzip.compress(LOG * 1_500_000, 1))
        outer, inner = pty.openpty()
        shown = bytearray()

        def read_terminal():  # all the time, because the program waits when the terminal is full
            try:
                while part := os.read(outer, 65536):
                    shown.extend(part)
            except OSError:
                pass

        reader = threading.Thread(target=read_terminal, daemon=True)  # a failed test must not wait for it
        reader.start()
        process = subprocess.Popen([*PROGRAM, "sites", "--no-symbols", big], env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=inner)
        os.close(inner)
        out, _ = process.communicate(timeout=600)
        self.assertEqual(process.returncode, 0)
        reader.join()
        os.close(outer)
        self.assertIn(b"Live at the end", out)
        self.assertRegex(shown.decode(), r"big\.mtrace\.gz: \d+%, [\d.]+ million records a second, \d+ s left")
        self.run_heap("sites", "--no-symbols", big)
        self.assertNotIn("million", self.err)

    def test_a_fifo(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        process = self.start("sites", "--no-symbols", fifo)
        fifo.write_bytes(LOG)
        out, _ = process.communicate(timeout=120)
        self.assertIn(b"Live at the end: 400 bytes", out)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--heap", required=True)
    parser.add_argument("--runner")
    arguments, rest = parser.parse_known_args()
    PROGRAM = [*([arguments.runner] if arguments.runner else []), arguments.heap]
    sys.argv[1:] = rest
    unittest.main()
