#!/usr/bin/env python3
"""Makes the tar for Linux from a finished build: everything that is installed, install.sh, and the notices.

    pack.py --build FOLDER --version VERSION --out FOLDER [--cmake PROGRAM]

SOURCE_DATE_EPOCH is the time of the entries. The same files and the same time give the same tar, byte by byte.
"""

import argparse
import gzip
import platform
import shutil
import sys
import tarfile
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.append(str(HERE.parent))
from packing import TREE, Fault, print_made, run, time_of_entries  # noqa: E402  # in packages

def write_tar(path, top, folder, when):
    """Entries are in order, have the same time, and belong to root."""
    def entry(info):
        info.uid = info.gid = 0
        info.uname = info.gname = "root"
        info.mtime = when
        if not info.issym():
            is_run = info.isdir() or (info.mode & 0o100 and not info.name.endswith(".so"))
            info.mode = 0o755 if is_run else 0o644
        return info

    with path.open("wb") as file, gzip.GzipFile("", "wb", 9, file, mtime=when) as packed, \
            tarfile.open(fileobj=packed, mode="w", format=tarfile.GNU_FORMAT) as out:
        for each in [folder, *sorted(folder.rglob("*"), key=lambda each: each.as_posix())]:
            name = top if each == folder else f"{top}/{each.relative_to(folder).as_posix()}"
            out.add(each, name, recursive=False, filter=entry)


def make(options):
    when = time_of_entries()
    top = f"qor-{options.version}-linux-{platform.machine()}"
    with tempfile.TemporaryDirectory(prefix="qor.") as work:
        stage = Path(work).resolve() / "stage"
        run(options.cmake, "--install", options.build, "--prefix", stage, "--strip")
        for name in ("bin/qortool", "share/doc/qor/THIRD-PARTY-NOTICES", "share/doc/qor/reference/index.html"):
            if not (stage / name).is_file():
                raise Fault(f"{options.build} does not install {name}")
        shutil.copy(HERE / "install.sh", stage)
        shutil.copy(TREE / "LICENCE", stage / "share/doc/qor")
        made = Path(work) / f"{top}.tar.gz"
        write_tar(made, top, stage, when)
        options.out.mkdir(parents=True, exist_ok=True)
        return [shutil.copy(made, options.out / made.name)]


def parse():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--cmake", default="cmake")
    options = parser.parse_args()
    options.build, options.out = options.build.resolve(), options.out.resolve()
    return options


if __name__ == "__main__":
    parsed = parse()
    sys.exit(print_made(lambda: make(parsed)))
