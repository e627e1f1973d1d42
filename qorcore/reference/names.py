#!/usr/bin/env python3
"""Makes one list of all names of the reference, for find.js, and removes Doxygen's search, which it replaces.

    names.py HTML       the folder of the pages
"""

import ast
import html
import json
import re
import sys
from pathlib import Path


def read_names(folder):
    """Yields (name, link, scope) of each entry in Doxygen's index."""
    for path in sorted((folder / "search").glob("all_*.js")):
        entries = re.search(r"=\s*(\[.*\]);", path.read_text(), re.S).group(1)
        for _, (name, *places) in ast.literal_eval(entries):
            for link, _, scope in places:
                yield html.unescape(name), link.removeprefix("../"), html.unescape(scope)


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
