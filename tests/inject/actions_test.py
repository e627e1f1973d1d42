#!/usr/bin/env python3
"""Runs every action of qortool and qor-debug-user, and makes each call that the injector knows fail in turn.

    actions_test.py --bin FOLDER --injector LIBRARY --samples FOLDER [--only NAME]... [--target NAME]... [--every]

A run in which the n-th call failed must do one of two things: print the same as the undisturbed run, with the same exit
code, or end with an exit code other than 0 and a text on standard error. It must never die by a signal, and never hang.
The exception is a log that cannot be read to its end: such a run ends with 0 and a text on standard error.

n takes each value from 1 up to 12, then grows by a half, and finally takes the values of the last 5 calls. With
QOR_TEST_WHOLE, it takes each value up to 1000 and the last 25; for actions that use OpenSSL, each value up to 60. The
calls between are OpenSSL's tables, nine thousand memory requests, and the keys that it derives, two million calls of one
kind in a fifth of a second. --every leaves no call out; with a key that takes days.
"""

import argparse
import errno
import gzip
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from tool import linked  # noqa: E402  # in tests/support

TIMEOUT_SECONDS = 120

WHOLE = "QOR_TEST_WHOLE" in os.environ

# The contract writes the cause only to the system log.
FAILED_BINDING = 100

READ_IN_PART = b"The report covers only what was read before that."

# The last calls are always tried, whatever was left out before.
LAST_CALLS = 25 if WHOLE else 5

# The target, the error of the failed calls, and how many fail from the n-th on; 0: all.
ALLOCATIONS = [("alloc", errno.ENOMEM, 1), ("alloc", errno.ENOMEM, 0)]
SYSTEM_CALLS = [
    ("open", errno.EMFILE, 1), ("open", errno.EACCES, 1),
    ("read", errno.EIO, 1), ("read", "short", 1), ("pread", errno.EIO, 1), ("pread", "short", 1),
    ("write", errno.ENOSPC, 1), ("write", "short", 1), ("close", errno.EIO, 1), ("fstat", errno.EIO, 1),
    ("poll", errno.ENOMEM, 1), ("socket", errno.EMFILE, 1), ("connect", errno.ECONNREFUSED, 1),
    ("send", errno.ECONNRESET, 1), ("recv", errno.ECONNRESET, 1), ("mmap", errno.ENOMEM, 1),
]


class Run:
    """One command. `until`: the text after which an action that runs for long is ended and counts as passed."""

    def __init__(self, program, words, stdin=b"", until=None, varies=False, errors_too=False, environment={}):
        self.program, self.words, self.stdin, self.until, self.varies = program, words, stdin, until, varies
        self.environment = environment
        # The calls that fail if none is named.
        self.targets = ["alloc"]
        if "md5sum" in words:
            self.targets += ["open", "pread", "close", "fstat"]
        self.reads_a_log = "mtrace" in words or "memcheck" in words
        if self.reads_a_log:
            self.targets += ["read"]
        has_openssl = {"pwcrypt", "add", "password", "debug-control"} & set(map(str, words))
        self.dense = 12 if not WHOLE else 60 if has_openssl else 1000
        self.errors_too = errors_too  # the text for `until` is on standard error
        self.name = " ".join([program.name, *map(str, words)])


def long_logs(folder):
    """A log so long that a thread reads ahead of the replay more than once."""
    mtrace, memcheck = folder / "mtrace.log", folder / "memcheck.log"
    blocks = [0x10000000 + 64 * i for i in range(9_000)]
    mtrace.write_text("".join(f"@ app:[{i % 50 + 4096:#x}] + {block:#x} 0x20\n" for i, block in enumerate(blocks)))
    memcheck.write_text("".join(f"A {block:x} 32 0 src/file{i % 50} {i % 100}\n" for i, block in enumerate(blocks)))
    return mtrace, memcheck


def compressed(log):
    """The same log as gzip and as zstd write it."""
    gz, zst = log.with_suffix(".gz"), log.with_suffix(".zst")
    gz.write_bytes(gzip.compress(log.read_bytes()))
    zst.write_bytes(subprocess.run(["zstd", "-q", "-c", log], stdout=subprocess.PIPE, check=True).stdout)
    return gz, zst


def action_runs(tool, samples, folder):
    long_mtrace, long_memcheck = long_logs(folder)
    gzip_mtrace, zstd_mtrace = compressed(long_mtrace)
    data = samples / "demo.memcheck"
    runs = [
        ["help"], ["sysinfo", "--developer"], ["netlist"], ["pwcrypt", "secret"], ["ttyinfo", "/dev/null"], ["list-serial"],
        ["md5sum", data], ["lookup", "127.0.0.1"], ["userinfo"], ["dow", "29/2/2024"], ["debug-control", "127.0.0.1", "1"],
        ["mtrace", samples / "demo.mtrace", data], ["memcheck", data], ["mtrace", long_mtrace],
        ["memcheck", long_memcheck], ["mtrace", gzip_mtrace], ["mtrace", zstd_mtrace], ["tztest"], ["path-list"],
        ["logon", "no such user", "secret"],
    ]
    # A salt and the figures of this host differ in each run.
    varying = {"sysinfo", "pwcrypt", "path-list"}
    made = [Run(tool, ["--quiet", *words], varies=words[0] in varying) for words in runs]
    # Its log begins with the first block, before anything else.
    made.append(Run(tool, ["--quiet", "dow", "1/3/2024"], environment={"QOR_MEMCHECK": str(folder / "own.log")}))
    made.append(Run(tool, ["--quiet", "timer-check"], until=b"start=", errors_too=True))
    made.append(Run(tool, ["--quiet", "simd-test"], until=b"Testing memset()"))
    return made


def debug_user_runs(program, folder):
    file = folder / "accounts"
    return [
        Run(program, ["help"]),
        Run(program, ["add", f"--file={file}.new", "anna"], b"secret enough\n"),
        Run(program, ["password", f"--file={file}", "berta"], b"another secret\n"),
        Run(program, ["list", f"--file={file}"]),
        Run(program, ["remove", f"--file={file}", "nobody"]),
    ]


class Injector:
    def __init__(self, library, folder):
        self.library, self.report = library, folder / "report"
        self.count = 0

    def start(self, run, extra):
        self.count += 1
        environment = {"PATH": os.defpath, "LC_ALL": "C", "HOME": "/nowhere", **run.environment, **extra}
        with tempfile.TemporaryFile() as errors:
            child = subprocess.Popen([run.program, *run.words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT if run.errors_too else errors,
                                     env=environment)
            if run.until is None:
                try:
                    output, _ = child.communicate(run.stdin, TIMEOUT_SECONDS)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.communicate()
                    output = b"(it stopped)"
                code = child.returncode
            else:
                output, code = self.read_until(child, run.until)
            errors.seek(0)
            return code, output, output if run.errors_too else errors.read()

    @staticmethod
    def read_until(child, end):
        """Returns the output up to `end`, and 0; if `end` never came, all output and the exit code."""
        child.stdin.close()
        output = b""
        while end not in output and (more := child.stdout.read1()):
            output += more
        found = end in output
        if found:
            child.kill()
        child.wait()
        child.stdout.close()
        return (output[:output.index(end)], 0) if found else (output, child.returncode)

    def undisturbed(self, run):
        return self.start(run, {"LD_PRELOAD": str(self.library)})

    def injected(self, run, target, error, at, count):
        """Returns the outcome, or None if there are fewer calls."""
        self.report.unlink(missing_ok=True)
        outcome = self.start(run, {
            "LD_PRELOAD": str(self.library), "QOR_INJECT": target, "QOR_INJECT_AT": str(at), "QOR_INJECT_COUNT": str(count),
            "QOR_INJECT_WITH": str(error), "QOR_INJECT_REPORT": str(self.report)})
        return outcome if self.report.exists() else None

    def called(self):
        return self.report.read_text().split("\n")[0]


# Foreign code that crashes when it has no memory: glibc 2.36 reads data that its name service (nss_database) could not
# store, and so does libpam. This cannot be prevented from outside.
FOREIGN = {"logon": {"libc.so.6", "libpam.so.0"}, "userinfo": {"libc.so.6"}, "path-list": {"libc.so.6"}}


def is_foreign(run, call):
    return any(action in run.words and call.split()[-1] in libraries for action, libraries in FOREIGN.items())


def fault(run, plain, outcome, call):
    code, output, errors = outcome
    if code is None or code < 0:
        if code and is_foreign(run, call):
            return None
        return f"dies by {signal.Signals(-code).name}" if code else "stops"
    if code == 0 and plain[0] != 0:
        return "ends with 0"
    if code == 0 and run.reads_a_log and READ_IN_PART in errors:
        return None
    if code == 0 and not run.varies and not run.errors_too and output != plain[1]:
        return f"prints something else and ends with 0: {output[:200]!r}"
    if code == 0 and run.varies and output.count(b"\n") != plain[1].count(b"\n"):
        return f"prints more or less and ends with 0: {output[:200]!r}"
    if code != 0 and code != FAILED_BINDING and not errors:
        return f"ends with {code} and says nothing"
    return None


def each_call(fails, first, dense, every):
    """Calls fails(n) for the values of n described above; it returns whether there is an n-th call. Returns the
    approximate number of calls."""
    last, at = first - 1, first
    while fails(at):
        last, at = at, at + 1 if every or at < dense else at + max(at // 2, 1)
    if at - last == 1:
        return last
    tried, low, high = last, last, at
    while high - low > 1:
        middle = (low + high) // 2
        low, high = (middle, high) if fails(middle) else (low, middle)
    for at in range(max(tried + 1, low - LAST_CALLS), low):
        fails(at)
    return low


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    parser.add_argument("--injector", type=pathlib.Path, required=True)
    parser.add_argument("--samples", type=pathlib.Path, required=True)
    parser.add_argument("--only", action="append", help="an action, of either program")
    parser.add_argument("--target", action="append", help="alloc or a system call; where none is named, alloc, and with md5sum its system calls")
    parser.add_argument("--first", type=int, default=1, help="the first n")
    parser.add_argument("--every", action="store_true", help="leave no n out")
    options = parser.parse_args()
    faults = 0
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        injector = Injector(linked(options.injector, folder), folder)
        tool, debug_user = (options.bin.resolve() / each for each in ("qortool", "qor-debug-user"))
        runs = action_runs(tool, options.samples.resolve(), folder) + debug_user_runs(debug_user, folder)
        known = (folder / "accounts")
        subprocess.run([debug_user, "add", f"--file={known}", "berta"], input=b"first secret\n", check=True,
                       stderr=subprocess.DEVNULL)
        begun = time.monotonic()
        for run in runs:
            if options.only and not set(options.only) & set(map(str, run.words)):
                continue
            plain = injector.undisturbed(run)
            for target, error, count in ALLOCATIONS + SYSTEM_CALLS:
                if target not in (options.target or run.targets):
                    continue

                def fails(at):
                    nonlocal faults
                    outcome = injector.injected(run, target, error, at, count)
                    if outcome is None:
                        return False
                    if found := fault(run, plain, outcome, injector.called()):
                        faults += 1
                        print(f"{run.name}: where {injector.called()} fails ({error}, {count or 'all'}), it {found}"
                              f"\n    {outcome[2][:200]!r}", flush=True)
                    return True

                calls = each_call(fails, options.first, run.dense, options.every)
                print(f"{run.name}: {target} {error} {count or 'all'}: {calls} calls, {time.monotonic() - begun:.0f} s", flush=True)
                if calls < options.first and not options.target:
                    faults += 1
                    print(f"{run.name}: nothing calls {target}, so that nothing was tried")
        print(f"{injector.count} runs")
    sys.exit(1 if faults else 0)


main()
