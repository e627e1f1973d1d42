#!/usr/bin/env python3
"""Records programs with qor-record and with heaptrack, and compares what that costs.

    record.py --record PATH --programs FOLDER [--rounds R] [--folder DIR] [--only WORKLOAD]... [--brief]

FOLDER holds the built programs of tests/record. Workloads: a loop of allocations 11 frames deep with one and with two
threads, python3, and the C++ compiler. Costs are the processor time of all processes that take part, of the recorder too,
less that of the program alone, and of that the difference between two lengths of the same work, so that the start counts for
nothing. All run in turn, round by round; the figures are medians. Then the size of the files, the memory that the program
has more than alone, a thousand threads, and the counts beside those of a library that counts the calls.

Prints each figure beside its limit and ends with 1 when one is missed. --brief is one round of short runs without limits:
it shows that the bench still works.
"""

import argparse
import collections
import ctypes
import os
import pathlib
import re
import resource
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile

MIB = 1 << 20
PR_SET_CHILD_SUBREAPER = 36

PYTHON = """
import collections, json, re, sys
for i in range(int(sys.argv[1])):
    text = json.dumps({str(j): [j, j * 2, "text %d" % j] for j in range(200)})
    words = collections.Counter(re.findall("[a-z0-9]+", text))
    objects = [type("Named", (), {"value": n})() for n in words]
"""


def cxx_source(length):
    return "#include <map>\n#include <string>\n#include <vector>\n" + "".join(
        f"struct t{i} {{ int a; bool operator<(const t{i}& o) const {{ return a < o.a; }} }};\n"
        f"int f{i}() {{ std::map<t{i}, std::vector<t{i}>> m; m[t{i}{{1}}].push_back(t{i}{{2}}); return m.size(); }}\n"
        for i in range(length))


def processors():
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name"):
            return f"{line.split(':')[1].strip()}, {os.cpu_count()} processors"
    return f"{os.cpu_count()} processors"


class Bench:
    def __init__(self, options, folder):
        self.record = str(options.record.resolve())
        self.programs = options.programs.resolve()
        self.brief = options.brief
        self.rounds = 1 if options.brief else options.rounds
        self.folder = folder
        self.misses = 0
        self.environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C", "PYTHONMALLOC": "malloc", "PYTHONHASHSEED": "0",
                            "HOME": str(folder)}
        self.workloads = self.make_workloads(options.only)
        # A process that outlives its parent becomes a child of this one, and counts.
        ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

    def make_workloads(self, only):
        """{name: (command, command of the longer work)}"""
        shorter, longer = (100_000, 300_000) if self.brief else (500_000, 2_500_000)
        loop = str(self.programs / "allocation_loop")
        compiler = subprocess.run(["g++", "-print-prog-name=cc1plus"], check=True, capture_output=True, text=True).stdout.strip()
        multiarch = subprocess.run(["g++", "-print-multiarch"], check=True, capture_output=True, text=True).stdout.strip()

        def compile_command(length):
            source = self.folder / f"source{length}.cpp"
            source.write_text(cxx_source(length))
            return [compiler, "-quiet", "-O1", *(["-imultiarch", multiarch] if multiarch else []), "-D_GNU_SOURCE", str(source),
                    "-o", os.devnull]
        lengths = (1, 3) if self.brief else (5, 25)
        repeats = (5, 15) if self.brief else (20, 100)
        workloads = {
            "loop": tuple([loop, str(calls)] for calls in (shorter, longer)),
            "loop, 2 threads": tuple([loop, str(calls), "2"] for calls in (shorter, longer)),
            "python3": tuple(["/usr/bin/python3", "-S", "-c", PYTHON, str(count)] for count in repeats),
            "cc1plus": tuple(compile_command(length) for length in lengths),
        }
        return {name: commands for name, commands in workloads.items() if not only or name in only}

    # ---- one run

    def files(self):
        return [path for path in self.folder.iterdir() if path.name.startswith("out.")]

    def run(self, command, environment=None):
        """(processor seconds of all processes, standard error)"""
        for path in self.files():
            path.unlink()
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        with tempfile.TemporaryFile() as errors:
            process = subprocess.Popen(command, cwd=self.folder, env=environment or self.environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=errors)
            status = None
            while True:
                try:
                    ended, code = os.wait()
                except ChildProcessError:
                    break
                if ended == process.pid:
                    status = os.waitstatus_to_exitcode(code)
            process.returncode = status
            errors.seek(0)
            text = errors.read().decode(errors="replace")
        if status != 0:
            sys.exit(f"{' '.join(command)} ended with {status}:\n{text}")
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, text

    def qor_record(self, *options):
        return [self.record, *options, "-o", "out", "--"]

    def recorders(self):
        return {
            "bare": [],
            "stacks": self.qor_record("--zstd"),
            "heaptrack -r": ["heaptrack", "-r", "-o", str(self.folder / "out")],
            "depth 0": self.qor_record("--depth", "0"),
            "heaptrack": ["heaptrack", "-o", str(self.folder / "out")],
        }

    # ---- figures

    def check(self, what, value, limit):
        verdict = "" if self.brief else "  ok" if value <= limit else "  MISSED"
        print(f"  {what}: {value:.2f} (at most {limit}){verdict}", flush=True)
        self.misses += value > limit and not self.brief

    def compare(self, name, commands):
        slopes, events, sizes = collections.defaultdict(list), [], {}
        for _ in range(self.rounds):
            for who, words in self.recorders().items():
                seconds = []
                for command in commands:
                    taken, errors = self.run(words + command)
                    seconds.append(taken)
                    if who == "stacks":
                        events.append(int(re.search(r": (\d+) allocations and releases", errors)[1]))
                sizes[who] = sum(path.stat().st_size for path in self.files())
                slopes[who].append(seconds[1] - seconds[0])
        medians = {who: statistics.median(taken) for who, taken in slopes.items()}
        more = events[1] - events[0]
        print(f"{name}: {more} events more in the longer run, {medians['bare']:.2f} s alone")
        added = {who: medians[who] - medians["bare"] for who in medians if who != "bare"}
        for who, seconds in added.items():
            spread = [value - medians["bare"] for value in slopes[who]]
            print(f"  {who}: {seconds / more * 1e9:.0f} ns an event added ({min(spread) / more * 1e9:.0f} to "
                  f"{max(spread) / more * 1e9:.0f})")
        self.check("with stacks, compressed, beside heaptrack -r", added["stacks"] / added["heaptrack -r"], 1.0)
        self.check("--depth 0, not compressed, beside heaptrack", added["depth 0"] / added["heaptrack"], 0.3)
        self.check("compressed log and stacks beside the file of heaptrack -r", sizes["stacks"] / sizes["heaptrack -r"], 2.7)

    def peak(self, words, command):
        """Resident bytes of the program itself at its peak."""
        found = self.folder / "peak"
        environment = {**self.environment, "PEAK": str(found)}
        self.run(words + command, environment)
        return int(found.read_text())

    def memory(self):
        command = [str(self.programs / "allocation_loop"), "200000" if self.brief else "2000000"]
        for threads in ("1", "2", "1000"):
            alone = self.peak([], [*command, threads])
            recorded = self.peak(self.qor_record("--zstd"), [*command, threads])
            self.check(f"MiB added to the loop, threads: {threads}", (recorded - alone) / MIB, 16)

    def counts(self):
        """Whether the log has each call that a library counts which is preloaded behind the recorder."""
        commands = {name: commands[0] for name, commands in self.workloads.items()}
        commands["loop, 1000 threads"] = [str(self.programs / "allocation_loop"), "100000" if self.brief else "2000000", "1000"]
        for name, command in commands.items():
            for path in self.folder.glob("counts.*"):
                path.unlink()
            counting = ["sh", "-c", 'LD_PRELOAD="$LD_PRELOAD:$0" exec "$@"', str(self.programs / "counting.so")]
            self.run(self.qor_record("--depth", "0") + counting + command, {**self.environment, "COUNTING": str(self.folder / "counts")})
            codes = collections.Counter()
            with open(self.folder / "out.mtrace", errors="surrogateescape") as log:
                for line in log:
                    codes[line.split(" ", 3)[2] if line.startswith("@") else ""] += 1
            recorded = codes["+"], codes[">"], codes["-"] + codes["<"] - codes[">"]
            (counted,) = [struct.unpack("=3Q", path.read_bytes()) for path in self.folder.glob("counts.*")]
            same = recorded == counted
            print(f"  {name}: {recorded[0]} allocations, {recorded[1]} reallocations, {recorded[2]} releases"
                  f"{', as counted' if same else f', COUNTED {counted}'}", flush=True)
            self.misses += not same


def main():
    parser = argparse.ArgumentParser(description="The cost of recording beside that of heaptrack.")
    parser.add_argument("--record", required=True, type=pathlib.Path, help="the built qor-record")
    parser.add_argument("--programs", required=True, type=pathlib.Path, help="the folder of the built recorded programs")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--folder", type=pathlib.Path, help="where the logs go (some 500 MB; default: temporary files)")
    parser.add_argument("--only", action="append", help="a workload, by its name; default: all")
    parser.add_argument("--brief", action="store_true", help="one round of short runs, no limits")
    options = parser.parse_args()
    if shutil.which("heaptrack") is None:
        sys.exit("heaptrack is not installed")

    print(processors())
    with tempfile.TemporaryDirectory(dir=options.folder) as name:
        bench = Bench(options, pathlib.Path(name))
        for workload, commands in bench.workloads.items():
            bench.compare(workload, commands)
        print("memory")
        bench.memory()
        print("counts")
        bench.counts()
    return 1 if bench.misses else 0


if __name__ == "__main__":
    sys.exit(main())
