"""The notices of the software that packages contain: packages/notices/list says what that is, and the texts of the
licences lie beside it."""

import re
from pathlib import Path

FOLDER = Path(__file__).resolve().parent / "notices"
FIELDS = {"Name", "Use", "Licence", "Text", "Archives", "Headers", "Files"}
# Fields with several words.
MANY = {"Text", "Archives", "Headers", "Files"}


class Fault(Exception):
    pass


def read(path=FOLDER / "list"):
    """Returns the entries of the list: dictionaries with all of FIELDS; those of MANY are lists of words."""
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
        entries.append(entry)
    return entries


def texts(entries):
    """Returns the names of the files with texts, each once, in the order of the entries."""
    return list(dict.fromkeys(name for entry in entries for name in entry["Text"]))


def document(entries, title):
    """Returns the text of the file THIRD-PARTY-NOTICES."""
    out = [title, "",
           "It contains software of others, under the following licences. The whole texts are below, and in the folder",
           "licences.", ""]
    for entry in entries:
        out += ["-" * 80, "", entry["Name"], "",
                f"  Use:      {entry['Use']}", f"  Licence:  {entry['Licence']}",
                f"  Text:     {', '.join('licences/' + name for name in entry['Text'])}", ""]
        if entry["Files"]:
            out[-1:] = [f"  Files:    {', '.join(entry['Files'])}", ""]
    for name in texts(entries):
        out += ["=" * 80, "", f"licences/{name}", "", (FOLDER / name).read_text(encoding="utf-8").rstrip(), ""]
    return "\n".join(out)
