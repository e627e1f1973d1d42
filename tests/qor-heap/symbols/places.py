"""Places of addresses: those that class symbols finds (by the program `places`), those of addr2line (binutils) and those
of llvm-symbolizer."""

import dataclasses
import os
import random
import re
import subprocess
import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[2] / "record"))
from symbols import Place, short_name  # noqa: E402  # in tests/record

LLVM = "/usr/lib/llvm-16/bin/llvm-symbolizer"


@dataclasses.dataclass
class Answer:
    status: str
    unverified: bool
    file: str
    server: str
    reason: str
    places: dict  # of each address


@dataclasses.dataclass
class Module:
    path: str
    addresses: list
    build_id: str = ""
    recorded: str = ""


@dataclasses.dataclass
class Found:
    modules: list
    messages: str

    @property
    def seconds(self):
        return float(re.search(r"^([\d.]+) s$", self.messages, re.MULTILINE)[1])


def ask(program, modules, *options, environment=None, **more):
    """Found, with the full texts. Guarded by a limit of time, because nothing in it may wait. A list of words as the
    program runs in the environment of the test."""
    questions = "".join(f"M\t{module.path}\t{module.build_id}\t{module.recorded}\n"
                        + "".join(f"A\t{address:x}\n" for address in module.addresses) for module in modules)
    command = program if isinstance(program, list) else [program]
    run = subprocess.run([*command, *options], input=os.fsencode(questions), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         env={"PATH": "/usr/bin:/bin", **(environment or {})} if command is not program else None,
                         timeout=250, check=False, **more)
    if run.returncode != 0:
        raise RuntimeError(f"exit code {run.returncode}: {run.stderr[-2000:]}")
    result = []
    for line in run.stdout.decode("utf-8", "surrogateescape").splitlines():
        kind, *fields = line.split("\t")
        if kind == "m":
            status, unverified, *rest = fields
            result.append(Answer(status, unverified == "1", *rest, {}))
        elif kind == "a":
            current = result[-1].places.setdefault(int(fields[0], 16), [])
            current.clear()
        else:
            current.append(Place(fields[0], fields[1], int(fields[2])))
    return Found(result, run.stderr.decode(errors="replace"))


def comparable(function, file, line):
    """Without folders and parameters; a file without a line is the name of an object file from the table of symbols."""
    function = short_name(function.replace("(anonymous namespace)::", "")) if function else "??"
    return Place(function, os.path.basename(file) if line else "??", line)


UNKNOWN = [Place("??", "??", 0)]


def by_addr2line(path, addresses, program="addr2line"):
    run = subprocess.run([program, "-afiC", "-e", path], input="".join(f"{a:#x}\n" for a in addresses), text=True,
                         stdout=subprocess.PIPE, check=True)
    result, lines = {}, iter(run.stdout.splitlines())
    for line in lines:
        if re.fullmatch("0x[0-9a-f]{16}", line):
            current = result.setdefault(int(line, 16), [])
            current.clear()
        else:
            file, number = next(lines).rsplit(":", 1)
            number = number.split(" ")[0]
            current.append(comparable(line, file, int(number) if number.isdigit() else 0))
    return result


def by_llvm(path, addresses):
    run = subprocess.run([LLVM, f"--obj={path}", "--inlines", "--demangle", "--addresses", "--relative-address"],
                         input="".join(f"{a:#x}\n" for a in addresses), text=True, stdout=subprocess.PIPE, check=True)
    result, lines = {}, iter(run.stdout.splitlines())
    for line in lines:
        if re.fullmatch("0x[0-9a-f]+", line):
            current = result.setdefault(int(line, 16), [])
            current.clear()
        elif line:
            file, number, _ = next(lines).rsplit(":", 2)
            current.append(comparable(line, file, int(number)))
    return result


def text_section(path):
    """(address, size) of .text."""
    run = subprocess.run(["readelf", "-SW", path], stdout=subprocess.PIPE, text=True, check=True)
    found = re.search(r"\] \.text +PROGBITS +([0-9a-f]+) +[0-9a-f]+ +([0-9a-f]+) ", run.stdout)
    return int(found[1], 16), int(found[2], 16)


def addresses_of(path, count):
    begin, size = text_section(path)
    chosen = random.Random(f"{os.path.basename(path)} {size}")
    return sorted({chosen.randrange(begin, begin + size) for _ in range(count)})


def build_id(path):
    run = subprocess.run(["readelf", "-nW", path], stdout=subprocess.PIPE, text=True, check=True)
    found = re.search(r"Build ID: ([0-9a-f]+)", run.stdout)
    return found[1] if found else ""
