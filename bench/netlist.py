#!/usr/bin/env python3
"""Compares `qortool --quiet netlist` with `ip addr`, in a network namespace of its own.

    netlist.py --tool PATH [--brief]

Both are started in turn: on a host with one interface, with 2,000 interfaces, and with 10,000 addresses on one. The
times are medians of the wall clock from the start of the process to its end. The exit code is 1 if the tool exceeds the
limit of a row, and 77 if no such namespace can be made. A brief run only shows that the bench still works: it makes
fewer interfaces and never fails because of a figure.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys

from startup import milliseconds

SKIPPED = 77
INSIDE = "QOR_BENCH_INSIDE"


def batch(lines):
    done = subprocess.run(["ip", "-batch", "-"], input="\n".join(lines) + "\n", text=True, capture_output=True, check=False)
    if done.returncode != 0:
        print(f"skipped: ip: {done.stderr.strip()}")
        sys.exit(SKIPPED)


def enter_namespace():
    command = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--net"]
    if subprocess.run([*command, "true"], capture_output=True, check=False).returncode != 0:
        print("skipped: no network namespace can be made here")
        sys.exit(SKIPPED)
    os.execvpe(command[0], [*command, sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})


def measure(programs, rounds):
    """Returns the medians, in the order of the programs."""
    times = {name: [] for name in programs}
    for round_number in range(rounds + 1):
        for name, words in programs.items():
            taken = milliseconds(words, 0)
            if round_number > 0:  # the first round reads the files from the disk
                times[name].append(taken)
    return [statistics.median(taken) for taken in times.values()]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--brief", action="store_true")
    options = parser.parse_args()
    if INSIDE not in os.environ:
        enter_namespace()
    less = 20 if options.brief else 1
    programs = {"qortool netlist": [options.tool, "--quiet", "netlist"],
                "ip addr": [shutil.which("ip") or sys.exit("there is no ip here"), "addr"]}

    missed = 0

    def row(name, rounds, limit):
        nonlocal missed
        tool, peer = measure(programs, 3 if options.brief else rounds)
        missed += tool / peer > limit
        print(f"{name:24} netlist {tool:7.2f} ms, ip addr {peer:7.2f} ms, ratio {tool / peer:.2f} (at most {limit})",
              flush=True)

    batch(["link set lo up"])
    row("one interface", 300, 1.5)
    batch([f"link add v{i} type veth peer name w{i}" for i in range(1000 // less)])
    row(f"{2000 // less} interfaces", 30, 2.0)
    batch(["link add d0 type bridge"] + [f"addr add 10.{i // 250}.{i % 250}.1/24 dev d0" for i in range(10000 // less)])
    batch([f"link del v{i}" for i in range(1000 // less)] + ["link set d0 up"])
    row(f"{10000 // less} addresses", 30, 2.0)
    return 0 if options.brief or not missed else 1


if __name__ == "__main__":
    sys.exit(main())
