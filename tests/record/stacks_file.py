"""Reads PREFIX.stacks as docs/heap-logs.md describes it, and the log beside it. Nothing of the recorder's own code is used."""

import array
import collections
import dataclasses
import gzip
import io
import pathlib
import re
import subprocess

MAGIC = b"QORSTK"
VERSION = 1

PROCESS, MODULE, MODULE_WENT, MODULE_CAME, NODE, THREAD, THREAD_NAME, TIME, LOSS, INHERITED = range(1, 11)
FIRST_STACK = 16

LINE = re.compile(r"@ (.*) ([-+<>]) (0x[0-9a-f]+)(?: (0x[0-9a-f]+|0))?")


@dataclasses.dataclass
class Process:
    pid: int
    parent: int
    start: int
    depth: int
    path: str
    recorder: str


@dataclasses.dataclass
class Module:
    base: int
    begin: int
    end: int
    path: str
    build_id: bytes
    loaded: bool = True


@dataclasses.dataclass
class Frame:
    module: Module  # None: code outside of every module
    address: int  # in the file of the module


@dataclasses.dataclass
class Record:
    """A line of the log that brought a block into being, and what the stacks file says of it."""

    address: int
    size: int
    caller: str
    node: int = 0
    thread: int = 0
    time: int = 0
    inherited: bool = False


class Stacks:
    def __init__(self, data):
        if data[:6] != MAGIC or data[6:8] != bytes([VERSION, 10]):
            raise ValueError(f"not a stacks file of version {VERSION}: {data[:8]}")
        self.process = None
        self.modules, self.nodes = [None], [(0, None, 0)]
        # The blocks in the order of the log: the node of the stack, the thread, nanoseconds.
        self.records, self.threads, self.times = array.array("I"), array.array("I"), array.array("Q")
        self.inherited = set()  # the places in those arrays
        self.losses, self.thread_names, self.loads, self.faults = [], {}, [], []
        self.cut_off = self.newer = False
        self.last_time = 0
        self.data, self.place = data, 8
        thread = now = inherited = 0
        while self.place < len(data):
            begin = self.place
            try:
                number = self.number()
                if number >= FIRST_STACK:
                    if not 0 <= number - FIRST_STACK < len(self.nodes):
                        raise ValueError(f"stack {number - FIRST_STACK} comes before its node, at {begin}")
                    if inherited:
                        self.inherited.add(len(self.records))
                        inherited -= 1
                    self.records.append(number - FIRST_STACK)
                    self.threads.append(thread)
                    self.times.append(now)
                elif number == PROCESS:
                    numbers = [self.number() for _ in range(4)]
                    self.process = Process(*numbers, self.text().decode(), self.text().decode())
                elif number == MODULE:
                    numbers = [self.number() for _ in range(3)]
                    path, build_id = self.text(), self.text()
                    self.modules.append(Module(*numbers, path.decode("utf-8", "surrogateescape"), build_id))
                    self.loads.append((len(self.records), "came", self.modules[-1]))
                elif number in (MODULE_WENT, MODULE_CAME):
                    module = self.modules[self.number()]
                    if module.loaded != (number == MODULE_WENT):
                        self.faults.append(f"{module.path} comes or goes twice, at {begin}")
                    module.loaded = number == MODULE_CAME
                    self.loads.append((len(self.records), "came" if module.loaded else "went", module))
                elif number == NODE:
                    parent, module, address = self.number(), self.number(), self.number()
                    if parent >= len(self.nodes):
                        raise ValueError(f"a node comes before its parent, at {begin}")
                    self.nodes.append((parent, self.modules[module], address))
                elif number == THREAD:
                    thread = self.number()
                elif number == THREAD_NAME:
                    known = self.number()
                    self.thread_names[known] = self.text().decode("utf-8", "replace")
                elif number == TIME:
                    now = self.last_time = self.number()
                elif number == LOSS:
                    missing = self.number()
                    self.losses.append((missing, self.text().decode()))
                elif number == INHERITED:
                    inherited = self.number()
                else:
                    self.newer = True
                    break
            except IndexError:
                self.cut_off = True
                break

    def number(self):
        value = shift = 0
        while True:
            byte = self.data[self.place]
            self.place += 1
            value |= (byte & 0x7F) << shift
            if byte < 0x80:
                return value
            shift += 7

    def text(self):
        length = self.number()
        if self.place + length > len(self.data):
            raise IndexError
        self.place += length
        return self.data[self.place - length:self.place]

    def frames(self, node):
        """The innermost first."""
        result = []
        while node:
            parent, module, address = self.nodes[node]
            result.append(Frame(module, address))
            node = parent
        return result


def opened(path):
    """A file for its bytes, which may be compressed."""
    path = pathlib.Path(path)
    if path.suffix == ".zst":
        return subprocess.Popen(["zstd", "-dcq", path], stdout=subprocess.PIPE).stdout
    return gzip.open(path) if path.suffix == ".gz" else open(path, "rb")


def contents(path):
    with opened(path) as file:
        return file.read()


class Recording:
    """A log with its stacks, replayed: the blocks that are alive at the end, {address: Record}, and the releases and moves of
    what was not alive, with the blocks that came twice, as (number of the line, code, address)."""

    def __init__(self, log, stacks=None):
        self.log = pathlib.Path(log)
        self.stacks = Stacks(contents(stacks or self.log.with_name(self.log.name.replace(".mtrace", ".stacks"))))
        self.codes, self.blocks, self.alive, self.bad = collections.Counter(), 0, {}, []
        for place, (code, address, record) in enumerate(self.lines()):
            if record is None:
                if self.alive.pop(address, None) is None:
                    self.bad.append((place, code, address))
            else:
                if address in self.alive:
                    self.bad.append((place, code, address))
                self.alive[address] = record
                self.blocks += 1
                if record.inherited:
                    continue
            self.codes[code] += 1

    def lines(self):
        """(code, address, Record of a new block or None) of each line."""
        blocks = 0
        with io.TextIOWrapper(opened(self.log), encoding="utf-8", errors="surrogateescape") as lines:
            for text in lines:
                if not text.startswith("@"):
                    continue
                match = LINE.fullmatch(text.rstrip("\n"))
                if match is None or (match[2] in "+>") != (match[4] is not None):
                    raise ValueError(f"{self.log}: {text}")
                record = None
                if match[4] is not None:
                    record = Record(int(match[3], 16), int(match[4], 16), match[1])
                    if blocks < len(self.stacks.records):
                        record.node = self.stacks.records[blocks]
                        record.thread = self.stacks.threads[blocks]
                        record.time = self.stacks.times[blocks]
                        record.inherited = blocks in self.stacks.inherited
                    blocks += 1
                yield match[2], int(match[3], 16), record
