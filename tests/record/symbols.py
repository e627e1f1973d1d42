"""Functions and lines of addresses, and of the leaks that valgrind memcheck finds."""

import dataclasses
import os
import re
import subprocess
import xml.etree.ElementTree


@dataclasses.dataclass(frozen=True)
class Place:
    """A function with the line that is executed in it; one address has several where functions are inlined."""

    function: str
    file: str
    line: int

    def __str__(self):
        return f"{self.function} ({self.file}:{self.line})"


def short_name(function):
    """The name without namespaces, classes, parameters and template arguments: debug information gives an inlined function
    no more than that."""
    name = function.replace("operator()", "call operator")
    for suffix in (r" \[clone [^]]*\]", r" const\b", r"\.(constprop|isra|part)\b.*"):
        name = re.sub(suffix, "", name)
    for begin, end in ("()", "<>", "{}"):
        inner = re.compile(rf"\{begin}[^{begin}{end}]*\{end}")
        while (reduced := inner.sub("", name)) != name:
            name = reduced
    name = name.split("::")[-1].strip()
    return name if name == "call operator" else name.split(" ")[-1]


class Addr2line:
    """elfutils' addr2line, which names inlined functions, too. One process for each file is asked again and again."""

    END = "0xffffffffffffffff"  # an address that no file has

    def __init__(self):
        self.processes = {}
        self.known = {}

    def close(self):
        for process in self.processes.values():
            process.stdin.close()
            process.stdout.close()
            process.wait()
        self.processes.clear()

    def places(self, path, address):
        """Those of the call that returns to `address`, the innermost inlined function first."""
        if (path, address) not in self.known:
            self.known[path, address] = self.ask(path, address - 1)
        return self.known[path, address]

    def ask(self, path, address):
        process = self.processes.get(path)
        if process is None:
            process = subprocess.Popen(["eu-addr2line", "-a", "-C", "-f", "-i", "-e", path], text=True,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            self.processes[path] = process
        process.stdin.write(f"{address:#x}\n{self.END}\n")
        process.stdin.flush()
        process.stdout.readline()
        result = []
        while not (function := process.stdout.readline()).startswith(self.END):
            file, line, *_ = (process.stdout.readline().rstrip("\n") + ":0").rsplit("/", 1)[-1].split(":")
            result.append(Place(short_name(function.split(" inlined at ")[0].rstrip("\n")), file, int(line)))
        for _ in range(2):
            process.stdout.readline()
        return result


@dataclasses.dataclass
class Leak:
    size: int
    objects: list  # the object file of each place
    places: list

    def within(self, folder):
        """The places in object files of this folder that have a line; the others belong to libraries and to the start."""
        return [place for path, place in zip(self.objects, self.places)
                if os.path.dirname(path) == str(folder) and place.line > 0]


def recorded_leaks(recording, addr2line):
    result = []
    for record in recording.alive.values():
        leak = Leak(record.size, [], [])
        for frame in recording.stacks.frames(record.node):
            path = frame.module.path if frame.module else ""
            for place in addr2line.places(path, frame.address) if path else [Place("??", "??", 0)]:
                leak.objects.append(path)
                leak.places.append(place)
        result.append(leak)
    return result


def memcheck_leaks(command, folder, environment):
    """Those that valgrind memcheck finds in a run of the command."""
    report = folder / "memcheck.xml"
    subprocess.run(["valgrind", "-q", "--leak-check=full", "--show-leak-kinds=all", "--leak-resolution=high",
                    "--num-callers=64", "--keep-debuginfo=yes", "--xml=yes", f"--xml-file={report}", *map(str, command)],
                   cwd=folder, env=environment, check=True, stdin=subprocess.DEVNULL)
    result = []
    for error in xml.etree.ElementTree.parse(report).getroot().iter("error"):
        details = error.find("xwhat")
        frames = error.find("stack").findall("frame")
        places = [Place(short_name(frame.findtext("fn", "??")), frame.findtext("file", "??"), int(frame.findtext("line", "0")))
                  for frame in frames]
        blocks = int(details.findtext("leakedblocks"))
        # If a block leads to others that are lost with it, the text has its own size.
        direct = re.search(r"\(([\d,]+) direct,", details.findtext("text"))
        size = int(direct[1].replace(",", "") if direct else details.findtext("leakedbytes")) // blocks
        result += [Leak(size, [frame.findtext("obj", "") for frame in frames], places)] * blocks
    return result
