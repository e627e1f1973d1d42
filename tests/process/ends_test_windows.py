#!/usr/bin/env python3
"""Ends processes whose threads trace, allocate, log, listen and use timers, in each way in which a process ends, and
expects that none of them hangs, that the operations of the framework still work at the end, and that trace, log and
allocation log consist of whole lines.

    ends_test_windows.py --driver PATH --library PATH --runner WORD

QOR_TEST_WHOLE=1 ends 200 processes.

Wine itself sometimes hangs or fails when it ends the threads of a process, because it has killed one inside of a lock
of its own. The notes of the process say then that none of its libraries has been called yet. Such a process hangs, or
is gone with exit code 0; some are gone before they have begun, several at once. Or Wine names its own source, which
may also come later, when it meets what a killed thread has left. A program that uses no library of ours hangs and
fails in the same way, six times of a hundred on a busy machine. Up to one of ten may end so.
"""

import argparse
import collections
import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

WAYS = ("return", "exit", "thread", "interrupt")
ENDS = 200 if os.environ.get("QOR_TEST_WHOLE") == "1" else 40
AT_ONCE = 6
LIMIT = 60  # seconds, against hanging
LIMIT_BEFORE_END = 20  # for a process that has not begun to call its libraries
CODE = 7
OF_PROGRAM = "the program's exit handlers are done"
STEPS = ["the end", "traced", "allocated", "logged", "a thread that is gone", "a lock that it held", "no new thread",
         "listener closed", "timer cancelled", "server closed", "signals released", "done"]
# Wine ends a process with 0 at Ctrl-C; of Windows' code, 0xc000013a, the system here would keep the last byte.
INTERRUPTED = (0, 0x3a)
LINE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+:\d+ \S.*")
RECORD = re.compile(r"#.*|[AF] [0-9a-f]+ .*|T [0-9a-f]+ \S+")

options = None


def before_libraries(way):
    """The notes of a process that ends in this way, before its libraries are called. Only C's exit calls handlers."""
    return [OF_PROGRAM] if way in ("return", "exit") else []


def notes_of(folder):
    """Returns the steps that a process has noted; None: it has not begun to end."""
    return (folder / "notes").read_text().splitlines() if (folder / "notes").exists() else None


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


class Ends(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)

    def end(self, number):
        """Ends one process. Returns its way, its exit code (None: it hangs) and its folder."""
        way = WAYS[number % len(WAYS)]
        folder = self.root / str(number)
        folder.mkdir()
        files = [windows_path(folder / name) for name in ("trace", "log")]
        command = [options.runner, options.driver, way, str(number * 7 % 160), *files,
                   windows_path(options.library), windows_path(folder / "notes")]
        if way == "interrupt":
            command = [sys.executable, Path(__file__).resolve().parent.parent / "support/in_terminal.py", *command]
        environment = {name: value for name, value in os.environ.items() if not name.startswith("QOR_MEM")}
        if number // len(WAYS) % 2 == 0:
            environment["QOR_MEMCHECK"] = windows_path(folder / "memory")
        with open(folder / "output", "wb") as output:
            process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                       start_new_session=True)
            for limit in (LIMIT_BEFORE_END, LIMIT):
                try:
                    return way, process.wait(limit), folder
                except subprocess.TimeoutExpired:
                    if self.is_of_wine(way, None, folder):
                        break
            os.killpg(process.pid, 9)
            process.wait()
            return way, None, folder

    def is_of_wine(self, way, code, folder):
        """Whether a process hung or was gone before a library was called, or Wine failed and names its own source."""
        if code in (None, 0) and notes_of(folder) in (None, [], before_libraries(way)):
            return True
        return re.search(rb"dlls/ntdll/unix/.* Assertion .* failed", (folder / "output").read_bytes()) is not None

    def check_lines(self, path, pattern):
        """Of a line that a thread was writing when it was ended, a part can be left, which does not count."""
        text = path.read_bytes()
        self.assertTrue(text == b"" or text.endswith(b"\n"), (path.name, text[-200:]))
        lines = text.decode().splitlines()
        odd = [line for line in lines if not pattern.fullmatch(line)]
        self.assertLessEqual(len(odd), 1 if pattern is LINE else 0, (path.name, odd))

    def check(self, way, code, folder):
        output = (folder / "output").read_text(errors="replace")
        self.assertEqual(notes_of(folder), before_libraries(way) + STEPS, (way, code, output))
        self.assertIn(code, INTERRUPTED if way == "interrupt" else (CODE,), output)
        self.assertEqual(output, "")
        files = {file.name for file in folder.iterdir()}
        # The file for the lines of a flood, which a thread was just making.
        for name in [name for name in files if re.fullmatch(r"(trace|log)\.\d+\.rest", name)]:
            self.assertEqual((folder / name).read_bytes().strip(b"\0"), b"", name)
            files.remove(name)
        self.assertEqual(files - {"memory"}, {"trace", "log", "notes", "output"})
        for name in ("trace", "log"):
            self.check_lines(folder / name, LINE)
        self.assertIn(" end.late from the end\n", (folder / "trace").read_text())
        self.assertIn(": from the end\n", (folder / "log").read_text())
        if "memory" in files:
            self.check_lines(folder / "memory", RECORD)

    def test_no_process_hangs(self):
        of_wine = []
        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            for way, code, folder in pool.map(self.end, range(ENDS)):
                if self.is_of_wine(way, code, folder):
                    of_wine.append(way)
                    continue
                with self.subTest(way=way, process=folder.name):
                    self.check(way, code, folder)
        print(f"{ENDS} ends of a process; {len(of_wine)} failed in Wine itself: {dict(collections.Counter(of_wine))}")
        self.assertLessEqual(len(of_wine), max(4, ENDS // 10))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", type=Path, required=True)
    parser.add_argument("--library", type=Path, required=True)
    parser.add_argument("--runner", required=True)
    options = parser.parse_args()
    unittest.main(argv=sys.argv[:1], verbosity=2)
