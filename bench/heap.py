#!/usr/bin/env python3
"""What qor-heap costs, beside `qortool mtrace`, heaptrack and `addr2line -i`.

    heap.py --bin FOLDER --generator PATH [--places PATH] [--lines N] [--rounds R] [--brief]

FOLDER holds qor-heap, qortool, qor-record and libqor. Logs of N lines (5 million), with a fifth as many live blocks at
their peak, are read by `sites` without symbols, with stacks and without them, by `diff` and by `qortool mtrace`. A
compiler is recorded, and that recording is read, too. python3, with debug information where that is installed, is
recorded by qor-record and by heaptrack: `sites` with symbols stands beside heaptrack_interpret, which finds the symbols
there, and heaptrack_print. With --places, the test program of that name, bench/source_places.py follows.

Seconds are processor time of all processes, which other work on the machine influences least; the programs run in turn,
and medians count. The exit code is 1 if a limit is missed. --brief is one round over short logs without limits: it shows
that the bench still works.
"""

import argparse
import os
import pathlib
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "qor-heap"))
import stacks_writer  # noqa: E402

HEAPTRACK_INTERPRET = "/usr/lib/heaptrack/libexec/heaptrack_interpret"
MIB = 1 << 20
SOURCE = """
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <string>
#include <unordered_map>
template <int N> struct each : each<N - 1> { std::map<int, std::unordered_map<std::string, std::function<int(int)>>> member; };
template <> struct each<0> {};
int main(int argc, char** argv) {
    each<COUNT> all;
    all.member[argc]["a"] = [](int i) { return i; };
    std::cout << std::regex_match(argv[0], std::regex("a*b")) << all.member.size();
}
"""
SCRIPT = """
import ast, asyncio, ctypes, decimal, dis, email.mime.text, http.server, inspect, json, sqlite3, ssl, unittest
for module in (ast, inspect, dis, json, unittest):
    ast.parse(inspect.getsource(module))
"""


# Runs a command and prints its processor seconds and its peak resident bytes. A process begins with the peak of the one
# that has started it, so that has to be a small one.
LAUNCHER = """
import os, sys
nowhere = [(os.POSIX_SPAWN_OPEN, out, os.devnull, os.O_WRONLY, 0) for out in (1, 2)]
process = os.posix_spawnp(sys.argv[1], sys.argv[1:], os.environ, file_actions=nowhere)
_, status, usage = os.wait4(process, 0)
print(usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024)
sys.exit(os.waitstatus_to_exitcode(status) != 0)
"""


def measure(command, source=os.devnull):
    """(processor seconds of the process and its children, peak resident bytes)."""
    with open(source, "rb") as given:
        done = subprocess.run([sys.executable, "-S", "-E", "-c", LAUNCHER, *map(str, command)], stdin=given,
                              stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"{command[0]} failed")
    seconds, size = done.stdout.split()
    return float(seconds), int(size)


class Bench:
    def __init__(self, options, folder):
        self.bin, self.generator, self.folder = options.bin.resolve(), options.generator.resolve(), folder
        self.brief, self.misses = options.brief, 0
        self.rounds = 1 if options.brief else options.rounds
        self.lines = 100_000 if options.brief else options.lines

    def medians(self, commands):
        results = {name: [] for name in commands}
        for _ in range(self.rounds):
            for name, command in commands.items():
                results[name].append(measure(command))
        return {name: tuple(statistics.median(each) for each in zip(*runs)) for name, runs in results.items()}

    def show(self, what, figure, limit):
        is_missed = figure > limit and not self.brief
        self.misses += is_missed
        print(f"{what}: {figure:.2f}, limit {limit:g}{' MISSED' if is_missed else ''}")

    def generate(self, name, seed):
        log = self.folder / name
        live = self.lines // 5
        said = subprocess.run([self.generator, "--lines", str(self.lines), "--live", str(live), "--seed", str(seed), log],
                              check=True, capture_output=True, text=True).stdout
        return log, [int(word) for word in said.split() if word.isdigit()][-1]

    def heap(self, *words):
        return [self.bin / "qor-heap", *words]

    def mtrace(self, log):
        return [self.bin / "qortool", "--quiet", "mtrace", log]

    def print_times(self, what, found):
        print(f"{what}: " + ", ".join(f"{name} {seconds:.2f} s, {size / MIB:.0f} MiB" for name, (seconds, size) in found.items()))

    def with_stacks(self, log, count):
        """The same log beside a file with `count` distinct stacks of 10 frames, 5 of them shared."""
        name = self.folder / f"{count}.mtrace"
        name.symlink_to(log)
        writer = stacks_writer.StacksWriter(depth=64, path=b"/nowhere/app")
        module = writer.module(0x400000, 0x400000, 0x8000000, b"/nowhere/app", b"id")
        stacks = []
        for i in range(count):
            shared = tuple((module, 0x1000 + 16 * (i // 8 ** level)) for level in range(1, 6))
            writer.node(tuple((module, 0x100000 + 16 * (7 * i + level)) for level in range(5)) + shared)
            stacks.append(stacks_writer.number(16 + len(writer.nodes)))
        source = random.Random(count)
        with open(log, "rb") as lines:
            allocations = sum(len(re.findall(rb" [+>] ", piece)) for piece in iter(lambda: lines.read(1 << 24), b""))
        data = bytes(writer.data) + b"".join(source.choices(stacks, k=allocations + 100))
        name.with_suffix(".stacks").write_bytes(data)
        return name

    def logs(self):
        log, live = self.generate("one.mtrace", 1)
        other, _ = self.generate("other.mtrace", 2)
        empty = self.folder / "empty.mtrace"
        empty.write_text("= Start\n@ a:[0x1] + 0x10 0x8\n")
        few, many = 1000, 10_000 if self.brief else 200_000
        found = self.medians({
            "mtrace": self.mtrace(log),
            "sites": self.heap("sites", "--no-symbols", log),
            "diff": self.heap("diff", "--no-symbols", log, other),
            "few stacks": self.heap("sites", "--no-symbols", self.with_stacks(log, few)),
            "many stacks": self.heap("sites", "--no-symbols", "--allocations", self.with_stacks(log, many)),
            "timeline": self.heap("timeline", "--no-symbols", log),
            "empty": self.heap("sites", "--no-symbols", empty),
        })
        self.print_times(f"{self.lines} lines, {live} live blocks at the peak", found)
        self.show("sites without symbols, of the time of qortool mtrace", found["sites"][0] / found["mtrace"][0], 1.3)
        self.show(f"the same with {few} distinct stacks", found["few stacks"][0] / found["mtrace"][0], 1.3)
        self.show("diff of two logs, of the time of one sites", found["diff"][0] / found["sites"][0], 2.2)
        for name in ("sites", "timeline", "few stacks"):
            bytes_each = (found[name][1] - found["empty"][1]) / live
            self.show(f"{name}: bytes for each live block at the peak", bytes_each, 48)
        more = (found["many stacks"][1] - found["few stacks"][1]) / (many - few)
        print(f"bytes for each distinct stack, with 5 nodes of its own: {more:.0f}")

    def compiler(self):
        source = self.folder / "source.cpp"
        source.write_text(SOURCE.replace("COUNT", "40"))
        compiler = subprocess.run(["g++", "-print-prog-name=cc1plus"], check=True, capture_output=True, text=True).stdout.strip()
        multiarch = subprocess.run(["g++", "-print-multiarch"], check=True, capture_output=True, text=True).stdout.strip()
        return [compiler, "-quiet", "-O1", "-imultiarch", multiarch, "-D_GNU_SOURCE", source, "-o", os.devnull]

    def record(self, name, command):
        log = self.folder / name
        subprocess.run([self.bin / "qor-record", "-o", log, "--", *command], check=True, capture_output=True)
        return log.with_suffix(".mtrace")

    def recording(self):
        """A real recording, with as many stacks as a program has."""
        log = self.record("compiler", [sys.executable, "-c", "pass"] if self.brief else self.compiler())
        found = self.medians({
            "mtrace": self.mtrace(log),
            "sites": self.heap("sites", "--no-symbols", log),
            "all places": self.heap("sites", "--no-symbols", "--allocations", log),
        })
        self.print_times("a compiler with its stacks", found)
        self.show("sites without symbols, of the time of qortool mtrace", found["sites"][0] / found["mtrace"][0], 1.3)

    def symbols(self):
        python = shutil.which("python3-dbg") or sys.executable
        command = [python, "-c", "pass" if self.brief else SCRIPT]
        os.environ["PYTHONMALLOC"] = "malloc"
        log = self.record("own", command)
        subprocess.run(["heaptrack", "--raw", "-o", self.folder / "track", *command], check=True, capture_output=True)
        del os.environ["PYTHONMALLOC"]
        raw, whole = self.folder / "raw", self.folder / "whole"
        packed = next(self.folder.glob("track.raw.*"))
        with open(raw, "wb") as out:
            subprocess.run(["zstd" if packed.suffix == ".zst" else "gzip", "-dc", packed], check=True, stdout=out)
        with open(raw, "rb") as source, open(whole, "wb") as out:
            subprocess.run([HEAPTRACK_INTERPRET], check=True, stdin=source, stdout=out, stderr=subprocess.DEVNULL)
        subprocess.run(["gzip", "-1", whole], check=True)
        results = {}
        for _ in range(self.rounds):
            for name, *how in (("sites", self.heap("sites", log)), ("all places", self.heap("sites", "--allocations", log)),
                               ("interpret", [HEAPTRACK_INTERPRET], raw), ("print", ["heaptrack_print", f"{whole}.gz"])):
                results.setdefault(name, []).append(measure(*how))
        found = {name: tuple(statistics.median(each) for each in zip(*runs)) for name, runs in results.items()}
        self.print_times(f"{pathlib.Path(command[0]).name} with its symbols", found)
        peer = found["interpret"][0] + found["print"][0]
        self.show("sites with symbols, of the time of heaptrack_interpret and heaptrack_print", found["sites"][0] / peer, 0.5)
        self.show("all allocations with symbols, of that time", found["all places"][0] / peer, 0.5)
        print(f"sites with symbols, of heaptrack_print alone, which looks for none: {found['sites'][0] / found['print'][0]:.2f}")

    def source_places(self, places):
        command = [sys.executable, pathlib.Path(__file__).with_name("source_places.py"), "--places", places,
                   *["--brief"] * self.brief, self.bin / "libqor.so"]
        self.misses += subprocess.run(command).returncode


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True, type=pathlib.Path)
    parser.add_argument("--generator", required=True, type=pathlib.Path, help="the built heap_log_generator")
    parser.add_argument("--places", type=pathlib.Path, help="the built test program `places`")
    parser.add_argument("--lines", type=int, default=5_000_000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--brief", action="store_true")
    options = parser.parse_args()
    os.environ.pop("DEBUGINFOD_URLS", None)
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options, pathlib.Path(folder))
        bench.logs()
        bench.recording()
        bench.symbols()
        if options.places:
            bench.source_places(options.places.resolve())
    return 1 if bench.misses else 0


if __name__ == "__main__":
    sys.exit(main())
