#!/usr/bin/env python3
"""Makes the packages for Debian: copies the tree, puts this folder into the copy as `debian`, and builds there by
Debian's tools.

    pack.py --work FOLDER --out FOLDER [--jobs N] [--build FOLDER | --arch NAME]

With --build, the packages get the files of that finished build, compiled as it was; for tests of the packages. With
--arch, they are for the processor that Debian calls so, and are cross-built in a Debian that is made for it and goes away
afterwards; those that are the same for all processors are not built then.

WORK keeps the copy and its objects, so that only changed sources are compiled again. SOURCE_DATE_EPOCH, otherwise the
time of the newest entry of the changelog, is the time of the files in the packages. The same tree and the same time
give the same packages, byte by byte, wherever WORK lies; the lists of what was built and how (.buildinfo, .changes)
name the host's own packages.
"""

import argparse
import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.append(str(HERE.parent))
from packing import TREE, Fault, print_made, run, time_of_entries  # noqa: E402  # in packages

# What the copy has besides the files of the tree.
KEPT = {"debian"}

# The Debian whose packages others are cross-built with.
SUITE = "bookworm"


def version():
    """Returns the version of the tree and that of the packages: the changelog has to go on with that of the tree."""
    header = (TREE / "qorcore/include/qor/system/Version.h").read_text()
    tree = ".".join(re.findall(r"^#define QOR_VERSION_[A-Z]+ (\d+)$", header, re.M))
    first = (HERE / "changelog").read_text(encoding="utf-8").split("\n", 1)[0]
    entry = re.match(r"qor \((\S+)-([^\s-]+)\) ", first)
    if not entry or entry.group(1) != tree:
        raise Fault(f"{HERE / 'changelog'}: the first entry is {first!r}, and the version of the tree is {tree}")
    return tree, "-".join(entry.groups())


def files_of_tree():
    """Returns what git would commit; of a tree without history, all files outside of its builds."""
    listed = subprocess.run(["git", "-C", TREE, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    if listed.returncode == 0:
        names = filter(None, listed.stdout.decode().split("\0"))
    else:
        names = (path.relative_to(TREE).as_posix() for path in TREE.rglob("*"))
        names = (name for name in names if not re.match(r"(build|\.git)/|(.*/)?__pycache__/", name))
    return {name for name in names if (TREE / name).is_symlink() or (TREE / name).is_file()}


def is_same(left, right):
    if left.is_symlink() or right.is_symlink():
        return left.is_symlink() and right.is_symlink() and os.readlink(left) == os.readlink(right)
    return right.is_file() and left.stat().st_mode == right.stat().st_mode and left.read_bytes() == right.read_bytes()


def copy_tree(to):
    """Brings the copy up to date. Files that are the same keep their time, so they are not compiled again."""
    wanted = files_of_tree()
    to.mkdir(parents=True, exist_ok=True)
    for folder, folders, files in os.walk(to):
        inside = Path(folder).relative_to(to)
        if inside == Path("."):
            folders[:] = [name for name in folders if name not in KEPT and not name.startswith("obj-")]
        for name in files + [name for name in folders if (Path(folder) / name).is_symlink()]:
            if (inside / name).as_posix() not in wanted:
                (Path(folder) / name).unlink()
    for name in wanted:
        source, target = TREE / name, to / name
        if not is_same(source, target):
            target.parent.mkdir(parents=True, exist_ok=True)
            target.unlink(missing_ok=True)
            shutil.copy(source, target, follow_symlinks=False)


def copy_rules(to):
    shutil.rmtree(to, ignore_errors=True)
    shutil.copytree(HERE, to, ignore=shutil.ignore_patterns("pack.py", "__pycache__"))
    # The licence stands in one place.
    lines = (TREE / "LICENCE").read_text(encoding="utf-8").rstrip().splitlines()
    field = "\n".join(f" {line}" if line else " ." for line in lines)
    path = to / "copyright"
    path.write_text(path.read_text(encoding="utf-8").replace("@LICENCE@", field), encoding="utf-8")


BUILD = ["dpkg-buildpackage", "--no-pre-clean", "--unsigned-changes", "--unsigned-buildinfo"]
PROFILES = "cross,nocheck"


def build_for(arch, options, source, environment):
    """Cross-builds in a Debian with the libraries of both processors; the host keeps its own packages."""
    own = run("dpkg", "--print-architecture").strip()
    kept = ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND=noninteractive"]
    kept += [f"{name}={environment[name]}" for name in ("LC_ALL", "TZ", "DEB_BUILD_OPTIONS")]
    kept += [f"SOURCE_DATE_EPOCH={os.environ['SOURCE_DATE_EPOCH']}"] if "SOURCE_DATE_EPOCH" in os.environ else []
    folder = f"/work/{source.name}"
    steps = [f"apt-get -y -qq -o Dpkg::Use-Pty=0 --host-architecture {arch} -P {PROFILES} build-dep {folder}",
             f"cd {folder}", shlex.join([*BUILD, "--build=any", f"--host-arch={arch}", f"--build-profiles={PROFILES}"]),
             f"mkdir /made && mv /work/*_{arch}.* /made"]
    inside = shlex.join(["sh", "-ec", "\n".join(steps)])
    run("mmdebstrap", "--quiet", "--variant=apt", "--format=null", "--dpkgopt=force-unsafe-io",
        f"--architectures={own},{arch}", f"--include=crossbuild-essential-{arch},qemu-user",
        "--customize-hook=mkdir \"$1/work\"",
        f"--customize-hook=copy-in {shlex.quote(str(source))} /work",
        f"--customize-hook={shlex.join(kept)} chroot \"$1\" {inside}",
        f"--customize-hook=sync-out /made {shlex.quote(str(options.work))}", SUITE, "/dev/null")


def make(options):
    upstream, package_version = version()
    time_of_entries()  # Debian's tools do not check it
    source = options.work / f"qor-{upstream}"
    copy_tree(source)
    copy_rules(source / "debian")
    for old in options.work.glob(f"*_{package_version}*"):
        old.unlink()

    environment = {name: value for name, value in os.environ.items() if name not in ("DEB_BUILD_OPTIONS", "LANGUAGE")}
    environment |= {"LC_ALL": "C.UTF-8", "TZ": "UTC", "DEB_BUILD_OPTIONS": f"parallel={options.jobs}"}
    if options.build:
        environment["QOR_BUILD"] = str(options.build.resolve())
    os.umask(0o022)
    if options.arch:
        build_for(options.arch, options, source, environment)
    else:
        run(*BUILD, "--build=binary", cwd=source, env=environment)

    options.out.mkdir(parents=True, exist_ok=True)
    made = sorted(options.work.glob(f"*_{package_version}*"))
    return [shutil.copy(each, options.out / each.name) for each in made]


def parse():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", type=Path, required=True)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--build", type=Path)
    where.add_argument("--arch")
    options = parser.parse_args()
    options.work, options.out = options.work.resolve(), options.out.resolve()
    return options


if __name__ == "__main__":
    parsed = parse()
    sys.exit(print_made(lambda: make(parsed)))
