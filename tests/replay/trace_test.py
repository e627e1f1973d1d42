#!/usr/bin/env python3
"""Checks the whole trace of a replay, scope by scope and line by line.

usage: trace_test.py --tool PATH [--runner PROGRAM] [--update]

Each file in traces/ is the trace of one run, without time and process: `SAMPLE.trace` for the joined logs
samples/SAMPLE.*, `NAME.ACTION.trace` for the logs in corpus/NAME. --update rewrites the files: check the difference
before you commit it, because users filter traces by these lines.
"""

import argparse
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

TRACES = HERE / "traces"
SAMPLES = HERE.parent.parent / "samples"
LOGS = {"mtrace": ["mtrace"], "memcheck": ["memcheck"], "joined": ["mtrace", "memcheck"]}


def words_of(name):
    """Returns the words of the traced run."""
    logs, _, action = name.partition(".")
    if not action:
        return ["mtrace", SAMPLES / f"{logs}.mtrace", SAMPLES / f"{logs}.memcheck"]
    return [LOGS[action][0], *(HERE / "corpus" / logs / log for log in LOGS[action])]


def trace_of(words):
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / "trace"
        subprocess.run([*tool.command, "--qor-debug=system.util.qortool,qortool.*", f"--qor-debug-file={file}",
                        *map(str, words)], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, check=True,
                       env=tool.environment(), timeout=300)
        lines = file.read_text(encoding="utf-8").splitlines()
    return "".join(line.split(" ", 2)[2] + "\n" for line in lines)


class Traces(unittest.TestCase):
    maxDiff = 4000

    def test_every_line(self):
        files = sorted(TRACES.glob("*.trace"))
        self.assertGreaterEqual(len(files), 10)
        for file in files:
            with self.subTest(file.stem):
                found = trace_of(words_of(file.stem))
                if options.update:
                    file.write_text(found, encoding="utf-8")
                self.assertEqual(found.splitlines(), file.read_text(encoding="utf-8").splitlines())


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_options(parser)
    parser.add_argument("--update", action="store_true", help="write the files anew")
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
