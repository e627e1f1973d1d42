"""Runs a program that applies operations, in the form of line_driver.h."""

import os
import subprocess

KINDS = ["unknown", "file", "folder", "link", "pipe", "socket", "character device", "block device"]


def encode(word):
    return "x" + (word if isinstance(word, bytes) else os.fsencode(word)).hex()


def decode(word):
    return bytes.fromhex(word[1:])


class Driver:
    """One process, which answers one operation after the other."""

    def __init__(self, command, environment=None, **options):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        env=environment and {**os.environ, **environment}, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it has ended before it was asked
        self.process.stdout.close()
        self.process.wait()

    def ask(self, *words):
        """Returns the words of the answer behind "ok", or (number, text) of an error; None: the process has ended."""
        line = " ".join(encode(str(word) if isinstance(word, int) else word) for word in words)
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            return None
        answer = self.process.stdout.readline().split()
        if not answer:
            return None
        if answer[0] == "error":
            return int(answer[1]), decode(answer[2]).decode(errors="replace")
        return answer[1:]


def failed(answer):
    return isinstance(answer, tuple)
