#!/usr/bin/env python3
"""Makes the pages of the reference that no header has: the first one, and one for each family with its examples.
filter.py puts them behind qor/qor.h.

    families.py OUTPUT      writes the examples, and Doxygen's layout with our titles

Fails if a header has no family, or a family no example."""

import re
import subprocess
import sys
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve().parent
TREE = HERE.parents[1]
HEADERS = TREE / "qorcore/include"

FIRST_PAGE = """\
/** @mainpage Reference
The headers of a client. A program includes `qor/qor.h`, or single headers, and links nothing: the first call loads the
library and binds to it. The guide `docs/library.md` begins with a program and the commands that build it.

<table class="families">
<tr><th>Family</th><th>Headers</th></tr>
%s</table>
*/
"""

ROW = "<tr><td>@ref family_{name} \"{title}\"<br/>{sentence}</td><td>{headers}</td></tr>\n"

FAMILY = """\
/** @defgroup family_{name} {title}
{summary}

{headers}

{examples}
*/
"""


class Family(NamedTuple):
    name: str
    title: str
    summary: str
    headers: list
    examples: list


def read_families():
    made = []
    for line in (HERE / "families").read_text().replace("\n    ", " ").splitlines():
        if line and not line.startswith("#"):
            name, title, summary, headers, examples = (cell.strip() for cell in line.split("|"))
            paths = [word if word.startswith("qor/") else f"qor/system/{word}" for word in headers.split()]
            made.append(Family(name, title, summary, paths, examples.split()))
    return made


def family_of(header):
    """Returns the name of the family of a header, which is a path below the folder of the headers."""
    return next((f"family_{family.name}" for family in read_families() if header in family.headers), None)


def check(families):
    listed = [header for family in families for header in family.headers]
    there = {path.relative_to(HEADERS).as_posix() for path in (HEADERS / "qor/system").rglob("*.h")}
    faults = [f"{header} is in no family" for header in sorted(there - set(listed))]
    faults += [f"{header} is not there" for header in listed if not (HEADERS / header).exists()]
    faults += [f"{header} is in two families" for header in set(listed) if listed.count(header) > 1]
    faults += [f"the family {family.name} has no example" for family in families if not family.examples]
    if faults:
        sys.exit("qorcore/reference/families: " + "; ".join(faults))


def sentence(words):
    return words[0].upper() + words[1:] + "."


def summary_of(header):
    """Returns the first sentence of a header's first comment."""
    lines = []
    for line in (HEADERS / header).read_text().splitlines():
        if not line.startswith("//"):
            break
        lines.append(line[2:].strip())
    return re.match(r".*?[.:](?=\s|$)", " ".join(lines)).group().rstrip(".:") + "."


def read_example(path):
    """Returns (name, text, the document it stands in). That of a document has the document's name."""
    text = (TREE / path).read_text()
    if not path.endswith(".md"):
        return Path(path).name, text, None
    section = re.search(r"^## A first program\n(.*?)(?=^## |\Z)", text, re.M | re.S).group(1)
    return f"{Path(path).stem}.cpp", re.search(r"```cpp\n(.*?)```", section, re.S).group(1), path


def write_layout(path):
    subprocess.run(["doxygen", "-l", path], check=True, stdout=subprocess.DEVNULL)
    text = path.read_text()
    for tab, title in (("mainpage", "Reference"), ("modules", "Families"), ("classes", "Classes"), ("files", "Headers"),
                       ("examples", "Examples")):
        text, count = re.subn(rf'(<tab type="{tab}" [^>]*title=")"', rf'\1{title}"', text)
        assert count == 1, tab
    for tab, words in (("modules", "The headers by their subjects:"), ("examples", "The programs of the families:")):
        text, count = re.subn(rf'(<tab type="{tab}" [^>]*intro=")"', rf'\1{words}"', text)
        assert count == 1, tab
    for tab in ("pages", "namespaces", "concepts"):
        text = re.sub(rf'<tab type="{tab}" visible="yes"', f'<tab type="{tab}" visible="no"', text)
    # What a family or a class is for stands before its members.
    for part in ("class", "group", "file"):
        begin, end = text.index(f"<{part}>"), text.index(f"</{part}>")
        inside, count = re.subn(r'(.*?)( *<memberdecl>.*)( *<detaileddescription [^\n]*\n)', r"\1\3\2", text[begin:end],
                                flags=re.S)
        assert count == 1, part
        inside = inside.replace('<briefdescription visible="yes"/>', '<briefdescription visible="no"/>')
        inside = inside.replace('<detaileddescription title=""/>', '<detaileddescription title="Description"/>')
        text = text[:begin] + inside + text[end:]
    path.write_text(text)


def pages():
    """Returns the pages as one comment after the other, and {name of an example: its text}."""
    made, rows, shown, texts = [], [], {}, {}
    for family in read_families():
        headers = "\n".join(f"- `{header}`: {summary_of(header)}" for header in family.headers)
        parts = []
        for path in family.examples:
            name, text, document = read_example(path)
            assert shown.setdefault(name, path) == path, name
            texts[name] = text
            where = f" The guide `{document}` shows how it is built and what it prints." if document else ""
            parts.append(f"@par Example: {name}\n{where}\n@include {name}\n")
        made.append(FAMILY.format(name=family.name, title=family.title, summary=sentence(family.summary),
                                  headers=headers, examples="\n".join(parts)))
        names = " ".join(f"`{Path(header).name}`" for header in family.headers)
        rows.append(ROW.format(name=family.name, title=family.title, sentence=sentence(family.summary), headers=names))
    made += [f"/** @example {name} */\n" for name in sorted(shown)]
    return FIRST_PAGE % "".join(rows) + "\n".join(made), texts


def main():
    output = Path(sys.argv[1])
    check(read_families())
    examples = output / "examples"
    examples.mkdir(parents=True, exist_ok=True)
    for name, text in pages()[1].items():
        (examples / name).write_text(text)
    write_layout(output / "layout.xml")


if __name__ == "__main__":
    main()
