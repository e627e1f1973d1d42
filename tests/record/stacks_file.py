"""Reads PREFIX.stacks as docs/heap-logs.md describes it, and the log beside it. Nothing of the recorder's own code is used."""

import dataclasses
import gzip
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
        self.records = []  # (node, thread, nanoseconds, inherited), in the order of the log
        self.losses, self.thread_names, self.loads, self.faults = [], {}, [], []
        self.cut_off = self.newer = False
        self.data, self.place = data, 8
        thread = now = inherited = 0
        while self.place < len(data):
            begin = self.place
            try:
                number = self.number()
                if number >= FIRST_STACK:
                    if not 0 <= number - FIRST_STACK < len(self.nodes):
                        raise ValueError(f"stack {number - FIRST_STACK} comes before its node, at {begin}")
                    self.records.append((number - FIRST_STACK, thread, now, inherited > 0))
                    inherited -= inherited > 0
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
                    now = self.number()
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


def contents(path):
    """The bytes of a file that may be compressed; a compressed one that is cut off gives what can be read of it."""
    path = pathlib.Path(path)
    if path.suffix == ".zst":
        return subprocess.run(["zstd", "-dcq", path], stdout=subprocess.PIPE).stdout
    if path.suffix == ".gz":
        return gzip.decompress(path.read_bytes())
    return path.read_bytes()


class Recording:
    """A log with its stacks: `lines` are all of (code, address, Record of a new block or None)."""

    def __init__(self, log, stacks=None):
        log = pathlib.Path(log)
        beside = log.with_name(log.name.replace(".mtrace", ".stacks"))
        self.stacks = Stacks(contents(stacks or beside))
        self.lines = []
        known = iter(self.stacks.records)
        for text in contents(log).decode("utf-8", "surrogateescape").splitlines():
            if not text.startswith("@"):
                continue
            match = LINE.fullmatch(text)
            if match is None:
                raise ValueError(f"{log}: {text}")
            caller, code, address, size = match.groups()
            if (code in "+>") != (size is not None):
                raise ValueError(f"{log}: {text}")
            record = None
            if code in "+>":
                record = Record(int(address, 16), int(size, 16), caller)
                for name, value in zip(("node", "thread", "time", "inherited"), next(known, ())):
                    setattr(record, name, value)
            self.lines.append((code, int(address, 16), record))
        self.stacks_left = sum(1 for _ in known)

    def count(self, codes):
        return sum(code in codes and not (record and record.inherited) for code, _, record in self.lines)

    def replay(self):
        """(blocks that are alive at the end, {address: Record}; releases of blocks that were not alive)"""
        alive, bad = {}, []
        for place, (code, address, record) in enumerate(self.lines):
            if record is not None:
                if address in alive:
                    bad.append((place, code, address))
                alive[address] = record
            elif alive.pop(address, None) is None:
                bad.append((place, code, address))
        return alive, bad
