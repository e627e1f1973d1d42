"""Runs the tool under test, for the Python tests: directly, or under Wine if it is a Windows program."""

import os
import re
import shutil
import tempfile
from pathlib import Path

NOBODY = 65534

# Texts of Wine and Windows that differ from those of POSIX. The tests use only the wording of POSIX.
REASONS = {
    b"File not found": b"No such file or directory",
    b"The system cannot find the file specified": b"No such file or directory",
    b"Path not found": b"No such file or directory",
    b"The system cannot find the path specified": b"No such file or directory",
    b"error 336": b"Is a directory",  # Wine has no text for it
    b"An operation is not supported on a directory": b"Is a directory",
}
REASON = re.compile(b"|".join(map(re.escape, REASONS)))


def public_folder():
    """A temporary folder that every user may enter. The usual place may be in a private folder."""
    for place in map(Path, (tempfile.gettempdir(), "/tmp", "/var/tmp")):
        if place.is_dir() and all(folder.stat().st_mode & 0o001 for folder in (place.resolve(), *place.resolve().parents)):
            folder = tempfile.TemporaryDirectory(prefix="qor.", dir=place)
            os.chmod(folder.name, 0o755)
            return folder
    raise RuntimeError("this host has no temporary folder that every user may enter")


def copy_programs(source, folder):
    """Copies the tool and the files that it loads out of the build's folder `source`, which other users may not be able
    to enter. Returns the tool's path."""
    for name in ("qortool", "libqor.so"):
        shutil.copy(source / name, folder)
    shutil.copytree(source / "qor", folder / "qor")
    return folder / "qortool"


def linked(library, folder):
    """Returns a path of the library for lists that are split at blanks and colons, such as LD_PRELOAD and PAM's rules:
    a link in this temporary folder."""
    link = Path(folder) / Path(library).name
    if not link.exists():
        link.symlink_to(Path(library).resolve())
    return link


def as_nobody():
    """Returns the options with which subprocess starts a program as a user without rights. A test that does not run as
    root is such a user."""
    return {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}


def add_options(parser):
    parser.add_argument("--tool", help="the program to run")
    parser.add_argument("--runner", help="what starts the program, where it is another system's")


class Tool:
    def __init__(self, path, runner=None):
        self.path = Path(path).resolve()
        self.command = [*filter(None, [runner]), str(self.path)]
        self.for_windows = self.path.suffix == ".exe"

    def environment(self):
        """Returns a clean environment in which the tool speaks English."""
        wanted = {"PATH": os.defpath, "LC_ALL": "C.UTF-8" if self.for_windows else "C"}
        # These variables tell an instrumented tool how to report.
        wanted.update((name, value) for name, value in os.environ.items() if name.endswith("SAN_OPTIONS"))
        return wanted

    def printed(self, data):
        """Returns the tool's output as it would be on POSIX. A line end that is not this system's is marked."""
        if not self.for_windows:
            return data
        data = re.sub(rb"(\r?)\n", lambda end: b"\n" if end[1] else b"<no CR>\n", data)
        return REASON.sub(lambda found: REASONS[found[0]], data)
