"""What the tests of object stores share: the driver, and a reader of the stream form of sets."""

import base64
import os
import struct
import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

CREATE, OPEN, READ_ONLY, DAMAGED = range(4)
(MISSING, NOT_OURS, NEWER, OLDER, NOT_MIGRATED, BUSY, FAILED, FULL, BROKEN, CONFLICT, ONLY_READ, TRANSACTION, TOO_LARGE,
 EXISTS) = range(206, 220)


class Store(Driver):
    """A process with a store."""

    def __init__(self, options, path=None, mode=CREATE, wait=10000, synced=False, schema=0, steps=""):
        super().__init__(options.command)
        self.runner = options.runner
        if path is not None:
            self.good("open", self.name(path), mode, wait, int(synced), schema, steps)

    def name(self, path):
        return os.fsencode(f"Z:{path}" if self.runner else path)

    @staticmethod
    def word(word):
        return word.encode() if isinstance(word, str) else word

    def good(self, *words):
        answer = self.ask(*map(self.word, words))
        assert answer is not None and not failed(answer), (words, answer)
        return answer

    def bad(self, error, *words):
        answer = self.ask(*map(self.word, words))
        assert failed(answer) and answer[0] == error, (words, answer)
        return answer[1]

    def get(self, key):
        version, text = self.good("get", key)
        return int(version), decode(text).decode()

    def put(self, key, text, version="any"):
        return int(self.good("put", key, text, str(version))[0])

    def walk(self, start="", below="", prefix="", backward=False):
        words = self.good("walk", start, below, prefix, "1" if backward else "0")
        return [(decode(words[i]), int(words[i + 1]), decode(words[i + 2]).decode()) for i in range(0, len(words), 3)]


class Reader:
    """Reads the stream form that docs/stream-form.md describes."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def number(self, form):
        (value,) = struct.unpack_from("<" + form, self.data, self.at)
        self.at += struct.calcsize("<" + form)
        return value

    def bytes(self):
        size = self.number("I")
        self.at += size
        assert self.at <= len(self.data)
        return self.data[self.at - size:self.at]

    def value(self):
        kind = self.number("H")
        if kind == 0:
            return None
        if kind == 1:
            return bool(self.number("H"))
        if kind in (2, 3, 4, 5):
            return self.number({2: "q", 3: "Q", 4: "d", 5: "Q"}[kind])
        if kind == 6:
            return self.bytes().decode()
        if kind == 7:
            return base64.b64encode(self.bytes()).decode()
        if kind == 8:
            return [self.value() for _ in range(self.number("I"))]
        assert kind == 9, kind
        return self.attributes()

    def attributes(self):
        return {self.bytes().decode(): self.value() for _ in range(self.number("I"))}

    def whole_set(self):
        assert (self.number("H"), self.number("H")) == (0x7104, 1)
        value = self.attributes()
        assert self.at == len(self.data)
        return value
