#!/usr/bin/env python3
"""Compares the operations of files, in random order, with those of Python's os module.

usage: model_test.py --driver PROGRAM [--runner PROGRAM] [--count N] [--seed N]

Each run opens a file in a random mode and applies some hundred operations to it and to a file of the model. Results,
positions, sizes and, at the end, the contents must be the same.
"""

import argparse
import os
import random
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from file_driver import *  # noqa: E402,F403  # in tests/support

options = None


class Model:
    """The same operations on a file of the system's own."""

    def __init__(self, path, mode):
        self.mode = mode
        flags = (os.O_RDONLY if not mode & WRITING else os.O_RDWR if mode & READING else os.O_WRONLY)
        if not mode & EXISTING:
            flags |= os.O_CREAT
        if mode & NEW:
            flags |= os.O_EXCL
        if mode & TRUNCATE:
            flags |= os.O_TRUNC
        if mode & APPEND:
            flags |= os.O_APPEND
        try:
            self.file = os.open(path, flags, 0o666)
        except OSError:
            raise Failed(CANNOT_OPEN, "") from None

    def close(self):
        os.close(self.file)

    def need(self, flag):
        if not self.mode & flag:
            raise Failed(FILE_MODE, "")

    def read(self, count):
        self.need(READING)
        return os.read(self.file, count)

    def read_exact(self, count):
        self.need(READING)
        place = self.tell()
        found = os.read(self.file, count)
        if len(found) < count:
            os.lseek(self.file, place, os.SEEK_SET)
            raise Failed(FILE_ENDS, "")
        return found

    def read_at(self, offset, count):
        self.need(READING)
        found = os.pread(self.file, count, offset)
        if len(found) < count:
            raise Failed(FILE_ENDS, "")
        return found

    def write(self, text):
        self.need(WRITING)
        assert os.write(self.file, text) == len(text)
        # The system's position does not move if nothing is written.
        if self.mode & APPEND:
            os.lseek(self.file, 0, os.SEEK_END)

    def write_at(self, offset, text):
        self.need(WRITING)
        if self.mode & APPEND:
            raise Failed(FILE_MODE, "")
        assert os.pwrite(self.file, text, offset) == len(text)

    def seek(self, offset, origin):
        try:
            os.lseek(self.file, offset, (os.SEEK_SET, os.SEEK_CUR, os.SEEK_END)[origin])
        except OSError:
            raise Failed(CANNOT_SEEK, "") from None

    def tell(self):
        return os.lseek(self.file, 0, os.SEEK_CUR)

    def size(self):
        return os.fstat(self.file).st_size

    def set_size(self, size):
        self.need(WRITING)
        os.ftruncate(self.file, size)

    def flush(self, _where):
        self.need(WRITING)


def outcome(operation, *words):
    """Returns the result of an operation, or the number of its error."""
    try:
        return operation(*words)
    except Failed as failure:
        return failure.number


def is_valid(mode):
    return (mode & (READING | WRITING) and (mode & WRITING or mode & EXISTING)
            and not (mode & (NEW | TRUNCATE | APPEND) and not mode & WRITING) and not (mode & EXISTING and mode & NEW)
            and not mode & REPLACE)


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.paths = self.folder / "tested", self.folder / "model"

    def fill(self, content):
        for path in self.paths:
            path.unlink(missing_ok=True)
            if content is not None:
                path.write_bytes(content)

    def contents(self):
        return [path.read_bytes() if path.exists() else None for path in self.paths]

    def test_every_mode_with_a_file_and_without(self):
        for handles in (False, True):
            with Driver(options.command, handles=handles) as driver:
                for mode in range(256):
                    for content in (None, b"", b"0123456789"):
                        with self.subTest(mode=mode, content=content, handles=handles):
                            self.fill(content)
                            theirs = INVALID_ARGUMENT
                            if is_valid(mode):
                                theirs = outcome(Model, self.paths[1], mode)
                            ours = outcome(driver.run, "open", 0, self.paths[0], mode)
                            driver.run("close", 0)
                            if isinstance(theirs, Model):
                                theirs.close()
                                theirs = []
                            self.assertEqual(ours, theirs)
                            self.assertEqual(*self.contents())

    def random_operation(self, source, driver, model):
        """Returns the tested operation and the model's, with their words."""
        place = source.choice([0, 1, source.randrange(300), source.randrange(5000), 1 << 33])
        count = source.choice([0, 1, source.randrange(100), source.randrange(4000)])
        text = source.randbytes(count)
        return source.choice([
            (driver.bytes, ("read", 0, count), model.read, (count,)),
            (driver.bytes, ("read-exact", 0, count), model.read_exact, (count,)),
            (driver.bytes, ("read-at", 0, place, count), model.read_at, (place, count)),
            (driver.run, ("write", 0, text), model.write, (text,)),
            (driver.run, ("write-at", 0, place % 9000, text), model.write_at, (place % 9000, text)),
            *[(driver.run, ("seek", 0, offset, origin), model.seek, (offset, origin))
              for offset, origin in [(place % 9000, BEGIN), (source.randrange(-300, 300), POSITION),
                                     (source.randrange(-300, 30), END)]],
            (driver.number, ("tell", 0), model.tell, ()),
            (driver.number, ("size", 0), model.size, ()),
            (driver.run, ("set-size", 0, place % 9000), model.set_size, (place % 9000,)),
            (driver.run, ("flush", 0, TO_SYSTEM), model.flush, (TO_SYSTEM,)),
        ])

    def test_random_operations(self):
        modes = [mode for mode in range(128) if is_valid(mode) and not mode & NEW]
        for seed in range(options.seed, options.seed + options.count):
            source = random.Random(seed)
            self.fill(source.randbytes(source.choice([0, 10, 4096, 6000])))
            mode = source.choice(modes)
            with Driver(options.command, handles=seed % 2 == 1) as driver:
                driver.run("open", 0, self.paths[0], mode)
                model = Model(self.paths[1], mode)
                for step in range(200):
                    tested, words, expected, same_words = self.random_operation(source, driver, model)
                    theirs = outcome(expected, *same_words)
                    ours = outcome(tested, *words)
                    self.assertEqual(ours, [] if theirs is None else theirs, f"seed {seed}, step {step}: {words[:3]}, mode {mode}")
                    self.assertEqual(driver.number("tell", 0), model.tell(), f"seed {seed}, step {step}: {words[:3]}, mode {mode}")
                model.close()
            self.assertEqual(*self.contents(), f"seed {seed}")

    def test_streams_in_pieces_of_every_size(self):
        """A source and a target move the same bytes as Python does, whatever the sizes of the pieces."""
        source = random.Random(options.seed)
        block = 256 * 1024
        sizes = [0, 1, 2, 3, 4, 1000, block - 1, block, block + 1, 3 * block + 17]
        with Driver(options.command) as driver:
            for size in sizes:
                content = source.randbytes(size)
                for step in (1 if size < 5000 else 1000, 4096, 32 * 1024 - 1, 32 * 1024, block, 10 * block):
                    with self.subTest(size=size, step=step):
                        self.assertEqual(driver.number("put", self.paths[0], 0, content, step, 1), size)
                        self.assertEqual(self.paths[0].read_bytes(), content)
                        self.assertEqual(driver.bytes("get", self.paths[0], step), content)
                self.assertEqual(driver.bytes("get", self.paths[0], 0), content)
                for mode in (0, REPLACE, APPEND):
                    for limit in (0, 1, size // 2, TO_THE_END):
                        with self.subTest(size=size, mode=mode, limit=limit):
                            self.paths[1].write_bytes(b"before")
                            moved = min(size, 3 + limit)
                            counts = list(map(int, driver.run("copy", self.paths[0], self.paths[1], mode, limit)))
                            self.assertEqual(counts, [moved] * 3)
                            self.assertEqual(self.paths[1].read_bytes(),
                                             (b"before" if mode == APPEND else b"") + content[:moved])


parser = argparse.ArgumentParser()
parser.add_argument("--driver", required=True)
parser.add_argument("--runner")
parser.add_argument("--count", type=int, default=60)
parser.add_argument("--seed", type=int, default=1)
options, rest = parser.parse_known_args()
options.command = [*([options.runner] if options.runner else []), options.driver]
unittest.main(argv=[sys.argv[0], *rest])
