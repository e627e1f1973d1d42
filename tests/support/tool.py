"""The tool under test, as the tests in Python run it: directly, or where it is a Windows program, under Wine."""

import os
import re
from pathlib import Path

# What Wine and Windows say where POSIX says something else. The tests know one wording, that of POSIX.
REASONS = {
    b"File not found": b"No such file or directory",
    b"The system cannot find the file specified": b"No such file or directory",
    b"Path not found": b"No such file or directory",
    b"The system cannot find the path specified": b"No such file or directory",
    b"error 336": b"Is a directory",  # Wine has no words for it
    b"An operation is not supported on a directory": b"Is a directory",
}
REASON = re.compile(b"|".join(map(re.escape, REASONS)))


def add_options(parser):
    parser.add_argument("--tool", help="the program to run")
    parser.add_argument("--runner", help="what starts the program, where it is another system's")


class Tool:
    def __init__(self, path, runner=None):
        self.path = Path(path).resolve()
        self.command = [*filter(None, [runner]), str(self.path)]
        self.for_windows = self.path.suffix == ".exe"

    def environment(self):
        """A clean one, in which the tool speaks English."""
        wanted = {"PATH": os.defpath, "LC_ALL": "C.UTF-8" if self.for_windows else "C"}
        # An instrumented tool is told through these how to report.
        wanted.update((name, value) for name, value in os.environ.items() if name.endswith("SAN_OPTIONS"))
        return wanted

    def printed(self, data):
        """What the tool printed, as it prints it on POSIX. A line end that is not this system's stands out."""
        if not self.for_windows:
            return data
        data = re.sub(rb"(\r?)\n", lambda end: b"\n" if end[1] else b"<no CR>\n", data)
        return REASON.sub(lambda found: REASONS[found[0]], data)
