#!/usr/bin/env python3
"""Replays heap logs with qortool, with a near-limit program and with the C library's `mtrace` script.

    replay.py --tool PATH --generator PATH --near-limit PATH [--lines N]... [--recorded LOG]...
              [--rounds R] [--seed S] [--folder DIR] [--brief]

For each length it replays a log with addresses of the real allocator and a fifth as many live blocks at its peak. Then
it replays recorded logs, a long log with few live blocks, and hostile logs. It prints ratios of medians, each beside
its limit. The exit code is 1 if a limit is missed, or if the programs report different numbers of leaks. Seconds are
processor time of all threads, which other work on the machine influences least; the programs run in turn. The speed-up
over the script is in wall-clock time, because that is what a user waits for. The tool reads ahead with a thread, so
this figure needs a machine with an idle second processor. --brief is one round over short logs without limits: it shows
that the bench still works.
"""

import argparse
import os
import pathlib
import random
import re
import statistics
import subprocess
import sys
import tempfile
import time

MIB = 1 << 20
FIXED_BYTES = 16 * MIB
FULL_LINES = [500_000, 5_000_000, 20_000_000]
BRIEF_LINES = [100_000]
FEW_LIVE = 1000
# Records of the allocation log that no allocation asks for: one more than the look-ahead holds.
NEVER_ASKED_FOR = 1025
WARMING_SECONDS = 4


class Bench:
    def __init__(self, options, folder):
        self.tool = [str(options.tool.resolve()), "--quiet"]
        self.near_limit = str(options.near_limit.resolve())
        self.generator = options.generator.resolve()
        self.seed = options.seed
        self.brief = options.brief
        self.rounds = 1 if options.brief else options.rounds
        self.folder = folder
        self.misses = 0

    def measure(self, command, out=os.devnull):
        """Returns (processor seconds, peak resident bytes, wall-clock seconds) of one run."""
        with open(out, "wb") as stream, open(os.devnull, "r+b") as nowhere:
            begin = time.perf_counter()
            process = subprocess.Popen(command, stdin=nowhere, stdout=stream, stderr=nowhere)
            _, status, usage = os.wait4(process.pid, 0)
            waited = time.perf_counter() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        # The script ends with 1 if it has found leaks.
        if process.returncode not in (0, 1):
            sys.exit(f"{command[0]} ended with {process.returncode}")
        return usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024, waited

    def compare(self, commands):
        """Returns {who: (median seconds, peak bytes, leaks, median wall-clock seconds)}; the programs run in turn."""
        # The leaks come from a run before the others. The reports of the others are discarded, so that neither writing
        # them nor the remaining writes of the logs are measured.
        for who, command in commands.items():
            self.measure(command, self.folder / who)
        os.sync()
        # A virtual machine's second processor may share a core with the first one until both have been busy for some
        # seconds.
        if not self.brief:
            keep_processors_busy(WARMING_SECONDS)
        results = {who: [] for who in commands}
        for _ in range(self.rounds):
            for who, command in commands.items():
                if who != "script":
                    results[who].append(self.measure(command))
        # The script takes so long that its time hardly varies.
        if "script" in commands:
            results["script"].append(self.measure(commands["script"]))
        return {
            who: (
                statistics.median(seconds for seconds, _, _ in runs),
                max(peak for _, peak, _ in runs),
                count_lines(self.folder / who, b"0x" if who == "script" else b"LEAK at "),
                statistics.median(waited for _, _, waited in runs),
            )
            for who, runs in results.items()
        }

    def check(self, what, value, limit, at_least=False):
        good = value >= limit if at_least else value <= limit
        word = "at least" if at_least else "at most"
        verdict = "" if self.brief else "  ok" if good else "  MISSED"
        print(f"  {what}: {value:.2f} ({word} {limit}){verdict}")
        self.misses += not good and not self.brief

    def require_same_leaks(self, measured, *whos):
        leaks = {who: measured[who][2] for who in whos}
        if len(set(leaks.values())) != 1:
            print(f"  FAIL the numbers of leaks differ: {leaks}")
            self.misses += 1

    def generate(self, lines, live):
        """Returns (mtrace log, allocation log, live blocks at the peak)."""
        log, memcheck_log = self.folder / "log.mtrace", self.folder / "log.memcheck"
        numbers = ["--lines", str(lines), "--live", str(live), "--seed", str(self.seed)]
        made = subprocess.run(
            [self.generator, *numbers, "--memcheck", memcheck_log, log], check=True, capture_output=True, text=True
        )
        return log, memcheck_log, int(re.search(r"peak_live (\d+)", made.stdout).group(1))

    def plain_and_peers(self, log):
        return {
            "qortool": [*self.tool, "mtrace", log],
            "near-limit": [self.near_limit, log],
            "script": ["mtrace", log],
        }

    def show_peers(self, measured, lines, size):
        seconds, _, _, waited = measured["qortool"]
        script, near_limit = measured["script"], measured["near-limit"]
        print(f"  qortool: {lines / waited / 1e6:.1f} million lines/s, {size / waited / 1e9:.2f} GB/s")
        self.check("times the time of the near-limit program", seconds / near_limit[0], 1.5)
        print(f"  of the wall clock: {waited / near_limit[3]:.2f}")
        self.check("times the speed of the mtrace script", script[3] / waited, 25, at_least=True)
        print(f"  in processor time: {script[0] / seconds:.1f}")
        self.require_same_leaks(measured, "qortool", "near-limit", "script")

    def generated(self, lines):
        log, memcheck_log, live = self.generate(lines, lines // 5)
        strange = self.folder / "strange.memcheck"
        strange.write_text("".join(f"A {i * 16 + 0x10:x} 8 0 f 1\n" for i in range(NEVER_ASKED_FOR)))
        commands = self.plain_and_peers(log)
        commands["strange"] = [*self.tool, "mtrace", log, strange]
        commands["joined"] = [*self.tool, "mtrace", log, memcheck_log]
        commands["memcheck"] = [*self.tool, "memcheck", memcheck_log]
        print(f"{lines} lines, {live} blocks live at the peak")
        measured = self.compare(commands)
        self.show_peers(measured, lines, log.stat().st_size)
        seconds, peak, _, _ = measured["qortool"]
        self.check("bytes per live block beyond 16 MiB", max(0, peak - FIXED_BYTES) / live, 40)
        self.check("joined with a log that never matches", measured["strange"][0] / seconds, 1.3)
        memcheck_lines = count_lines(memcheck_log, b"")
        per_line = measured["memcheck"][0] / memcheck_lines / (seconds / lines)
        self.check("memcheck alone, per line", per_line, 1.3)
        both = measured["joined"][0] / (lines + memcheck_lines) / (seconds / lines)
        print(f"  joined with the log of the same run, per line of both: {both:.2f}")
        self.require_same_leaks(measured, "qortool", "strange", "joined", "memcheck")

    def recorded(self, log):
        lines = count_lines(log, b"@")
        print(f"{log.name}: {lines} lines, recorded")
        self.show_peers(self.compare(self.plain_and_peers(log)), lines, log.stat().st_size)

    def few_live(self, lines):
        log, _, live = self.generate(lines, FEW_LIVE)
        print(f"{lines} lines, {live} blocks live at the peak")
        measured = self.compare({"qortool": [*self.tool, "mtrace", log]})
        self.check("MiB at the peak", measured["qortool"][1] / MIB, 64)

    def hostile(self, blocks):
        """A million live slots in a chain, compared with as many that are well spread."""
        addresses = {
            "friendly": lambda i: 0x100000 + i * 160,
            "2^30 apart": lambda i: 0x1000 + (i << 30),
            "in pairs": lambda i: 0x1000 + (i // 2 << 30),
            "one address": lambda i: 0x1000,
            "full buckets": lambda i: 0x100000 + (i % (blocks // 1000) << 10) + i // (blocks // 1000),
        }
        commands = {}
        for who, address in addresses.items():
            log = self.folder / f"{who}.mtrace"
            chooser = random.Random(self.seed)
            with open(log, "w") as out:
                out.writelines(f"@ app:[0x{0x4000 + i % 3000 * 40:x}] + {address(i):#x} 0x40\n" for i in range(blocks))
                for _ in range(blocks):
                    block = address(chooser.randrange(blocks))
                    out.write(f"@ app:[0x4f10] - {block:#x}\n@ app:[0x4f10] + {block:#x} 0x20\n")
            commands[who] = [*self.tool, "mtrace", log]
        print(f"hostile logs, {blocks} live blocks, times the time of a friendly one")
        measured = self.compare(commands)
        for who in addresses:
            if who != "friendly":
                self.check(who, measured[who][0] / measured["friendly"][0], 5)
        self.require_same_leaks(measured, *addresses)


def keep_processors_busy(seconds):
    busy = f"import time\nend = time.monotonic() + {seconds}\nwhile time.monotonic() < end: pass"
    for each in [subprocess.Popen([sys.executable, "-c", busy]) for _ in range(os.cpu_count())]:
        each.wait()


def count_lines(path, start):
    with open(path, "rb") as stream:
        return sum(line.startswith(start) for line in stream)


def main():
    parser = argparse.ArgumentParser(description="Replay speed of qortool beside that of other programs.")
    parser.add_argument("--tool", required=True, type=pathlib.Path)
    parser.add_argument("--generator", required=True, type=pathlib.Path, help="the built heap_log_generator")
    parser.add_argument("--near-limit", required=True, type=pathlib.Path, help="the built near_limit")
    parser.add_argument("--lines", type=int, action="append", help=f"length of a log (default {FULL_LINES})")
    parser.add_argument("--recorded", type=pathlib.Path, action="append", default=[], help="an mtrace log to replay too")
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--folder", type=pathlib.Path, help="where the logs go (some 3 GB; default: temporary files)")
    parser.add_argument("--brief", action="store_true", help=f"one round over {BRIEF_LINES[0]} lines, no limits")
    options = parser.parse_args()
    lengths = options.lines or (BRIEF_LINES if options.brief else FULL_LINES)

    with tempfile.TemporaryDirectory(dir=options.folder) as name:
        bench = Bench(options, pathlib.Path(name))
        for lines in lengths:
            bench.generated(lines)
        for log in options.recorded:
            bench.recorded(log)
        bench.few_live(max(lengths))
        bench.hostile(10_000 if options.brief else 1_000_000)
    return 1 if bench.misses else 0


if __name__ == "__main__":
    sys.exit(main())
