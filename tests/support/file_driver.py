"""Runs tests/file/file_driver.cpp and talks to it."""

import os
import subprocess

READING, WRITING, EXISTING, NEW, SHARED, TRUNCATE, APPEND, REPLACE = (1 << bit for bit in range(8))

BEGIN, POSITION, END = range(3)
TO_SYSTEM, TO_DISK = range(2)
TO_THE_END = (1 << 64) - 1

# Numbers of qor/system/errors.def.
INVALID_ARGUMENT, CANNOT_OPEN, CANNOT_READ, CANNOT_WRITE, NOT_OPEN = 3, 10, 11, 12, 13
NO_DISK_FILE, FILE_ENDS = 50, 51
CANNOT_DELETE, FILE_MODE, FILE_IN_USE, FILE_WAS_REPLACED, CANNOT_SEEK = 133, 134, 135, 136, 137


def hexed(value):
    """Returns the form in which a path or bytes travel."""
    if isinstance(value, (os.PathLike, str)):
        value = os.fsencode(value)
    return value.hex() or "-"


class Failed(Exception):
    """An operation failed: its error's number and text."""

    def __init__(self, number, text):
        super().__init__(f"{number} {text}")
        self.number, self.text = number, text


class Driver:
    """A process of the driver. Paths and bytes among the words of a command are given as they are."""

    def __init__(self, command, *, handles=False, environment=None, **more):
        self.process = subprocess.Popen(
            [*map(str, command), *(["--handle"] if handles else [])], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env={"LC_ALL": "C", "PATH": os.defpath, **(environment or {})}, **more)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass
        self.process.wait(timeout=100)
        self.process.stdout.close()
        self.process.stderr.close()

    def run(self, *words):
        """Returns the words of the result, or raises Failed."""
        sent = [str(word) if isinstance(word, int) or i == 0 else hexed(word) for i, word in enumerate(words)]
        try:
            self.process.stdin.write((" ".join(sent) + "\n").encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            raise RuntimeError("the driver has ended") from None
        answer = self.process.stdout.readline().decode(errors="surrogateescape").rstrip("\r\n")
        kind, _, rest = answer.partition(" ")
        if kind == "error":
            number, _, text = rest.partition(" ")
            raise Failed(int(number), text)
        if kind != "ok":
            raise RuntimeError(answer or self.process.stderr.read().decode())
        return rest.split()

    def bytes(self, *words):
        """The same for a command whose result is bytes."""
        (text,) = self.run(*words)
        return b"" if text == "-" else bytes.fromhex(text)

    def number(self, *words):
        (text,) = self.run(*words)
        return int(text)
