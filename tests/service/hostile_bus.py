"""A bus and a manager in one, which talk D-Bus as bytes, so that they can do everything wrong."""

import socket
import struct
import tempfile
import threading
from pathlib import Path

MANAGER = "org.freedesktop.systemd1.Manager"
PATH = "/org/freedesktop/systemd1"
JOB = PATH + "/job/1"
METHOD, REPLY, ERROR, SIGNAL = 1, 2, 3, 4


class Writer:
    """Marshals values in the order of little-endian machines."""

    def __init__(self):
        self.data = bytearray()

    def align(self, size):
        self.data += bytes(-len(self.data) % size)

    def number(self, value):
        self.align(4)
        self.data += struct.pack("<I", value)

    def text(self, value):
        raw = value.encode()
        self.number(len(raw))
        self.data += raw + b"\0"

    def signature(self, value):
        self.data += bytes([len(value)]) + value.encode() + b"\0"


def body_of(signature, values):
    out = Writer()
    for kind, value in zip(signature.replace("a{sv}", "d"), values):
        if kind == "u":
            out.number(value)
        elif kind in "so":
            out.text(value)
        else:
            properties = Writer()
            properties.data += b"\0" * 8  # as far as the alignment goes, they begin at 0
            for name, text in value.items():
                properties.align(8)
                properties.text(name)
                properties.signature("s")
                properties.text(text)
            out.number(len(properties.data) - 8)
            out.align(8)
            out.data += properties.data[8:]
    return bytes(out.data)


def message(kind, serial, fields, signature="", *values):
    """fields: {number: (signature, value)}"""
    body = body_of(signature, values)
    header = Writer()
    if signature:
        fields = {**fields, 8: ("g", signature)}
    for number, (kind_of_field, value) in fields.items():
        header.align(8)
        header.data += bytes([number])
        header.signature(kind_of_field)
        {"u": header.number, "s": header.text, "o": header.text, "g": header.signature}[kind_of_field](value)
    size = len(header.data)
    header.align(8)
    return b"l" + bytes([kind, 0, 1]) + struct.pack("<III", len(body), serial, size) + bytes(header.data)


def whole(kind, serial, fields, signature="", *values):
    return message(kind, serial, fields, signature, *values) + body_of(signature, values)


class Question:
    """A message of the client: what the answer needs to know of it."""

    def __init__(self, raw):
        self.flags, self.serial = raw[2], struct.unpack_from("<I", raw, 8)[0]
        self.member = next((name for name in (
            "Hello", "AddMatch", "RemoveMatch", "Subscribe", "LoadUnit", "GetAll", "StartUnit", "StopUnit")
            if b"\x03\x01s\0" + struct.pack("<I", len(name)) + name.encode() + b"\0" in raw), None)


class HostileBus:
    """Accepts connections. `answer(question)` returns the parts that a question gets, or None for the right answer;
    `greeting` is what the login gets, or None to close the connection. Both may be changed at any time."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="qor.")
        path = Path(self.folder.name, "bus")
        self.address = f"unix:path={path}"
        self.greeting = b"DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n"
        self.answer = lambda question: None
        self.questions = []
        self.serial = 0
        self.open = []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            self.open.append(connection)
            threading.Thread(target=self.serve, args=[connection], daemon=True).start()

    def end(self):
        self.listener.close()
        for each in self.open:
            each.close()
        self.folder.cleanup()

    def serve(self, connection):
        try:
            read = self.log_in(connection)
            while True:
                question = self.read_question(connection, read)
                self.questions.append(question)
                given = self.answer(question)
                for part in [self.right_answer(question)] if given is None else given:
                    connection.sendall(part)
        except OSError:
            pass

    def log_in(self, connection):
        said = b""
        sent = False
        while b"BEGIN\r\n" not in said:
            part = connection.recv(4096)
            if not part:
                raise OSError
            said += part
            if not sent:
                sent = True
                if self.greeting is None:
                    connection.close()
                    raise OSError
                connection.sendall(self.greeting)
        return bytearray(said[said.index(b"BEGIN\r\n") + 7:])

    @staticmethod
    def take(connection, read, size):
        """Returns the next bytes; `read` is what was received before."""
        while len(read) < size:
            part = connection.recv(65536)
            if not part:
                raise OSError
            read += part
        data = bytes(read[:size])
        del read[:size]
        return data

    def read_question(self, connection, read):
        head = self.take(connection, read, 16)
        body, _, fields = struct.unpack_from("<III", head, 4)
        return Question(head + self.take(connection, read, fields + -fields % 8 + body))

    def next_serial(self):
        self.serial += 1
        return self.serial

    def reply(self, question, sender, signature="", *values):
        return whole(REPLY, self.next_serial(), {5: ("u", question.serial), 6: ("s", ":1.7"), 7: ("s", sender)},
                     signature, *values)

    def signal(self, member, signature, *values, sender=":1.2"):
        return whole(SIGNAL, self.next_serial(),
                     {1: ("o", PATH), 2: ("s", MANAGER), 3: ("s", member), 7: ("s", sender)}, signature, *values)

    def right_answer(self, question):
        member = question.member
        if member == "Hello":
            return self.reply(question, "org.freedesktop.DBus", "s", ":1.7") + whole(
                SIGNAL, self.next_serial(), {1: ("o", "/org/freedesktop/DBus"), 2: ("s", "org.freedesktop.DBus"),
                                             3: ("s", "NameAcquired"), 7: ("s", "org.freedesktop.DBus"),
                                             6: ("s", ":1.7")}, "s", ":1.7")
        if member in ("AddMatch", "RemoveMatch"):
            return self.reply(question, "org.freedesktop.DBus")
        if member == "LoadUnit":
            return self.reply(question, ":1.2", "o", PATH + "/unit/quick_2eservice")
        if member == "GetAll":
            return self.reply(question, ":1.2", "a{sv}", {
                "Id": "quick.service", "LoadState": "loaded", "ActiveState": "active", "SubState": "running",
                "Result": "success"})
        if member in ("StartUnit", "StopUnit"):
            return self.reply(question, ":1.2", "o", JOB) + self.signal(
                "JobRemoved", "uoss", 1, JOB, "quick.service", "done")
        return self.reply(question, ":1.2")


def damaged(data, chance):
    """Returns the bytes with some of them changed, doubled or missing."""
    out = bytearray(data)
    for _ in range(chance.choice([0, 1, 1, 2, 5])):
        at = chance.randrange(len(out))
        kind = chance.randrange(4)
        if kind == 0:
            out[at] = chance.randrange(256)
        elif kind == 1:
            out[at] ^= 1 << chance.randrange(8)
        elif kind == 2:
            del out[at:at + chance.randrange(1, 9)]
        else:
            out[at:at] = out[at:at + chance.randrange(1, 9)]
        if not out:
            break
    return bytes(out)
