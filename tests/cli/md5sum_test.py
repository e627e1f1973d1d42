#!/usr/bin/env python3
"""Compares whole runs of `qortool md5sum` with coreutils md5sum, and runs it over files that are not what they seem.

usage: md5sum_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import os
import random
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options, as_nobody, copy_programs, public_folder  # noqa: E402  # in tests/support

GIB = 1 << 30

tool = None


class Md5sum(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def start(self, name, command=None, **more):
        return subprocess.Popen([*(command or tool.command), "--quiet", "md5sum", name], cwd=self.folder, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=tool.environment(), **more)

    def end(self, process):
        """Returns (exit code, standard output, standard error)."""
        out, err = process.communicate(timeout=250)
        return process.returncode, tool.printed(out).decode(), tool.printed(err).decode()

    def check(self, name):
        theirs = subprocess.run(["md5sum", "-b", name], cwd=self.folder, capture_output=True, check=True)
        # For a name with a backslash or a line end, coreutils begins the line with a backslash.
        digest = theirs.stdout.lstrip(b"\\").split()[0].decode().upper()
        self.assertEqual(self.end(self.start(name)), (0, digest + "\n", ""))

    def check_fails(self, name, *lines, **more):
        self.assertEqual(self.end(self.start(name, **more)), (1, "", "".join(line + "\n" for line in lines)))

    # ---- both systems

    def test_sizes_around_the_blocks_of_the_digest_and_of_the_action(self):
        source = random.Random(1)
        for size in [0, 1, *range(55, 66), 119, 120, 127, 128, 65535, 65536, 65537, 131072, 131073]:
            with self.subTest(size=size):
                (self.folder / "file").write_bytes(source.randbytes(size))
                self.check("file")

    def test_real_files(self):
        here = Path(__file__).resolve()
        for path in [here, here.parents[2] / "README.md", tool.path, *tool.path.parent.glob("libqor.*")]:
            with self.subTest(path=path):
                (self.folder / "file").write_bytes(path.read_bytes())
                self.check("file")

    def test_more_than_4_gib(self):
        with (self.folder / "file").open("wb") as file:
            file.write(b"begin")
            file.seek(4 * GIB + 12345)
            file.write(b"end")
        self.check("file")


class Md5sumPosix(Md5sum):
    """Cases that only POSIX has."""

    def test_odd_names(self):
        for name in [b"a\nb", b"\\", b"\xff\xfe", b"%d", b" "]:
            with self.subTest(name=name):
                Path(os.fsdecode(os.path.join(os.fsencode(self.folder), name))).write_bytes(name)
                self.check(os.fsdecode(name))

    def test_a_pipe_that_nobody_writes_to(self):
        os.mkfifo(self.folder / "pipe")
        self.check_fails("pipe", "FAILED to open file pipe",
                         "Cannot open 'pipe': it is a pipe or a device, not a file on a disk.")

    def test_an_unreadable_file(self):
        # Every file is readable to root, and another user may not be able to enter the build's folder.
        folder = public_folder()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "file").write_bytes(b"x")
        (self.folder / "file").chmod(0)
        self.check_fails("file", "FAILED to open file file", "Cannot open 'file': Permission denied.",
                         command=[str(copy_programs(tool.path.parent, self.folder))], **as_nobody())

    def test_a_file_that_is_shorter_than_it_says(self):
        """Like files of sysfs: their size is a page, whatever they contain."""
        path = "/sys/class/net/lo/address"
        content = Path(path).read_bytes()
        self.assertLess(len(content), os.stat(path).st_size)
        self.check_fails(path, f"ERROR reading from fileCannot read '{path}': it ends unexpectedly at "
                               f"byte {len(content)}.")

    def test_a_file_that_shrinks(self):
        """A file so large that it is cut off before it has been read to its end."""
        path = self.folder / "file"
        path.touch()
        os.truncate(path, 256 * GIB)
        process = self.start("file")
        self.addCleanup(process.kill)
        while self.bytes_read(process) < 32 << 20:
            self.assertIsNone(process.poll())
            time.sleep(0.01)
        os.truncate(path, 1 << 20)
        code, out, err = self.end(process)
        self.assertEqual((code, out), (1, ""))
        self.assertRegex(err, r"^ERROR reading from fileCannot read 'file': it ends unexpectedly at byte \d+.\n$")

    def bytes_read(self, process):
        counters = dict(line.split(": ") for line in Path(f"/proc/{process.pid}/io").read_text().splitlines())
        return int(counters["rchar"])


def main():
    global tool
    parser = argparse.ArgumentParser()
    add_options(parser)
    options = parser.parse_args()
    tool = Tool(options.tool, options.runner)
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Md5sum if tool.for_windows else Md5sumPosix)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
