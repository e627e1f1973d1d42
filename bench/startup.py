#!/usr/bin/env python3
"""Compares short runs of qortool, from start to end, with coreutils md5sum on an empty file.

    startup.py --tool PATH [--brief] [--limit RATIO] [--files-alone]

All are started in turn; the times are medians of the wall clock from the start of the process to its end. The exit code
is 1 if a run of the tool takes more than RATIO (1.5) times as long as md5sum. If a host has sources of accounts besides
/etc/passwd and /etc/group, every process that looks up accounts loads them, including coreutils id, which is listed for
comparison. --files-alone excludes them (needs root; only for this run). A brief run only shows that the bench still
works; it never fails because of a figure, since other programs influence it too much.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C", "TZ": "Europe/Berlin", "HOME": os.path.expanduser("~")}


def milliseconds(words, expected_code):
    """One run with discarded output."""
    devnull = os.open(os.devnull, os.O_WRONLY)
    try:
        begin = time.perf_counter_ns()
        child = os.posix_spawn(words[0], words, ENVIRONMENT, file_actions=[(os.POSIX_SPAWN_DUP2, devnull, 1),
                                                                           (os.POSIX_SPAWN_DUP2, devnull, 2)])
        _, status = os.waitpid(child, 0)
        end = time.perf_counter_ns()
    finally:
        os.close(devnull)
    code = os.waitstatus_to_exitcode(status)
    if code != expected_code:
        sys.exit(f"{' '.join(words)} ended with {code} instead of {expected_code}")
    return (end - begin) / 1e6


def with_files_alone(words):
    """Runs the bench again with another /etc/nsswitch.conf mounted over that of the host."""
    with tempfile.NamedTemporaryFile("w") as services:
        services.write("passwd: files\ngroup: files\n")
        services.flush()
        mounted = ["sh", "-c", 'mount --bind "$0" /etc/nsswitch.conf && exec "$@"', services.name]
        return subprocess.run(["unshare", "--mount", *mounted, sys.executable, *words]).returncode


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--brief", action="store_true")
    parser.add_argument("--limit", type=float, default=1.5)
    parser.add_argument("--files-alone", action="store_true")
    options = parser.parse_args()
    if options.files_alone:
        return with_files_alone([word for word in sys.argv if word != "--files-alone"])
    md5sum = shutil.which("md5sum") or sys.exit("there is no md5sum here")

    with tempfile.NamedTemporaryFile() as empty:
        programs = {
            "md5sum of nothing": ([md5sum, empty.name], 0),
            "help": ([options.tool, "--quiet", "help"], 1),
            "dow": ([options.tool, "dow", "28/3/2021"], 0),
            "tztest": ([options.tool, "tztest"], 0),
            "path-list": ([options.tool, "path-list"], 0),
            "userinfo": ([options.tool, "userinfo", "root"], 0),
            "(id)": ([shutil.which("id"), "root"], 0),
        }
        times = {name: [] for name in programs}
        for round_number in range((20 if options.brief else 400) + 1):
            for name, run in programs.items():
                taken = milliseconds(*run)
                if round_number > 0:  # the first round reads the files from the disk
                    times[name].append(taken)

    medians = {name: statistics.median(taken) for name, taken in times.items()}
    peer = medians["md5sum of nothing"]
    print(f"{'':20} {'ms':>6} {'ratio':>6} (at most {options.limit})")
    for name, median in medians.items():
        print(f"{name:20} {median:6.2f} {median / peer:6.2f}")
    worst = max(median for name, median in medians.items() if name != "(id)")
    return 0 if options.brief or worst / peer <= options.limit else 1


if __name__ == "__main__":
    sys.exit(main())
