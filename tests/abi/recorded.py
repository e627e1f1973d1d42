"""What tests/abi compares: facts, a line each, with those of a recorded file."""

import sys


def compare(now, path, update, least):
    """Prints what differs, or records it. Returns the exit code. `least` is how many facts there are at least: fewer
    mean that they were not found."""
    if update:
        path.write_text("".join(line + "\n" for line in now))
        return 0
    recorded = path.read_text().splitlines()
    gone, new = sorted(set(recorded) - set(now)), sorted(set(now) - set(recorded))
    for line in gone:
        print(f"changed or gone: {line}")
    for line in new:
        print(f"new: {line}")
    if gone or new:
        print(f"To record additions: {' '.join(map(str, sys.argv))} --update")
    print(f"{len(now)} facts")
    return 1 if gone or new or len(now) < least else 0
