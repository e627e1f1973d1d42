#!/usr/bin/env python3
"""Compares child processes, case by case and with random options, with those of Python's subprocess module.

usage: model_test.py --driver PROGRAM [--count N] [--seed N]

The child tells everything that it has got: arguments, variables, folder, umask, descriptors, signals, input. Both
implementations must give it the same, and tell the same about its end.
"""

import argparse
import errno
import os
import random
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

options = None

SHOW = r"""
import os, signal, sys
mask = os.umask(0)
status = dict(line.rstrip("\n").split(":\t", 1) for line in open("/proc/self/status") if ":\t" in line)
files = []
for name in sorted(os.listdir("/proc/self/fd"), key=int):
    try:
        link = os.readlink("/proc/self/fd/" + name)
    except OSError:
        continue
    files.append((int(name), link.split(":")[0] if link.startswith(("pipe:", "socket:")) else link))
said = sys.stdin.buffer.read() if 0 in dict(files) and "read" in sys.argv else b""
print([os.fsencode(word) for word in sys.argv], sorted(os.environb.items()), os.getcwd(), oct(mask), files,
      status["SigBlk"], os.getpgid(0) == os.getpid(), len(said), hash(said) if not said else sum(said))
sys.stdout.flush()
print("error text", file=sys.stderr, flush=True)
how = sys.argv[1]
if how.startswith("signal"):
    os.kill(os.getpid(), int(how[6:]))
sys.exit(int(how))
"""


class Children(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()
        (self.folder / "in").write_bytes(b"from a file")
        (self.folder / "empty").mkdir()
        self.script = self.folder / "show.py"
        self.script.write_text(SHOW)
        self.python = [sys.executable, "-S", "-E", str(self.script)]
        self.extra = os.open(self.folder / "in", os.O_RDONLY)
        os.set_inheritable(self.extra, True)
        self.addCleanup(os.close, self.extra)
        driver = Driver([options.driver], {"PYTHONHASHSEED": "0", "LC_ALL": "C"}, pass_fds=[self.extra],
                        stderr=subprocess.DEVNULL)
        self.driver = driver.__enter__()
        self.addCleanup(driver.__exit__)

    def ours(self, arguments, folder="", umask="", given=b"", kinds=("pipe", "pipe", "pipe"), tree=0, limit="",
             handles="", program="", variables=None):
        rest = ["-"] if variables is None else variables
        return self.driver.ask("run", folder, umask, given, *kinds, str(tree), str(limit), handles, program,
                               str(len(arguments)), *arguments, *rest)

    def stream(self, kind):
        if kind.startswith("file:"):
            return open(kind[5:], "wb")
        if kind.startswith("append:"):
            return open(kind[7:], "ab")
        return {"pipe": subprocess.PIPE, "null": subprocess.DEVNULL, "output": subprocess.STDOUT}[kind]

    def theirs(self, arguments, folder="", umask="", given=b"", kinds=("pipe", "pipe", "pipe"), tree=0, handles="",
               program="", variables=None):
        environment = {**os.environb, b"PYTHONHASHSEED": b"0", b"LC_ALL": b"C"}
        if variables is not None:
            environment = dict(os.fsencode(each).split(b"=", 1) for each in variables)
        streams = [open(kinds[0][5:], "rb") if kinds[0].startswith("file:") else self.stream(kinds[0]),
                   self.stream(kinds[1]), self.stream(kinds[2])]
        done = subprocess.Popen(arguments, cwd=folder or None, umask=int(umask, 8) if umask else -1,
                                stdin=streams[0], stdout=streams[1], stderr=streams[2], env=environment,
                                executable=program or None, pass_fds=[self.extra] if handles else [],
                                preexec_fn=os.setpgrp if tree else None)
        output, errors = done.communicate(given if kinds[0] == "pipe" else None)
        for each in streams:
            if hasattr(each, "close"):
                each.close()
        code = done.returncode
        return [str(max(code, 0)), str(max(-code, 0)), output or b"", errors or b""]

    def check(self, **how):
        # One after the other, on the same files.
        results = []
        for run in (self.ours, self.theirs):
            for name in ("out", "err"):
                (self.folder / name).write_bytes(b"before ")
            answer = run(**how)
            results.append((answer, (self.folder / "out").read_bytes(), (self.folder / "err").read_bytes()))
        (ours, *our_files), (theirs, *their_files) = results
        self.assertFalse(failed(ours), (ours, how))
        self.assertEqual([*ours[:2], decode(ours[2]), decode(ours[3])], theirs, how)
        self.assertEqual(our_files, their_files)

    def test_ends(self):
        for how in ("0", "1", "255", "signal9", "signal15", "signal11"):
            with self.subTest(how):
                self.check(arguments=[*self.python, how])

    def test_random_options(self):
        rng = random.Random(options.seed)
        text = [chr(c) for c in (*range(1, 128), 0xe4, 0x20ac, 0x1f600)]
        outs = ["pipe", "null", f"file:{self.folder}/out", f"append:{self.folder}/out"]
        errs = ["pipe", "null", "output", f"file:{self.folder}/err", f"append:{self.folder}/err"]
        for number in range(options.count):
            words = ["".join(rng.choice(text) for _ in range(rng.randrange(10))) for _ in range(rng.randrange(5))]
            how = dict(arguments=[*self.python, rng.choice(["0", "3", "signal15"]),
                                  *rng.choice([[], ["read"]]), *words],
                       folder=rng.choice(["", str(self.folder / "empty"), "/"]),
                       umask=rng.choice(["", "0", "022", "077", "777"]),
                       given=rng.choice([b"", b"text", bytes(rng.randrange(256) for _ in range(200000))]),
                       kinds=(rng.choice(["pipe", "null", f"file:{self.folder}/in"]), rng.choice(outs),
                              rng.choice(errs)),
                       tree=rng.randrange(2), handles=rng.choice(["", f"{self.extra}:{self.extra}"]))
            if rng.randrange(2):
                how["variables"] = [f"V{i}={''.join(rng.choice(text) for _ in range(5))}"
                                    for i in range(rng.randrange(4))] + ["PYTHONHASHSEED=0", "LC_ALL=C.UTF-8"]
            with self.subTest(number=number):
                self.check(**how)

    def test_programs_are_found_in_the_same_places(self):
        first, second = self.folder / "first", self.folder / "second"
        for place in (first, second):
            place.mkdir()
        (second / "tool").write_text("#!/bin/sh\necho second $0 $1\n")
        (first / "locked").write_text("#!/bin/sh\necho never\n")
        (second / "locked").write_text("#!/bin/sh\necho open $1\n")
        for place in (second / "tool", second / "locked"):
            place.chmod(0o755)
        for path in (f"{first}:{second}", f"{second}", f"/no/such:{self.script}:{second}", f":{second}:", ""):
            for name in ("tool", "locked"):
                if path == "":
                    with self.subTest(path=path, name=name):
                        self.assertEqual(self.ours([f"no {name}"], variables=["PATH="])[0], 231)
                    continue
                with self.subTest(path=path, name=name):
                    self.check(arguments=[name, "word"], variables=[f"PATH={path}"])

    def test_failures_are_those_of_the_system(self):
        plain = self.folder / "plain"
        plain.write_text("x")
        (self.folder / "binary").write_bytes(b"\x7fELF nonsense")
        (self.folder / "binary").chmod(0o755)
        cases = [([str(self.folder / "missing")], {}, FileNotFoundError, 231),
                 ([str(plain)], {}, PermissionError, 230),
                 ([str(plain / "below")], {}, NotADirectoryError, 231),
                 ([str(self.folder / "empty")], {}, PermissionError, 230),
                 (["x" * 300], {}, OSError, 230),
                 ([str(self.folder / "binary")], {}, OSError, 230),
                 (["/bin/true", "x" * 200000], {}, OSError, 230),
                 (["/bin/true"], {"folder": str(plain)}, NotADirectoryError, 232),
                 (["/bin/true"], {"folder": str(self.folder / "missing")}, FileNotFoundError, 232)]
        for arguments, how, error, number in cases:
            with self.subTest(arguments=arguments[0][:40], how=how):
                with self.assertRaises(error) as raised:
                    self.theirs(arguments, **how)
                answer = self.ours(arguments, **how)
                self.assertTrue(failed(answer), answer)
                self.assertEqual(answer[0], number, answer)
                if number != 231 and raised.exception.errno != errno.ENOEXEC:
                    self.assertIn(os.strerror(raised.exception.errno), answer[1])

    def test_a_limit_ends_the_tree(self):
        answer = self.ours(["/bin/sh", "-c", "sleep 1000 & sleep 1000"], tree=1, limit=100)
        self.assertEqual(answer[0], 239)

    def test_signals(self):
        """What is ignored stays so, but for those whose default programs rely on."""
        def ignored(text):
            line = next(line for line in text.splitlines() if line.startswith(b"SigIgn"))
            return int(line.split()[1], 16)
        ours = ignored(decode(self.ours(["/bin/cat", "/proc/self/status"])[2]))
        self.assertEqual(ours & (1 << (signal.SIGPIPE - 1) | 1 << (signal.SIGCHLD - 1)), 0)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--count", type=int, default=60)
    parser.add_argument("--seed", type=int, default=1)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
