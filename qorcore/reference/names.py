#!/usr/bin/env python3
"""Completes the pages of the reference: makes one list of all names, for find.js, removes Doxygen's search, which it
replaces, gives the pages of folders names that do not depend on where the tree lies, and takes wrong links away.

    names.py HTML       the folder of the pages
"""

import ast
import html
import json
import re
import sys
from pathlib import Path

LINK_TO_VALUE = re.compile(r'<a class="(?:el|code hl_enumvalue)" href="[^"#]*#(?:gg)?a[0-9a-f]{32}a[0-9a-f]{32}">'
                           r'((?!qor)[a-z]\w*)</a>')
UNTYPED = re.compile(r'<td class="mem(Templ)?ItemLeft"([^>]*>(?:<a id="[^"]*" name="[^"]*"></a>)?\s*&#160;</td>)')


def read_names(folder):
    """Yields (name, link, scope) of each entry in Doxygen's index."""
    for path in sorted((folder / "search").glob("all_*.js")):
        entries = re.search(r"=\s*(\[.*\]);", path.read_text(), re.S).group(1)
        for _, (name, *places) in ast.literal_eval(entries):
            for link, _, scope in places:
                yield html.unescape(name), link.removeprefix("../"), html.unescape(scope)


def rename_folders(folder):
    """"dir_<sum>.html", with the sum of the folder's whole path, becomes "dir_qor_system.html"."""
    new = {}
    for path in folder.glob("dir_*.html"):
        title = re.search(r"<title>qor: (.*) Directory Reference</title>", path.read_text()).group(1)
        new[path.stem] = "dir_" + re.sub(r"\W", "_", html.unescape(title))
    for path in [*folder.glob("*.html"), *folder.glob("*.js")]:
        text = path.read_text()
        changed = re.sub(r"\bdir_[0-9a-f]{32}\b", lambda found: new[found.group()], text)
        if changed != text:
            path.write_text(changed)
    for old, name in new.items():
        (folder / f"{old}.html").rename(folder / f"{name}.html")


def correct(folder):
    """Takes wrong links away: Doxygen takes parameters and members for values of scoped enumerations that have the same
    name, though such a value always stands behind the name of its enumeration. The style gets to know where no type is.
    """
    for path in folder.glob("*.html"):
        text = path.read_text()
        changed = UNTYPED.sub(r'<td class="mem\1ItemLeft untyped"\2', LINK_TO_VALUE.sub(r"\1", text))
        if changed != text:
            path.write_text(changed)


class Pages:
    """Which places the pages have: Doxygen lists members of nameless structs at places that are not there."""

    def __init__(self, folder):
        self.folder, self.places = folder, {}

    def whole(self, link):
        page, _, place = link.partition("#")
        if page not in self.places:
            self.places[page] = set(re.findall(r'\bid="([^"]+)"', (self.folder / page).read_text()))
        return link if place in self.places[page] else page


def main():
    folder = Path(sys.argv[1])
    rename_folders(folder)
    correct(folder)
    pages = Pages(folder)
    names = sorted({(name, pages.whole(link), scope) for name, link, scope in read_names(folder)})
    if len(names) < 1000:
        sys.exit(f"{folder}: only {len(names)} names in the index of the search")
    lines = ",\n".join(json.dumps(entry, ensure_ascii=False) for entry in names)
    (folder / "names.js").write_text(f"const qorNames = [\n{lines}\n];\n")
    for path in (folder / "search").glob("*_*.*"):
        path.unlink()


if __name__ == "__main__":
    main()
