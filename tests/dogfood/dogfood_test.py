#!/usr/bin/env python3
"""Runs every action of qortool and the test programs under the framework's own allocation log.

    dogfood_test.py --tool QORTOOL --samples FOLDER [--program PROGRAM [WORDS...]]...

Their logs must show exactly the findings that intended.txt lists. Words are separated by "|". Programs that the test
programs start get a clean environment and write no log, because their leaks are part of tests.
"""

import argparse
import collections
import os
import pathlib
import re
import subprocess
import sys
import tempfile

INTENDED = pathlib.Path(__file__).resolve().parent / "intended.txt"
LEAK = re.compile(r"LEAK at 0x[0-9a-f]+ size (\d+) type \d+ caller \[\] type_name \[(.*)\] file \[(.*)\] line \d+")
TIMEOUT_SECONDS = 800
# Actions that take minutes run with QOR_TEST_WHOLE only.
LONG = {"simd-test"}


def action_words(samples):
    """The arguments for actions; an action that is not listed runs without arguments."""
    return {
        "sysinfo": [["--developer"]],
        "pwcrypt": [["secret"]],
        "ttyinfo": [["/dev/null"], ["no such port"]],
        "md5sum": [[__file__], ["/nowhere"]],
        "lookup": [["localhost"], ["no such host"]],
        "userinfo": [["root"], ["no such user"]],
        "timer-check": [["it never ends by itself"]],
        "dow": [["29/2/2024"], ["30/2/2024"]],
        "debug-control": [["localhost", "1"]],
        "mtrace": [[samples / "demo.mtrace", samples / "demo.memcheck"], ["/nowhere"]],
        "memcheck": [[samples / "demo.memcheck"], ["/nowhere"]],
        "logon": [["no such user", "secret"]],
    }


def actions(tool):
    """Returns the actions that `help` lists."""
    text = subprocess.run([tool, "--quiet", "help"], capture_output=True, text=True, env={"LC_ALL": "C"}).stderr
    listed = text.split("\n\n")[2]
    return re.findall(r"^  (\S+)", listed, re.M)


def findings(tool, log):
    report = subprocess.run([tool, "--quiet", "memcheck", log], capture_output=True, text=True)
    if report.returncode != 0 or "WARNING" in report.stderr:
        sys.exit(f"{log} cannot be replayed: {report.stderr}")
    found = collections.Counter()
    for line in report.stdout.splitlines():
        if leak := LEAK.fullmatch(line):
            size, type_name, file = leak.groups()
            found[f"{file} type {type_name or f'- {size} bytes'}"] += 1
        elif line.startswith("BAD FREE"):
            found["bad free"] += 1
        elif line.startswith("LEAK"):
            sys.exit(f"not understood: {line}")
    return found


def intended():
    rows = [line.split(" | ") for line in INTENDED.read_text().splitlines() if line and not line.startswith("#")]
    listed = collections.defaultdict(collections.Counter)
    for program, count, what, why in rows:
        assert why, what
        listed[program][what] += int(count)
    return listed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", type=pathlib.Path, required=True)
    parser.add_argument("--samples", type=pathlib.Path, required=True)
    parser.add_argument("--program", action="append", default=[])
    options = parser.parse_args()
    tool = options.tool.resolve()

    runs = []
    words = action_words(options.samples.resolve())
    for action in actions(tool):
        if action in LONG and "QOR_TEST_WHOLE" not in os.environ:
            print(f"{action} runs with QOR_TEST_WHOLE only")
            continue
        runs += [(f"qortool {action}", [tool, "--quiet", action, *some]) for some in words.get(action, [[]])]
    assert len(runs) >= 17, runs
    for program in options.program:
        command = program.split("|")
        runs.append((pathlib.Path(command[0]).stem, command))

    listed = intended()
    failed = 0
    for name, command in runs:
        with tempfile.TemporaryDirectory() as folder:
            log = pathlib.Path(folder) / "log"
            environment = {**os.environ, "LC_ALL": "C", "QOR_MEMCHECK": str(log)}
            done = subprocess.run(list(map(str, command)), env=environment, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=TIMEOUT_SECONDS)
            logs = sorted(pathlib.Path(folder).iterdir())
            found = sum((findings(tool, each) for each in logs), collections.Counter())
        is_good = found == listed[name] and logs and (name.startswith("qortool ") or done.returncode == 0)
        failed += not is_good
        print(f"{'ok' if is_good else 'FAULT'}: {name}: {len(logs)} logs, code {done.returncode}")
        if not is_good:
            print(f"  found    {dict(found)}\n  intended {dict(listed[name])}")
            print(done.stdout.decode(errors="replace")[-2000:])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
