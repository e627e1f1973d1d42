"""What the scripts that make packages share."""

import os
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]


class Fault(Exception):
    pass


def run(*words, **more):
    """Runs a program, and returns what it has printed."""
    done = subprocess.run(list(map(str, words)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", **more)
    if done.returncode != 0:
        raise Fault(f"{done.stdout}{words[0]} ends with {done.returncode}")
    return done.stdout


def files_in(folder):
    return sorted(path.relative_to(folder).as_posix() for path in folder.rglob("*")
                  if path.is_symlink() or path.is_file())


LAST_TIME = 2**32 - 1  # that the form of gzip knows


def time_of_entries(first=0, last=LAST_TIME):
    """Returns SOURCE_DATE_EPOCH, not before `first`."""
    text = os.environ.get("SOURCE_DATE_EPOCH", str(first))
    if not text.isascii() or not text.isdecimal() or int(text) > last:
        raise Fault(f"SOURCE_DATE_EPOCH: {text!r} is not a number of seconds up to {last}")
    return max(int(text), first)


def print_made(make, *faults):
    """Runs `make`, prints the paths of the packages that it returns, and returns the exit code."""
    try:
        made = make()
    except (Fault, OSError, *faults) as fault:
        print(f"{Path(sys.argv[0]).name}: {fault}", file=sys.stderr)
        return 1
    for each in made:
        print(each)
    return 0
