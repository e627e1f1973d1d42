#!/usr/bin/env python3
r"""Runs the whole tool and compares its output byte for byte.

    golden.py --tool PATH [--runner PROGRAM] [--update] [--list] [CASE...]

A CASE is a group ("mtrace") or a case ("mtrace/empty-log"); without a CASE, all cases are run. Each case is one
file cases/<group>/<name>.case, and is run in a new folder with a clean environment: once as written, and once
with --quiet before its words. The case file begins with comments that describe the test. Then come settings, and
then sections, each of which contains the bytes up to the next line that begins with "== ":

    # A release that comes before its allocation is a bad free.
    args: mtrace log.mtrace
    exit: 0
    == file log.mtrace
    @ prog:[0x1] - 0x10
    == stdout
    $BANNER
    BAD FREE at 0x10 (not allocated)
    == stderr
    Processing mtrace file...

settings    args: WORDS         the words, quoted as for a shell
            exit: CODE          the expected exit code; quiet-exit: the code under --quiet, if different
            env: NAME=VALUE     any number of times
            stdout: full|shut   standard output is a full disk, or closed
            stderr: stdout      both streams end in one place, as with "2>&1": the section stdout holds both
            quiet: none         there is no run with --quiet
            posix: REASON       a case that is impossible on Windows, with the reason
sections    file NAME, dir NAME exists before the run; parent folders are created
            stdin               standard input; empty without this section
            stdout, stderr      the expected output; a missing section means no output
            quiet stdout, quiet stderr   the same under --quiet, if different

In words and sections:
    \\ \r \t \xNN           the byte; at the end of a line, \ removes the line's end
    \*A..B/STEP LINE        LINE once for each number from A to B, inserted at {i}, {i:x}, {i:03x} ...
    $TMP $TOOL_DIR          the folder of the run, and the folder of the tool
    $NAME on its own line   lines of the tool, from the file cases/names; under --quiet, no lines
"""

import argparse
import difflib
import os
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "support"))
import tool  # noqa: E402  # noqa: E402  # in tests/support
TIMEOUT = 120  # seconds; instrumented builds on a busy machine are slow

SETTINGS = {"args": (), "exit": (), "quiet-exit": (), "stdout": ("full", "shut"), "stderr": ("stdout",), "quiet": ("none",), "posix": ()}
REDIRECTIONS = {"full": ">/dev/full", "shut": ">&-"}
ESCAPES = {b"\\": b"\\", b"r": b"\r", b"t": b"\t"}


class CaseError(Exception):
    """A case file with an error."""


def unescape(text):
    """Returns the bytes that a text of a case file represents."""

    def one(match):
        code = match[1]
        if code in ESCAPES:
            return ESCAPES[code]
        if len(code) == 3:
            return bytes([int(code[1:], 16)])
        raise CaseError(f"an unknown escape: {match[0].decode(errors='replace')!r} in {text!r}")

    return re.sub(rb"\\(x[0-9a-fA-F]{2}|.|$)", one, text.encode())


def escape(line):
    """Returns the visible form of one line's bytes; the reverse of unescape."""
    names = {value.decode(): "\\" + code.decode() for code, value in ESCAPES.items()}
    out = ""
    for char in line.decode("utf-8", "surrogateescape"):
        if char in names:
            out += names[char]
        elif char.isprintable():
            out += char
        else:
            out += "".join(f"\\x{byte:02x}" for byte in char.encode("utf-8", "surrogateescape"))
    if out.endswith(" "):  # editors strip them
        out = out[:-1] + "\\x20"
    if out.startswith("== "):
        out = "\\x3d" + out[1:]
    return out


class Texts:
    """The short names of a run: $TMP and $TOOL_DIR, and the lines that --quiet suppresses."""

    def __init__(self, paths, lines, quiet):
        self.paths, self.lines, self.quiet = paths, lines, quiet

    def fill(self, text):
        for name, path in self.paths.items():
            text = text.replace("$" + name, path.replace("\\", "\\\\"))
        return text

    def decode(self, lines):
        """Returns the bytes that a section's lines represent."""
        out = b""
        for line in lines:
            if line.startswith("$") and line[1:] in self.lines:
                out += b"" if self.quiet else self.lines[line[1:]]
                continue
            for text in repeat(self.fill(line)):
                # An even number of backslashes at the end is an escaped backslash, not a continuation.
                if re.search(r"(?<!\\)(\\\\)*\\$", text):
                    out += unescape(text[:-1])
                else:
                    out += unescape(text) + b"\n"
        return out

    def encode(self, data):
        """Returns the lines of a section with these bytes; decode(encode(x)) == x."""
        lines = []
        while data:
            for name, text in self.lines.items():
                if data.startswith(text) and not self.quiet:
                    lines.append("$" + name)
                    data = data[len(text) :]
                    break
            else:
                line, end, data = data.partition(b"\n")
                text = escape(line) + ("" if end else "\\")
                for name in [*self.paths, *self.lines]:
                    text = text.replace("$" + name, "\\x24" + name)
                for name, path in self.paths.items():
                    text = text.replace(escape(path.encode()), "$" + name)
                lines.append(text)
        return lines


def repeat(line):
    r"""Returns the lines that "\*A..B/STEP LINE" produces; any other line is returned unchanged."""
    match = re.fullmatch(r"\\\*(\d+)\.\.(\d+)(?:/(\d+))? (.*)", line)
    if not match:
        return [line]
    first, last, step = int(match[1]), int(match[2]), int(match[3] or 1)
    number = re.compile(r"\{i(?::(\w+))?\}")
    return [
        number.sub(lambda field: format(i, field[1] or "d"), match[4]) for i in range(first, last + 1, step)
    ]


class Case:
    """One case file. It is kept as lines, so that an update changes as little as possible."""

    def __init__(self, path, name):
        self.path, self.name = path, name
        self.head, self.sections = [], {}
        current = self.head
        for line in path.read_bytes().decode().split("\n"):
            if line.startswith("== "):
                title = line[3:]
                if title in self.sections:
                    raise CaseError(f"two sections {title!r}")
                current = self.sections[title] = []
            else:
                current.append(line)
        if current.pop() != "":
            raise CaseError("no line end at the end of the file")

        self.settings, self.env = {}, {}
        for line in self.head:
            if not line or line.startswith("#"):
                continue
            key, colon, value = line.partition(":")
            value = value.strip()
            if key == "env":
                self.env.update([value.split("=", 1)])
            elif colon and key in SETTINGS and key not in self.settings:
                self.settings[key] = value
            else:
                raise CaseError(f"not a setting: {line!r}")
        for key, values in SETTINGS.items():
            if key in ("args", "exit") and key not in self.settings:
                raise CaseError(f'no "{key}:"')
            if values and key in self.settings and self.settings[key] not in values:
                raise CaseError(f'"{key}:" is one of: {" ".join(values)}')
        for title in self.sections:
            if not re.fullmatch(r"(file|dir) .+|stdin|(quiet )?(stdout|stderr)", title):
                raise CaseError(f"not a section: {title!r}")

    def expected(self, quiet):
        """Returns the expected results of the run, still as text."""

        def pick(name):
            plain = self.sections.get(name, [])
            return self.sections.get("quiet " + name, plain) if quiet else plain

        code = self.settings["exit"]
        return {
            "exit": self.settings.get("quiet-exit", code) if quiet else code,
            "stdout": pick("stdout"),
            "stderr": pick("stderr"),
        }

    def replace(self, quiet, key, value):
        """Changes an expectation in the file."""
        if key == "exit":
            key = "quiet-exit" if quiet else "exit"
            self.head = [line for line in self.head if not line.startswith(key + ":")]
            at = max(i for i, line in enumerate(self.head) if line.strip()) + 1
            self.head.insert(at, f"{key}: {value}")
            self.settings[key] = value
        else:
            self.sections["quiet " + key if quiet else key] = value

    def save(self):
        lines = list(self.head)
        order = ["stdout", "stderr", "quiet stdout", "quiet stderr"]
        inputs = [title for title in self.sections if title not in order]
        for title in inputs + [title for title in order if title in self.sections]:
            lines += ["== " + title] + self.sections[title]
        self.path.write_bytes(("\n".join(lines) + "\n").encode())


class Runner:
    def __init__(self, under_test, names, update):
        self.tool, self.names, self.update = under_test, names, update

    def run(self, case):
        """Runs a case in all its forms; returns the failures as text."""
        failures = ""
        for quiet in [False] if case.settings.get("quiet") == "none" else [False, True]:
            with tempfile.TemporaryDirectory(prefix="golden.") as folder:
                paths = {"TMP": os.path.realpath(folder), "TOOL_DIR": str(self.tool.path.parent)}
                texts = Texts(paths, self.names, quiet)
                failures += self.compare(case, quiet, texts, self.execute(case, quiet, texts))
        return failures

    def execute(self, case, quiet, texts):
        folder = Path(texts.paths["TMP"])
        for title, lines in case.sections.items():
            kind, _, name = title.partition(" ")
            if kind not in ("file", "dir"):
                continue
            path = folder / os.fsdecode(unescape(name))
            (path if kind == "dir" else path.parent).mkdir(parents=True, exist_ok=True)
            if kind == "file":
                path.write_bytes(texts.decode(lines))

        words = [os.fsdecode(unescape(texts.fill(word))) for word in shlex.split(case.settings["args"])]
        env = self.tool.environment()
        env.update((name, texts.fill(value)) for name, value in case.env.items())
        command = [*self.tool.command, *(["--quiet"] if quiet else []), *words]
        if "stdout" in case.settings:
            command = ["sh", "-c", 'exec "$@" ' + REDIRECTIONS[case.settings["stdout"]], "sh", *command]
        done = subprocess.run(
            command,
            cwd=folder,
            env=env,
            input=texts.decode(case.sections.get("stdin", [])),
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT if "stderr" in case.settings else subprocess.PIPE,
            timeout=TIMEOUT,
            check=False,
        )
        return {
            "exit": str(done.returncode),
            "stdout": self.tool.printed(done.stdout),
            "stderr": self.tool.printed(done.stderr or b""),
        }

    def compare(self, case, quiet, texts, got):
        report = ""
        for key, want in case.expected(quiet).items():
            have = got[key] if key == "exit" else texts.encode(got[key])
            if key == "exit":
                if want == have:
                    continue
                difference = [f"-{want}", f"+{have}"]
            else:
                wanted = texts.decode(want)
                if wanted == got[key]:
                    continue
                difference = list(difflib.unified_diff(texts.encode(wanted), have, lineterm="", n=2))[2:]
            if self.update:
                case.replace(quiet, key, have)
            else:
                form = " with --quiet" if quiet else ""
                head = f"--- {case.name}{form}: {key}, - expected, + printed"
                report += "\n".join([head, *difference]) + "\n"
        return report


def read_names(path):
    """Reads the file of names: a line "NAME text" for each. A name may have several lines."""
    names = {}
    for line in path.read_text(encoding="utf-8").splitlines() if path.exists() else []:
        if line and not line.startswith("#"):
            name, _, text = line.partition(" ")
            names[name] = names.get(name, b"") + unescape(text) + b"\n"
    return names


def main():
    parser = argparse.ArgumentParser(description="Compares whole runs of the tool with what cases expect.")
    tool.add_options(parser)
    parser.add_argument("--cases", type=Path, default=HERE / "cases", help="the folder of the cases")
    parser.add_argument("--update", action="store_true", help="write into the cases what the tool printed")
    parser.add_argument("--list", action="store_true", help="only name the cases")
    parser.add_argument("chosen", nargs="*", metavar="CASE", help='a group, or "group/case"')
    options = parser.parse_args()
    if not options.tool and not options.list:
        parser.error("--tool is missing")

    paths = {f"{path.parent.name}/{path.stem}": path for path in sorted(options.cases.glob("*/*.case"))}
    for word in options.chosen:
        if not any(word in (name, name.split("/")[0]) for name in paths):
            parser.error(f"no such group or case: {word}")
    if options.chosen:
        paths = {n: path for n, path in paths.items() if {n, n.split("/")[0]} & set(options.chosen)}
    if options.list:
        print("\n".join(paths))
        return 0

    runner = Runner(tool.Tool(options.tool, options.runner), read_names(options.cases / "names"), options.update)
    failed = updated = left_out = 0
    for name, path in paths.items():
        try:
            case = Case(path, name)
            before = path.read_bytes()
            if "posix" in case.settings and runner.tool.for_windows:
                print(f"{name} is left out: {case.settings['posix']}")
                left_out += 1
                continue
            failures = runner.run(case)
            if options.update:
                case.save()
                updated += path.read_bytes() != before
        except (CaseError, OSError, ValueError, subprocess.TimeoutExpired) as error:
            failures = f"--- {name}: {error}\n"
        if failures:
            failed += 1
            print(failures, end="")
    if updated:
        print(f"{updated} cases updated: look at the difference before you keep it")
    passed = len(paths) - failed - left_out
    print(f"{passed} cases passed" + (f", {failed} failed" if failed else ""))
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
