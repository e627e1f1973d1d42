#!/usr/bin/env python3
"""Compares qortool with the C library's own `mtrace` script on recorded logs.

    against_mtrace_script.py --tool PATH [--runner PROGRAM] LOG...

Both must report the same leaked blocks, each with its address and size, and the same bad frees: in the whole log, and
in its second half, which is like a recording that began late and so has many bad frees.

The two programs interpret two kinds of line differently, so these are not compared:

* Lines that do not have the form `@ CALLER CODE 0xADDRESS [0xSIZE]` with one of the codes + - < >. The script skips
  them or reads them in its own way; qortool warns, skips them, or interprets them as well as it can:
  - `= Start` and `= End`, which both skip;
  - `@ CALLER ! 0xADDRESS 0xSIZE`, a failed reallocation that left its block unchanged: the script
    ignores it, qortool warns of a bad code and interprets it by the size;
  - `+ (nil) 0xSIZE`, a failed allocation: the script ignores it, qortool cannot hold address 0;
  - lines without `@`, of an old format without callers: the script reads them, qortool does not;
  - callers with a blank in their path, which shift the words;
  - address 0, which means a blank slot in qortool, and addresses that are not spelled as the C library
    spells them, because the script distinguishes blocks by the spelling.
* An allocation of a block that is still live (`duplicate` in the script's words). The script drops the
  line; qortool keeps two blocks, because two threads may have written their lines out of order. The
  script reports the number of such a line, which is then removed from qortool's input.

The number of removed lines is printed. Sizes are compared in 32 bits, as qortool stores them.
"""

import argparse
import collections
import pathlib
import re
import subprocess
import sys
import tempfile

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
import tool as under_test  # noqa: E402  # in tests/support

COMMON_LINE = re.compile(rb"@ \S+ (?:[+>] 0x[1-9a-f][0-9a-f]* (?:0x[0-9a-f]+|0)|[-<] 0x[1-9a-f][0-9a-f]*)$")

SCRIPT_LEAK = re.compile(rb"^0x([0-9a-f]+) +(?:0x([0-9a-f]+)|0)  at ", re.M)
SCRIPT_BAD_FREE = re.compile(rb"^- 0x([0-9a-f]+) (?:Free|Realloc) \d+ was never alloc'd", re.M)
SCRIPT_DUPLICATE = re.compile(rb"^\+ \S+ (?:Alloc|Realloc) (\d+) duplicate:", re.M)

TOOL_LEAK = re.compile(rb"^LEAK at 0x([0-9a-f]+) size (\d+) ", re.M)
TOOL_BAD_FREE = re.compile(rb"^BAD FREE at 0x([0-9a-f]+) ", re.M)


def run(command, codes):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True)
    if done.returncode not in codes:
        sys.exit(f"{command[0]} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return done.stdout


def addresses(pattern, text):
    return collections.Counter(int(found, 16) for found in pattern.findall(text))


def show(title, counter):
    for item, times in sorted(counter.items())[:10]:
        print(f"  {title}: {item!r} x{times}" if isinstance(item, tuple) else f"  {title}: {item:#x} x{times}")


def compare(tool, title, lines, folder):
    """Returns True if both agree on the lines of one log."""
    common = [line for line in lines if COMMON_LINE.match(line)]
    other = len(lines) - len(common)
    if not common:
        print(f"{title}: no line that both read alike")
        return False

    (folder / "script").write_bytes(b"".join(line + b"\n" for line in common))
    verdict = run(["mtrace", folder / "script"], (0, 1))
    duplicates = {int(number) for number in SCRIPT_DUPLICATE.findall(verdict)}
    kept = [line for number, line in enumerate(common, 1) if number not in duplicates]
    (folder / "tool").write_bytes(b"".join(line + b"\n" for line in kept))
    report = tool.printed(run([*tool.command, "--quiet", "mtrace", folder / "tool"], (0,)))

    leaks = collections.Counter(
        (int(address, 16), int(size or b"0", 16) & 0xFFFFFFFF) for address, size in SCRIPT_LEAK.findall(verdict)
    )
    tool_leaks = collections.Counter((int(address, 16), int(size)) for address, size in TOOL_LEAK.findall(report))
    bad_frees = addresses(SCRIPT_BAD_FREE, verdict)
    tool_bad_frees = addresses(TOOL_BAD_FREE, report)

    agree = leaks == tool_leaks and bad_frees == tool_bad_frees
    print(
        f"{title}: {'agree' if agree else 'DIFFER'}: {len(common)} lines, {leaks.total()} leaks,"
        f" {bad_frees.total()} bad frees; left out: {other} other lines, {len(duplicates)} duplicates"
    )
    show("leak only in the script's report", leaks - tool_leaks)
    show("leak only in qortool's report", tool_leaks - leaks)
    show("bad free only in the script's report", bad_frees - tool_bad_frees)
    show("bad free only in qortool's report", tool_bad_frees - bad_frees)
    return agree


def main():
    parser = argparse.ArgumentParser(description="Compares qortool with the C library's mtrace script.")
    under_test.add_options(parser)
    parser.add_argument("logs", nargs="+", type=pathlib.Path, metavar="LOG")
    options = parser.parse_args()
    tool = under_test.Tool(options.tool, options.runner)
    results = []
    with tempfile.TemporaryDirectory() as name:
        for log in options.logs:
            lines = log.read_bytes().split(b"\n")[:-1]
            results.append(compare(tool, str(log), lines, pathlib.Path(name)))
            results.append(compare(tool, f"{log}, second half", lines[len(lines) // 2 :], pathlib.Path(name)))
    print(f"{sum(results)} of {len(results)} comparisons agree")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
