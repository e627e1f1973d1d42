#!/usr/bin/env python3
"""Runs qortool and the plain replay on the same logs and requires equal bytes on both streams.

    compare.py --tool PATH [--runner PROGRAM] [--count N] [--seed S] [--keep FOLDER]

First come the cases of corpus/: each folder holds an `mtrace` log, a `memcheck` log or both, and for at least one run
the hand-checked expected output, RUN.out and RUN.err, where RUN is `mtrace`, `joined` or `memcheck`. Both replays must
match those files, so that a mistake that both make is still found. Then come N generated pairs with the seeds S, S+1,
... A pair with different output is kept in FOLDER.
"""

import argparse
import difflib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import generate
import replay

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
import tool as under_test  # noqa: E402  # in tests/support

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
RUNS = {
    "mtrace": ("mtrace", ("mtrace",)),
    "joined": ("mtrace", ("mtrace", "memcheck")),
    "memcheck": ("memcheck", ("memcheck",)),
}
TIMEOUT_SECONDS = 120
DIFF_LINES = 20


def possible_runs(folder):
    """Yields (run, action, log paths) for every run that the logs in a folder allow."""
    for run, (action, logs) in RUNS.items():
        paths = [folder / log for log in logs]
        if all(path.exists() for path in paths):
            yield run, action, paths


def show_difference(title, expected, actual, expected_name, actual_name):
    print(title)
    lines = difflib.unified_diff(
        [repr(line)[2:-1] for line in expected.splitlines(keepends=True)],
        [repr(line)[2:-1] for line in actual.splitlines(keepends=True)],
        expected_name,
        actual_name,
        lineterm="",
        n=1,
    )
    for number, line in enumerate(lines):
        if number == DIFF_LINES:
            print("  ...")
            break
        print("  " + line[:300])


def run_tool(tool, action, paths):
    """Returns (standard output, standard error, exit code) of one quiet run."""
    done = subprocess.run(
        [*tool.command, "--quiet", action, *paths], stdin=subprocess.DEVNULL, capture_output=True, timeout=TIMEOUT_SECONDS,
        env=tool.environment(),
    )
    return tool.printed(done.stdout), tool.printed(done.stderr), done.returncode


def compare_run(tool, title, action, paths):
    """Returns whether both write the same, and the output of the plain replay."""
    out, err = replay.replay(action, *paths)
    tool_out, tool_err, code = run_tool(tool, action, paths)
    agree = True
    for stream, expected, actual in (("out", out, tool_out), ("err", err, tool_err)):
        if expected != actual:
            show_difference(f"{title}: standard {stream} differs", expected, actual, "replay.py", "qortool")
            agree = False
    if code != 0:
        print(f"{title}: qortool ended with {code}")
        agree = False
    return agree, {"out": out, "err": err}


def compare_corpus(tool):
    """Returns (number of agreeing cases, number of cases) of the corpus."""
    good = total = 0
    for folder in sorted(path for path in CORPUS.iterdir() if path.is_dir()):
        total += 1
        agree = True
        checked = 0
        for run, action, paths in possible_runs(folder):
            same, written = compare_run(tool, f"corpus/{folder.name} {run}", action, paths)
            agree = agree and same
            if not (folder / f"{run}.out").exists():
                continue
            checked += 1
            for stream, actual in written.items():
                expected = (folder / f"{run}.{stream}").read_bytes()
                if expected != actual:
                    title = f"corpus/{folder.name} {run}: replay.py misses the expected standard {stream}"
                    show_difference(title, expected, actual, f"{run}.{stream}", "replay.py")
                    agree = False
        if checked == 0:
            print(f"corpus/{folder.name}: no expected output")
            agree = False
        good += agree
    return good, total


def compare_seed(tool, seed, keep):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        for log, data in zip(("mtrace", "memcheck"), generate.generate(seed)):
            (folder / log).write_bytes(data)
        # Every run is done, so that one report shows all faults of a pair.
        results = [
            compare_run(tool, f"seed {seed} {run}", action, paths)[0] for run, action, paths in possible_runs(folder)
        ]
        if all(results):
            return True
        kept = keep / f"seed-{seed}"
        kept.mkdir(parents=True, exist_ok=True)
        for log in ("mtrace", "memcheck"):
            shutil.copy(folder / log, kept / log)
        print(f"seed {seed}: the pair is kept in {kept}")
        return False


def main():
    parser = argparse.ArgumentParser(description="Compares qortool with the plain replay, byte for byte.")
    under_test.add_options(parser)
    parser.add_argument("--count", type=int, default=600 if "QOR_TEST_WHOLE" in os.environ else 150,
                        help="how many generated pairs (default 150; 600 with QOR_TEST_WHOLE)")
    parser.add_argument("--seed", type=int, default=1, help="the first seed (default 1)")
    default = pathlib.Path(tempfile.gettempdir()) / "qor-replay"
    parser.add_argument("--keep", type=pathlib.Path, default=default, help=f"where pairs that differ go ({default})")
    options = parser.parse_args()
    tool = under_test.Tool(options.tool, options.runner)

    good, total = compare_corpus(tool)
    print(f"{good} of {total} corpus cases agree")
    pairs = sum(compare_seed(tool, options.seed + i, options.keep) for i in range(options.count))
    print(f"{pairs} pairs agree" + (f", {options.count - pairs} differ" if pairs < options.count else ""))
    return 0 if pairs > 0 and pairs == options.count and total > 0 and good == total else 1


if __name__ == "__main__":
    sys.exit(main())
