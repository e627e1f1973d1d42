#!/usr/bin/env python3
"""clang-tidy has no findings in the sources of the library, its modules and the programs, as compiled on this system.

A check spends most of its time in the headers of the C++ library. Therefore sources with the same options are checked
together, as parts of one generated source. Such a batch with findings is split and checked again, down to single
sources, because its parts may merely clash with each other. Only findings in a single source are reported.

The build folder stores which sources are clean. A clean source is checked again after a change of its text, its headers,
its options, .clang-tidy or clang-tidy itself.

Without QOR_TEST_WHOLE, only the sources that the last commit or the work tree changed are checked.

To run it alone: tests/style/tidy_test.py [--build FOLDER] [SOURCE...]. With sources, from any folder, it checks only these.
"""

import argparse
import functools
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

TREE = Path(__file__).resolve().parents[2]
CONFIG = TREE / ".clang-tidy"
PROGRAM = "clang-tidy-16"
# The size of a batch. Smaller batches read the headers more often; in larger ones too many names clash.
TOGETHER = 9


class Unit(NamedTuple):
    source: Path
    options: tuple
    object: str = ""


def options(words):
    """Yields the options that decide how a source is parsed. The others concern code generation, and clang lacks some."""
    words = iter(words)
    for word in words:
        if word == "-isystem":
            yield from (word, next(words))
        elif re.match("-[DIWm]|-std=", word):
            yield word


def units(build):
    """Returns all sources of this build, each once."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        source = Path(entry["file"])
        found.setdefault(source, Unit(source, tuple(options(words[1:])), words[words.index("-o") + 1]))
    return found


def is_shipped(unit):
    return unit.source.is_relative_to(TREE / "qorcore") or unit.source.is_relative_to(TREE / "util")


def read_files(build):
    """Returns the files that the compilation of each up-to-date object read."""
    said = subprocess.run(["ninja", "-C", build, "-t", "deps"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    found = {match[1]: [build / line.strip() for line in match[2].splitlines()]
             for match in re.finditer(r"^(\S+): #deps .*\(VALID\)\n((?: {4}.*\n)*)", said.stdout, re.MULTILINE)}
    return {name: files for name, files in found.items() if changed(build / name) >= max(map(changed, files))}


@functools.cache
def changed(path):
    return path.stat().st_mtime_ns if path.exists() else sys.maxsize


@functools.cache
def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


@functools.cache
def version():
    return subprocess.run([PROGRAM, "--version"], stdout=subprocess.PIPE, text=True, check=True).stdout


def key(unit, files):
    """Returns a digest of everything that the findings in a source depend on."""
    parts = [version(), digest(CONFIG), str(unit.source), *unit.options]
    parts += [f"{path} {digest(path)}" for path in sorted({unit.source, *files})]
    return hashlib.sha256("\n".join(parts).encode()).hexdigest()


def findings(batch):
    """Returns the findings in sources with the same options as one text, which is empty if there are no findings."""
    with tempfile.TemporaryDirectory() as folder:
        source = batch[0].source
        options = list(batch[0].options)
        if len(batch) > 1:
            options.append("-Wno-shadow")  # parts may shadow names of other parts
            source = Path(folder, "batch.cpp")
            source.write_text("".join(f'#include "{unit.source}" // NOLINT\n' for unit in batch))
        done = subprocess.run([PROGRAM, "--quiet", f"--config-file={CONFIG}", source, "--", *options],
                              cwd=TREE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    text = done.stdout or (done.returncode and f"{PROGRAM} {source} ends with {done.returncode}\n{done.stderr}")
    if not text or len(batch) == 1:
        return text or ""
    place = re.search(r"^(.*?):\d+:\d+: (?:warning|error):", text, re.MULTILINE)
    sources = [str(unit.source) for unit in batch]
    middle = place and place[1] in sources and sources.index(place[1]) or len(batch) // 2
    return findings(batch[:middle]) + findings(batch[middle:])


def batches(wanted):
    """Yields batches. Sources that are likely to define the same names are spread over them: sources of one folder, and
    sources that define their name for the allocation log."""
    alike = {}
    for unit in wanted:
        alike.setdefault(unit.options, []).append(unit)
    for group in alike.values():
        group.sort(key=lambda unit: b"constexpr char source[]" in unit.source.read_bytes())
        count = -(-len(group) // TOGETHER)
        yield from (group[first::count] for first in range(count))


def check(build, wanted):
    """Returns the findings in the sources that are not known to be clean, and stores the clean ones."""
    files = read_files(build)
    keys = {unit: key(unit, files[unit.object]) for unit in wanted if unit.object in files}
    kept = build / "tidy_clean.json"
    clean = set(json.loads(kept.read_text())) if kept.exists() else set()
    left = list(batches([unit for unit in wanted if keys.get(unit) not in clean]))
    with ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        texts = list(pool.map(findings, left))
    clean.update(keys[unit] for batch, text in zip(left, texts) if not text for unit in batch if unit in keys)
    kept.write_text(json.dumps(sorted(clean & set(keys.values()))))
    return "".join(texts)


def recent_changes():
    """Returns the paths that the last commit or the work tree changed; None outside of a clone with two commits."""
    done = subprocess.run(["git", "diff", "--name-only", "HEAD~1"], cwd=TREE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True)
    return {TREE / line for line in done.stdout.splitlines()} if done.returncode == 0 else None


class Tidy(unittest.TestCase):
    build = TREE / "build/dev"
    maxDiff = None  # all findings are shown

    def test_sources_are_clean(self):
        wanted = [unit for unit in units(self.build).values() if is_shipped(unit)]
        self.assertGreater(len(wanted), 150)
        recent = recent_changes()
        if "QOR_TEST_WHOLE" not in os.environ and recent is not None:
            wanted = [unit for unit in wanted if unit.source in recent]
        self.assertEqual(check(self.build, wanted), "")

    def test_what_is_wrong_is_found(self):
        with tempfile.TemporaryDirectory() as name:
            folder = Path(name, "util")
            folder.mkdir()
            texts = {"right.cpp": "static int number() { return 1; }\nint right() { return number(); }\n",
                     "also_right.cpp": "static int number() { return 2; }\nint also_right() { return number(); }\n",
                     "wrong.h": "struct base { virtual ~base() = default; };\nstruct derived : base { virtual ~derived(); };\n",
                     "wrong.cpp": '#include "wrong.h"\nderived::~derived() = default;\n'}
            batch = []
            for name, text in texts.items():
                (folder / name).write_text(text)
                if name.endswith(".cpp"):
                    batch.append(Unit(folder / name, ("-std=c++20",)))
            right, also_right, wrong = batch
            self.assertEqual(findings([right]), "")
            self.assertEqual(findings([right, also_right]), "", "sources that clash are clean when checked alone")
            for together in [wrong], [right, wrong], batch:
                self.assertRegex(findings(together), r"wrong\.h:2:.*modernize-use-override")

    def test_a_change_is_seen(self):
        with tempfile.TemporaryDirectory() as name:
            paths = [Path(name, each) for each in ("it.cpp", "it.h")]
            for path in paths:
                path.write_text("\n")
            seen = set()
            for options in (), ("-DIT",):
                for changed in (None, *paths):
                    if changed:
                        changed.write_text(changed.read_text() + "// more\n")
                    digest.cache_clear()
                    seen.add(key(Unit(paths[0], options), paths))
            self.assertEqual(len(seen), 6)


if __name__ == "__main__":
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--build", type=Path, default=Tidy.build)
    arguments.add_argument("sources", nargs="*", type=Path)
    given = arguments.parse_args()
    Tidy.build = given.build.resolve()
    if not given.sources:
        sys.exit(unittest.main(argv=sys.argv[:1]))
    known = units(Tidy.build)
    found = [findings([known[path.resolve()]]) for path in given.sources]
    print(*filter(None, found), sep="", end="")
    sys.exit(any(found))
