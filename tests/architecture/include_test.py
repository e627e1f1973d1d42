#!/usr/bin/env python3
"""Compares the includes of the tree with the tables of docs/architecture.md. A folder includes from exactly the folders
that its row names, no file includes itself by way of others, and no folders depend on each other in a circle. The
public headers, which every folder may include, have no row."""

import re
import sys
import tempfile
import unittest
from pathlib import Path, PurePosixPath

ROOT = Path(__file__).resolve().parents[2]
PUBLIC = PurePosixPath("qorcore/include")
SCANNED = ("qorcore/src", "qorcore/modules", "qorcore/include", "util")
SOURCES = {".h", ".cpp", ".def"}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)  # includes in <> name headers of others
TABLE = re.compile(r"^\| folder of `([^`]+)` \|[^|]*\| may use \|\n\|[-|]+\|\n((?:\|.*\|\n)+)", re.MULTILINE)


def unit_of(path):
    """Returns the folder that a file counts for; the public headers are one folder."""
    return PUBLIC if path.is_relative_to(PUBLIC) else path.parent


class Tree:
    """The sources below `root`, and the includes of each within the tree."""

    def __init__(self, root):
        self.root = root
        self.files = {PurePosixPath(path.relative_to(root).as_posix()) for top in SCANNED
                      for path in (root / top).rglob("*") if path.suffix in SOURCES}
        self.by_name = {}
        for path in self.files:
            self.by_name.setdefault(path.name, []).append(path)
        self.includes = {path: self.included_by(path) for path in self.files}

    def included_by(self, path):
        text = (self.root / path).read_text(errors="replace")
        return {found for name in INCLUDE.findall(text) if (found := self.find(path, PurePosixPath(name))) is not None}

    def find(self, path, name):
        """Returns the file of the tree that `path` includes as `name`, the nearest if there are several; None for a
        generated one."""
        if path.parent / name in self.files:
            return path.parent / name
        candidates = [file for file in self.by_name.get(name.name, ()) if file.parts[-len(name.parts):] == name.parts]

        def nearness(file):
            shared = 0
            for one, other in zip(file.parts, path.parts):
                if one != other:
                    break
                shared += 1
            return shared
        return max(candidates, key=nearness, default=None)

    def edges(self):
        """Returns {(folder, folder): the files of the first that include from the second}."""
        result = {}
        for path, included in self.includes.items():
            for other in included:
                edge = unit_of(path), unit_of(other)
                if edge[0] != edge[1] and edge[1] != PUBLIC:
                    result.setdefault(edge, set()).add(path.name)
        return result

    def folders(self):
        return {unit_of(path) for path in self.files}


def resolved(row, word):
    """Returns the folders that `word` in a row may mean: below the row's folder, else below a folder above it, nearest
    first."""
    return [above / word for above in (row, *row.parents)]


def read_tables(text, folders):
    """Returns ({folder: the folders that it may use}, faults)."""
    rows, faults = {}, []
    for top, body in TABLE.findall(text):
        for line in body.splitlines():
            name, _, words = (cell.strip().strip("`") for cell in line.strip("|").split("|"))
            row = PurePosixPath(top) / name
            rows[row] = set()
            if row not in folders:
                faults.append(f"{row} is in the table, but no source is in it")
            for word in [] if words == "nothing" else words.split(", "):
                found = next((folder for folder in resolved(row, word) if folder in folders), None)
                if found is None:
                    faults.append(f"{row} may use {word}, which is no folder")
                else:
                    rows[row].add(found)
    return rows, faults


def circle_in(graph):
    """Returns a path through `graph` that ends where it began, or None."""
    done, path = set(), []

    def visit(node):
        if node in path:
            return path[path.index(node):] + [node]
        if node in done:
            return None
        path.append(node)
        for following in sorted(graph.get(node, ())):
            if (circle := visit(following)) is not None:
                return circle
        path.pop()
        done.add(node)
        return None
    for node in sorted(graph):
        if (circle := visit(node)) is not None:
            return circle
    return None


def faults_of(tree, text):
    rows, faults = read_tables(text, tree.folders())
    edges = tree.edges()
    faults += [f"{folder} is in no table" for folder in sorted(tree.folders() - rows.keys() - {PUBLIC})]
    faults += [f"{one} includes from {other}, which the table does not say: {', '.join(sorted(files))}"
               for (one, other), files in sorted(edges.items()) if other not in rows.get(one, ())]
    faults += [f"{row} may use {other}, and does not" for row, others in sorted(rows.items())
               for other in sorted(others) if (row, other) not in edges]
    graph = {}
    for one, other in edges:
        graph.setdefault(one, set()).add(other)
    for circle in (circle_in(graph), circle_in(tree.includes)):
        if circle is not None:
            faults.append("a circle: " + " includes ".join(map(str, circle)))
    return faults


class TheTree(unittest.TestCase):
    def test_it_includes_what_the_tables_say(self):
        tree = Tree(ROOT)
        self.assertGreater(len(tree.edges()), 50)
        self.assertEqual(faults_of(tree, (ROOT / "docs/architecture.md").read_text()), [])


class FaultsAreFound(unittest.TestCase):
    FILES = {"qorcore/src/high/high.cpp": '#include "low/low.h"\n#include "qor/qor.h"\n#include <map>\n',
             "qorcore/src/low/low.h": '#include "own.h"\n',
             "qorcore/src/low/own.h": "",
             "qorcore/include/qor/qor.h": ""}
    ROWS = ("| `high` | upstairs | low |", "| `low` | downstairs | nothing |")

    def faults(self, changed=None, rows=ROWS):
        with tempfile.TemporaryDirectory() as folder:
            for name, content in {**self.FILES, **(changed or {})}.items():
                path = Path(folder) / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(content)
            head = "| folder of `qorcore/src` | contents | may use |\n|---|---|---|\n"
            return faults_of(Tree(Path(folder)), head + "\n".join(rows) + "\n")

    def test_a_tree_that_agrees_has_none(self):
        self.assertEqual(self.faults(), [])

    def test_an_edge_that_is_not_in_the_table(self):
        found = self.faults(rows=("| `high` | upstairs | nothing |", self.ROWS[1]))
        self.assertEqual(found, ["qorcore/src/high includes from qorcore/src/low, which the table does not say: high.cpp"])

    def test_a_row_that_is_not_used(self):
        found = self.faults({"qorcore/src/high/high.cpp": ""})
        self.assertEqual(found, ["qorcore/src/high may use qorcore/src/low, and does not"])

    def test_a_folder_without_a_row(self):
        self.assertIn("util/tool is in no table", self.faults({"util/tool/main.cpp": ""}))

    def test_rows_of_folders_that_are_not_there(self):
        found = self.faults(rows=(*self.ROWS, "| `cellar` | empty | attic |"))
        self.assertEqual(found, ["qorcore/src/cellar is in the table, but no source is in it",
                                 "qorcore/src/cellar may use attic, which is no folder"])

    def test_folders_in_a_circle(self):
        found = self.faults({"qorcore/src/high/high.h": "", "qorcore/src/low/low.cpp": '#include "high/high.h"\n'},
                            ("| `high` | upstairs | low |", "| `low` | downstairs | high |"))
        self.assertEqual(found, ["a circle: qorcore/src/high includes qorcore/src/low includes qorcore/src/high"])

    def test_headers_in_a_circle(self):
        found = self.faults({"qorcore/src/low/own.h": '#include "low/low.h"\n'})
        self.assertEqual(len(found), 1)
        self.assertIn("a circle: qorcore/src/low/low.h includes qorcore/src/low/own.h", found[0])

    def test_public_headers_use_nothing(self):
        found = self.faults({"qorcore/include/qor/qor.h": '#include "low/low.h"\n'})
        self.assertEqual(found, ["qorcore/include includes from qorcore/src/low, which the table does not say: qor.h"])


if __name__ == "__main__":
    sys.exit(unittest.main())
