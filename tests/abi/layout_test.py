#!/usr/bin/env python3
"""The layout of everything that the public headers define: sizes, offsets of members, places in the tables of virtual
functions, numbers of enumerations. It is read from the debug information of the compiler and compared with the recorded
one.

    layout_test.py --compiler C++ --include FOLDER --expected FILE [--update]

A line that is new is an addition: look at it, then let --update record it. A line that has changed or is gone breaks
programs and modules that are built already (docs/stability.md).
"""

import argparse
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import recorded

SOURCE = """#include "qor/glue/module.h"
#include "qor/qor.h"
"""
ENTRY = re.compile(r" <(\w+)><(\w+)>: Abbrev Number: (\d+)(?: \(DW_TAG_(\w+)\))?")
# Newer readelf says the form of each value: "(strp) (offset: 0x8585c): name", "(data1) 1", "(ref4) <0x76>, name".
ATTRIBUTE = re.compile(r"    <\w+>   DW_AT_(\w+)\s*: (?:\(\w+\) ?)?(.*)")


class Entry:
    def __init__(self, place, kind, parent):
        self.place, self.kind, self.parent = place, kind, parent
        self.attributes, self.children = {}, []

    def get(self, name):
        return self.attributes.get(name)

    def name(self):
        text = self.get("name")
        return re.sub(r"^\((?:indirect|offset)[^)]*\): ", "", text).strip() if text else None

    def number(self, name):
        text = self.get(name)
        if text is None:
            return None
        # A location is an expression: "2 byte block: 10 3  (DW_OP_constu: 3)".
        found = (re.search(r"DW_OP_\w+: (\d+)\)|DW_OP_lit(\d+)\)", text) or
                 re.match(r"(-?(?:0x[0-9a-f]+|\d+))()\b", text))
        return int(found[1] or found[2], 0)


def read(text):
    """Returns all entries by their places."""
    entries, open_ones = {}, []
    current = None
    for line in text.splitlines():
        if found := ENTRY.match(line):
            depth, place, kind = int(found[1], 16), found[2], found[4]
            if kind is None:
                current = None
                continue
            del open_ones[depth:]
            parent = open_ones[-1] if open_ones else None
            current = Entry(place, kind, parent)
            if parent:
                parent.children.append(current)
            open_ones.append(current)
            entries[place] = current
        elif current and (found := ATTRIBUTE.match(line)):
            current.attributes[found[1]] = found[2]
    return entries


def type_name(entry, entries):
    """The name of the type of a member, as far as it matters for its layout."""
    reference = entry.get("type")
    if not reference:
        return "void"
    kind = entries[re.search(r"<0x(\w+)>", reference)[1]]
    inner = {"pointer_type": "*", "reference_type": "&", "rvalue_reference_type": "&&", "const_type": " const",
             "volatile_type": " volatile"}
    if kind.kind in inner:
        return type_name(kind, entries) + inner[kind.kind]
    if kind.kind == "array_type":
        bounds = [child.number("upper_bound") for child in kind.children if child.kind == "subrange_type"]
        return type_name(kind, entries) + "".join(f"[{(bound if bound is not None else -1) + 1}]" for bound in bounds)
    return kind.name() or kind.kind


def whole_name(entry):
    names = []
    while entry is not None and entry.kind != "compile_unit":
        names.append(entry.name() or "")
        entry = entry.parent
    return "::".join(reversed(names))


# What only the compiler uses; the table, which tests/glue/slots.expected records; and what grows with the table.
NOT_SHARED = re.compile(r"<lambda|::joined_text<|::function_text<|::row_form|::binding_table|::client_description|"
                        r"::whole_module_description<")
KINDS = ("class_type", "structure_type", "union_type", "enumeration_type")


def is_ours(name):
    """Whether a type is one of the public ones. What the standard library and the system have is theirs."""
    return re.match(r"qor|IQOR|zet|\w+_Array$", name) is not None and not NOT_SHARED.search(name)


def describe(entries):
    lines = set()
    for entry in entries.values():
        if entry.kind not in KINDS or entry.get("declaration"):
            continue
        name = whole_name(entry)
        if not entry.name() or not is_ours(name):
            continue
        size = entry.number("byte_size")
        lines.add(f"{name}: {size} bytes")
        for child in entry.children:
            if child.kind == "enumerator":
                lines.add(f"{name}: {child.name()} = {child.number('const_value')}")
            elif child.kind == "inheritance":
                lines.add(f"{name}: at {child.number('data_member_location')} the base {type_name(child, entries)}")
            elif child.kind == "member" and child.get("data_member_location") is not None:
                lines.add(f"{name}: at {child.number('data_member_location')} {child.name() or '(none)'}, "
                          f"{type_name(child, entries)}")
            elif child.kind == "subprogram" and child.get("vtable_elem_location") is not None:
                parameters = [type_name(each, entries) for each in child.children
                              if each.kind == "formal_parameter" and not each.get("artificial")]
                lines.add(f"{name}: virtual {child.number('vtable_elem_location')} {type_name(child, entries)} "
                          f"{child.name()}({', '.join(parameters)})")
    return sorted(lines)


def layout():
    with tempfile.TemporaryDirectory(prefix="qor.") as folder:
        source, object_file = Path(folder, "all.cpp"), Path(folder, "all.o")
        source.write_text(SOURCE)
        subprocess.run([options.compiler, "-std=c++20", "-gdwarf-4", "-O0", "-fno-eliminate-unused-debug-types",
                        "-femit-class-debug-always", f"-I{options.include}", "-c", source, "-o", object_file],
                       check=True, timeout=600)
        text = subprocess.run(["readelf", "--debug-dump=info", "-W", object_file], check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, env={"LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin"},
                              timeout=600).stdout
    return describe(read(text))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", required=True)
    parser.add_argument("--expected", type=Path, required=True)
    parser.add_argument("--update", action="store_true")
    options = parser.parse_args()
    if "clang" in subprocess.run([options.compiler, "--version"], capture_output=True, text=True).stdout:
        print("The record is that of g++; other compilers name types in other ways.")
        return 77
    return recorded.compare(layout(), options.expected, options.update, 500)


if __name__ == "__main__":
    sys.exit(main())
