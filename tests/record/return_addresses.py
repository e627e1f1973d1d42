"""Whether the frames of a stack can be what they claim: return addresses, read from the code of the modules."""

import mmap
import struct

RETURN_FROM_SIGNAL = bytes.fromhex("48c7c00f000000")  # mov $15,%rax: the C library's trampoline


class Code:
    """The bytes of an object file by their addresses in it (x86-64)."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
        table, = struct.unpack_from("<Q", self.data, 32)
        size, count = struct.unpack_from("<HH", self.data, 54)
        self.segments = []
        for i in range(count):
            kind, flags, offset, address, _, length, _, _ = struct.unpack_from("<IIQQQQQQ", self.data, table + i * size)
            if kind == 1 and flags & 1:  # loaded, executable
                self.segments.append((address, offset, length))

    def around(self, address, before, behind):
        for begin, offset, length in self.segments:
            if begin + before <= address < begin + length:
                place = offset + address - begin
                return self.data[place - before:place + behind]
        return None

    def follows_a_call(self, address):
        bytes_before = self.around(address, 7, 0)
        if bytes_before is None:
            return False
        if bytes_before[-5] == 0xE8:  # call rel32
            return True
        # call *r/m64: FF /2, with the length that the addressing takes
        for length in (2, 3, 4, 6, 7):
            opcode, modrm = bytes_before[-length], bytes_before[-length + 1]
            if opcode == 0xFF and modrm >> 3 & 7 == 2:
                mode, base = modrm >> 6, modrm & 7
                sib = mode != 3 and base == 4
                displacement = {0: 4 if base == 5 or sib and bytes_before[-length + 2] & 7 == 5 else 0, 1: 1, 2: 4, 3: 0}[mode]
                if length == 2 + sib + displacement:
                    return True
        return False

    def is_signal_trampoline(self, address):
        return self.around(address, 0, len(RETURN_FROM_SIGNAL)) == RETURN_FROM_SIGNAL


class Checker:
    def __init__(self):
        self.codes = {}

    def code(self, path):
        if path not in self.codes:
            self.codes[path] = Code(path) if path.startswith("/") else None
        return self.codes[path]

    def foreign(self, stacks):
        """Nodes whose address no call returns to, nor a signal, nor an exception: (module, address, number of the node)."""
        result = []
        children = [[] for _ in stacks.nodes]
        for number, (parent, _, _) in enumerate(stacks.nodes):
            children[parent].append(number)
        for number, (_, module, address) in enumerate(stacks.nodes):
            if number == 0 or module is None or (code := self.code(module.path)) is None:
                continue
            if code.follows_a_call(address) or code.is_signal_trampoline(address):
                continue
            # A frame that a signal has interrupted may be at any instruction.
            inner = children[number]
            interrupted = inner and all(
                (known := stacks.nodes[child][1]) is not None and self.code(known.path) is not None
                and self.code(known.path).is_signal_trampoline(stacks.nodes[child][2]) for child in inner)
            # An exception's run-time returns to the place that handles it. A signal may come just before that.
            landing = inner and all((known := stacks.nodes[child][1]) is not None and "/libgcc_s.so" in known.path
                                    for child in inner)
            if not (interrupted or landing) or code.around(address, 0, 1) is None:
                result.append((module.path, hex(address), number))
        return result
