#!/usr/bin/env python3
"""Both streams of a replay in one place, a file or a terminal: lines appear in the order in which they were written.

usage: one_place_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import os
import pty
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

# Findings between warnings and counters, so that any other order is visible.
LOG = b"".join([
    b"@ first\n",
    b"@ a - 0x1000\n",
    b"@ a x 0x2000 5\n",
    *(b"@ a + 0x%x 1\n@ a - 0x%x\n" % (0x100000 + i, 0x100000 + i) for i in range(10)),
    b"@ a - 0x3000\n",
])
EXPECTED = b"".join([
    b"Processing mtrace file...\n",
    b"WARNING Invalid line in mtrace() file\n",
    b"BAD FREE at 0x1000 (not allocated)\n",
    b"WARNING Bad code token [x]\n",
    b"20\r",
    b"BAD FREE at 0x3000 (not allocated)\n",
    b"\n",
    b"Scanning data...\n",
    b"LEAK at 0x2000 size 5 type 0 caller [a] type_name [] file [] line 0\n",
    b"Leaked 1 objects totalling 5 bytes\n",
    b"Done\n",
])


class OnePlace(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "log").write_bytes(LOG)

    def test_a_log_of_another_kind(self):
        if tool.for_windows:
            self.skipTest("a redirection of ours would be two files to a Windows program")
        (self.folder / "log").write_bytes(b"no log\n")
        with open(self.folder / "out", "wb") as out:
            self.run_tool(out)
        self.assertEqual((self.folder / "out").read_bytes(),
                         b"Processing mtrace file...\n\nScanning data...\nNo leaks found\n"
                         b"'log' is not an mtrace log. It looks like some other text.\nDone\n")

    def run_tool(self, place):
        code = subprocess.run([*tool.command, "--quiet", "mtrace", "log"], cwd=self.folder, stdin=subprocess.DEVNULL,
                              stdout=place, stderr=place, timeout=120).returncode
        self.assertEqual(code, 0)

    def test_a_file(self):
        if tool.for_windows:
            self.run_in_its_shell()
        else:
            with open(self.folder / "out", "wb") as out:
                self.run_tool(out)
        self.assertEqual(tool.printed((self.folder / "out").read_bytes()), EXPECTED)

    def run_in_its_shell(self):
        """A redirection made here would be two files to a Windows program; its own shell makes it one."""
        *runner, program = tool.command
        command = f"{program} --quiet mtrace log >out 2>&1".replace("/", "\\")
        code = subprocess.run([*runner, "cmd", "/c", command], cwd=self.folder, stdin=subprocess.DEVNULL,
                              timeout=120).returncode
        self.assertEqual(code, 0)

    def test_a_terminal(self):
        if tool.for_windows:
            self.skipTest("a console shows what its screen holds, not what was written")
        ours, its = pty.openpty()
        self.run_tool(its)
        os.close(its)
        seen = b""
        try:
            while part := os.read(ours, 65536):
                seen += part
        except OSError:  # the other side is closed
            pass
        os.close(ours)
        self.assertEqual(seen, EXPECTED.replace(b"\n", b"\r\n"))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_options(parser)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
