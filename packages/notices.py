#!/usr/bin/env python3
"""The notices of the software that packages contain: packages/notices/list says what that is, and the texts of the
licences lie beside it.

    notices.py --system linux|windows --title TITLE --out FILE [--contained FILE...]

writes the file THIRD-PARTY-NOTICES; with `--contained`, of these programs and libraries alone.
"""

import argparse
import re
import sys
from pathlib import Path

FOLDER = Path(__file__).resolve().parent / "notices"
FIELDS = {"Name", "Use", "Windows", "Linux", "Licence", "Text", "Archives", "Headers", "Files"}
# Fields with several words.
MANY = {"Windows", "Linux", "Text", "Archives", "Headers", "Files"}
SYSTEMS = {"windows": "Windows", "linux": "Linux"}


class Fault(Exception):
    pass


def read(path=FOLDER / "list", system=None):
    """Returns the entries of the list: dictionaries with all of FIELDS; those of MANY are lists of words. With a
    system, those alone that its files contain, and `In` is where."""
    entries = []
    text = re.sub(r"^#.*\n", "", path.read_text(encoding="utf-8"), flags=re.M).strip()
    for number, block in enumerate(re.split(r"\n\s*\n", text), 1):
        entry = {name: "" for name in FIELDS}
        for line in re.sub(r"\n[ \t]+", " ", block).splitlines():
            name, colon, value = line.partition(":")
            if not colon or name not in FIELDS or entry[name]:
                raise Fault(f"{path}: entry {number}: {line!r} is not a field, or is there twice")
            entry[name] = value.strip()
        for name in ("Name", "Use", "Licence", "Text"):
            if not entry[name]:
                raise Fault(f"{path}: entry {number} has no {name}")
        entry.update((name, entry[name].split()) for name in MANY)
        if not any(entry[name] for name in SYSTEMS.values()):
            raise Fault(f"{path}: entry {number} is in no file of any system")
        entries.append(entry)
    if system is None:
        return entries
    field = SYSTEMS[system]
    return [entry | {"In": entry[field]} for entry in entries if entry[field]]


def texts(entries):
    """Returns the names of the files with texts, each once, in the order of the entries."""
    return list(dict.fromkeys(name for entry in entries for name in entry["Text"]))


def document(entries, title, folder=""):
    """Returns the text of the file THIRD-PARTY-NOTICES, for entries of a system. The folder has the texts, too."""
    out = [title, "", "It contains software of others, under the following licences. The whole texts are below"
           + (f", and in the folder\n{folder}." if folder else "."), ""]
    place = f"{folder}/" if folder else ""
    for entry in entries:
        files = "all programs and libraries" if entry["In"] == ["all"] else ", ".join(entry["In"])
        out += ["-" * 80, "", entry["Name"], "", f"  Use:      {entry['Use']}", f"  In:       {files}",
                f"  Licence:  {entry['Licence']}",
                f"  Text:     {', '.join(place + name for name in entry['Text'])}", ""]
        if entry["Files"]:
            out[-1:] = [f"  Files:    {', '.join(entry['Files'])}", ""]
    for name in texts(entries):
        out += ["=" * 80, "", f"{place}{name}", "", (FOLDER / name).read_text(encoding="utf-8").rstrip(), ""]
    return "\n".join(out)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--system", choices=SYSTEMS, required=True)
    parser.add_argument("--title", required=True)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--contained", nargs="*")
    options = parser.parse_args()
    try:
        entries = read(system=options.system)
    except (Fault, OSError) as fault:
        print(f"notices.py: {fault}", file=sys.stderr)
        return 1
    if options.contained is not None:
        entries = [entry for entry in entries if entry["In"] == ["all"] or set(entry["In"]) & set(options.contained)]
    options.out.write_text(document(entries, options.title), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
