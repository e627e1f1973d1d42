#!/usr/bin/env python3
"""Makes the packages for Windows from a finished build: an installer, a zip with the same files, and a zip with the
debug information.

    pack.py --build FOLDER --version VERSION --out FOLDER [--cmake PROGRAM]

SOURCE_DATE_EPOCH is the time of the entries. The same files and the same time give the same packages, byte by byte.

QOR_SIGN is a command that signs: it gets each program and library as its last word and changes it in place. It is
called for the programs and libraries first, then for the uninstaller, and last for the installer.
"""

import argparse
import os
import shlex
import shutil
import sys
import tempfile
import time
import zipfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.append(str(HERE.parent))
import notices  # noqa: E402  # in packages
from packing import TREE, Fault, files_in, print_made, run, time_of_entries  # noqa: E402  # in packages

# The form of zip knows the years from 1980 to 2107.
FIRST_TIME = 315532800
LAST_TIME = 4354819199


def expected_files():
    """Returns the files that the packages have to contain, by packages/windows/files."""
    found = set()
    for number, line in enumerate((HERE / "files").read_text(encoding="utf-8").splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        place, _, pattern = line.partition(" = ")
        if not pattern:
            found.add(place)
            continue
        folder, _, names = pattern.partition("/*")
        paths = [path for path in (TREE / folder).glob("*" + names) if path.is_file()]
        if not paths:
            raise Fault(f"{HERE / 'files'}: line {number}: no file is {pattern}")
        found |= {place + path.relative_to(TREE / folder).as_posix() for path in paths}
    return found


def compare(found):
    """The packages contain what the list says: a new file is a decision, not an accident."""
    expected = expected_files()
    faults = [f"{each} is not in {HERE / 'files'}" for each in sorted(set(found) - expected)]
    faults += [f"{each} is missing" for each in sorted(expected - set(found))]
    if faults:
        raise Fault("\n".join(faults))


def is_signed(name):
    return name.endswith((".exe", ".dll"))


def write_zip(path, top, folder, when):
    """Entries are in order, and have the same time and no rights."""
    stamp = time.gmtime(when)[:6]
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as out:
        for name in files_in(folder):
            entry = zipfile.ZipInfo(f"{top}/{name}", stamp)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 0
            out.writestr(entry, (folder / name).read_bytes(), compresslevel=9)


def write_lists(names, stage, folder):
    """Writes the parts of the installer that name the files. A $ begins a variable there."""
    lists = {"install": [], "remove": [], "folders": []}
    last = None
    for name in names:
        where, _, file = name.rpartition("/")
        target = "$INSTDIR" + ("\\" + where.replace("/", "\\") if where else "")
        if target != last:
            lists["install"].append(f'SetOutPath "{target}"')
            last = target
        lists["install"].append(f'File "/oname={file}" "{stage / name}"')
        lists["remove"].append(f'Delete "{target}\\{file}"')
    folders = {parent.as_posix() for name in names for parent in Path(name).parents} - {"."}
    for each in sorted(folders, key=lambda each: (-each.count("/"), each)):
        lists["folders"].append('RMDir "$INSTDIR\\' + each.replace("/", "\\") + '"')
    for name, lines in lists.items():
        (folder / f"{name}.nsh").write_text("".join(line + "\n" for line in lines), encoding="utf-8")


def signing_command():
    try:
        return shlex.split(os.environ.get("QOR_SIGN", ""))
    except ValueError as fault:
        raise Fault(f"QOR_SIGN: {fault}") from None


def sign(path):
    command = signing_command()
    if command:
        run(*command, path)


def make(options, work):
    when = time_of_entries(FIRST_TIME, LAST_TIME)
    environment = {**os.environ, "SOURCE_DATE_EPOCH": str(when)}
    stage, debug, lists = work / "stage", work / "debug", work / "lists"
    lists.mkdir()
    run(options.cmake, "--install", options.build, "--prefix", stage)
    run(options.cmake, "--install", options.build, "--prefix", debug, "--component", "debug")

    entries = notices.read(system="windows")
    (stage / "licences").mkdir()
    for name in notices.texts(entries):
        shutil.copyfile(notices.FOLDER / name, stage / "licences" / name)
    title = f"qor {options.version} for 64-bit Windows"
    (stage / "THIRD-PARTY-NOTICES.txt").write_text(notices.document(entries, title, "licences"), encoding="utf-8")

    names = files_in(stage)
    compare(names)
    path_entry = work / "path-entry.exe"
    shutil.copyfile(options.build / "installer/path-entry.exe", path_entry)
    for name in names:
        if is_signed(name):
            sign(stage / name)
    sign(path_entry)

    top = f"qor-{options.version}"
    (work / "out").mkdir()
    base = work / "out" / f"{top}-windows-x86_64"
    installer = Path(f"{base}-setup.exe")
    write_lists(names, stage, lists)
    size = sum((stage / name).stat().st_size for name in names)
    definitions = {"VERSION": options.version, "NUMBERS": options.version + ".0", "STAGE": stage, "LISTS": lists,
                   "PATH_ENTRY": path_entry, "OUT": installer, "SIZE": size // 1024}
    if signing_command():
        # makensis has quotes and variables of its own, so it gets the command in a file.
        definitions["SIGN"] = work / "sign"
        definitions["SIGN"].write_text(f'exec {shlex.join(signing_command())} "$1"\n', encoding="utf-8")
    defined = (f"-D{name}={value}" for name, value in definitions.items())
    run("makensis", "-V2", "-WX", "-INPUTCHARSET", "UTF8", *defined, HERE / "qor.nsi", env=environment)
    sign(installer)
    write_zip(f"{base}.zip", top, stage, when)
    write_zip(f"{base}-debug.zip", top, debug, when)
    # There are all packages or none.
    options.out.mkdir(parents=True, exist_ok=True)
    made = (Path(f"{base}.zip"), Path(f"{base}-debug.zip"), installer)
    return [shutil.move(each, options.out / each.name) for each in made]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--cmake", default="cmake")
    options = parser.parse_args()
    options.build, options.out = options.build.resolve(), options.out.resolve()
    with tempfile.TemporaryDirectory(prefix="qor.") as work:
        return print_made(lambda: make(options, Path(work).resolve()), notices.Fault)


if __name__ == "__main__":
    sys.exit(main())
