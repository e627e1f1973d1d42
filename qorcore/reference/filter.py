#!/usr/bin/env python3
"""Doxygen's view of a header: prints the file with its plain comments as Doxygen wants them.

A comment that stands alone on its lines is about the declaration below it, and about those that follow without a blank
line or another comment between; one behind a declaration is about that. Copying, moving and destroying are as C++
programmers know them and left out."""

import re
import sys
from pathlib import Path

from families import HEADERS, family_of, pages

COMMENT = re.compile(r"( *)//(?: (.*))?$")
HEADING = re.compile(r"-{3,} (\w)")
TRAILING = re.compile(r"( *[^ /#].*[;,{]) +// (.*)$")
AS_USUAL = re.compile(r" *(?:virtual )?~\w+\(|.*= (?:delete|default);$| *(\w+)\((?:const \1&|\1&&)|"
                      r" *(\w+)& operator=\((?:const \2&|\2&&|\2)(?: \w+)?\)| *(?:public|protected|private):$")


def declarations(lines):
    """Yields (indentation, lines) of each piece: a blank line, a comment line, or a declaration with its body."""
    piece, depth = [], 0
    for line in lines:
        if line.startswith("#") and line[-1] != "\\" and not (piece and piece[0].startswith("#")):
            yield [line]
            continue
        if not piece and (not line.strip() or COMMENT.match(line)):
            yield [line]
            continue
        piece.append(line)
        if piece[0].startswith("#"):
            if line[-1] != "\\":
                yield piece
                piece = []
            continue
        code = re.sub(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', "", line).split("//")[0].rstrip()
        opened = re.match(r" *(?:class|struct|enum|namespace)\b[^;]*\{$", " ".join(piece).replace("\n", " "))
        opened = opened or re.match(r"(?: *template <.*>)? *(?:class|struct) [^;]*\{$", code) or code.endswith('"C" {')
        depth += code.count("{") + code.count("(") - code.count("}") - code.count(")")
        if opened or depth <= 0 and re.search(r"[;},]$|^ *\w+:$|^ *}", code):
            yield piece
            piece, depth = [], 0
    if piece:
        yield piece


def filtered(text):
    comment, fresh = ["/// @file"], True  # the first comment is about the header
    for piece in declarations(text.splitlines()):
        line = piece[0]
        found = COMMENT.match(line) if len(piece) == 1 else None
        if line.startswith("#"):
            if line == "#pragma once" or line.startswith("#define"):
                yield from comment
                fresh = False
            if line == "#pragma once":
                comment = []
            yield from piece
            continue
        if found:
            if not fresh:
                comment = []
            fresh = True
            words = HEADING.sub(lambda begin: begin[1].upper(), found[2] or "", count=1)
            comment.append(f"{found[1]}/// {words}".rstrip())
            continue
        if not line.strip():
            comment, fresh = [], False
            yield line
            continue
        if AS_USUAL.match(" ".join(piece)):
            if ":" not in line or not line.rstrip().endswith(":"):
                continue
            yield line
            comment, fresh = [], False
            continue
        trailing = TRAILING.match(line) if len(piece) == 1 else None
        yield from comment
        if trailing:
            yield f"{trailing[1]} ///< {trailing[2]}"
        else:
            yield from piece
        fresh = False
        if line.rstrip().endswith("{") and len(piece) == 1 or re.match(r" *}", line):
            comment = []


def main():
    with open(sys.argv[1], encoding="utf-8") as header:
        lines = filtered(header.read())
    path = Path(sys.argv[1]).resolve().relative_to(HEADERS).as_posix()
    family = family_of(path)
    for line in lines:
        print(line)
        if family and line == "#pragma once":
            print(f"/// @addtogroup {family}\n/// @{{")
    if family:
        print("/// @}")
    if path == "qor/qor.h":
        print(pages()[0])


if __name__ == "__main__":
    main()
