"""Writes files of stacks, as docs/heap-logs.md describes them."""


def number(value):
    result = bytearray()
    while value > 0x7F:
        result.append(value & 0x7F | 0x80)
        value >>= 7
    result.append(value)
    return bytes(result)


def text(value):
    return number(len(value)) + value


class StacksWriter:
    def __init__(self, pid=0, parent=0, start=0, depth=64, path=b"", recorder=b"test"):
        self.data = bytearray(b"QORSTK\x01\n")
        self.modules = 0
        self.nodes = {}
        self.entry(1, pid, parent, start, depth)
        self.data += text(path) + text(recorder)

    def entry(self, kind, *numbers):
        for each in (kind, *numbers):
            self.data += number(each)

    def module(self, base, begin, end, path, build_id):
        self.entry(2, base, begin, end)
        self.data += text(path) + text(build_id)
        self.modules += 1
        return self.modules

    def node(self, frames):
        """Of (module, address) frames, the innermost first."""
        if not frames:
            return 0
        if frames not in self.nodes:
            parent = self.node(frames[1:])
            self.entry(5, parent, *frames[0])
            self.nodes[frames] = len(self.nodes) + 1
        return self.nodes[frames]

    def stack(self, frames):
        node = self.node(tuple(frames))
        self.entry(16 + node)

    def thread(self, thread):
        self.entry(6, thread)

    def thread_name(self, thread, name):
        self.entry(7, thread)
        self.data += text(name)

    def time(self, time):
        self.entry(8, time)

    def loss(self, records, reason):
        self.entry(9, records)
        self.data += text(reason)

    def inherited(self, count):
        self.entry(10, count)
