#!/usr/bin/env python3
"""Changes in generated texts: edits_test.py --driver PROGRAM [--runner PROGRAM] [--count N] [--seed N]

After each change, Python's parser must find what was wanted, and nothing else in the text may have changed: comments,
order and formatting are compared byte by byte.
"""

import argparse
import copy
import random
import sys
import tomllib
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

NO_VALUE, NO_PLACE = 193, 198
NAMES = ["a", "b", "c", "port", "x-y", "9", "a b", "ü", "q\"u", "a.b", ""]
SCALARS = ["1", "-17", "0x1F", "1_000", "true", "3.5", "-inf", "1e3", '"text"', "'lit # eral'", '"a\\tb\\u00e9 # no"',
           "1979-05-27T07:32:00Z", "1979-05-27", "07:32:00.5", '"""\nmany # lines\n[x]\ny = 1\n"""', "'''\n''it's'''",
           "9223372036854775807"]
options = None


def bare(name):
    return name != "" and all(c.isascii() and (c.isalnum() or c in "_-") for c in name)


def quote(name, random=None):
    if bare(name) and not (random and random.random() < 0.1):
        return name
    return '"' + name.replace("\\", "\\\\").replace('"', '\\"') + '"'


def path_text(path):
    text = ""
    for step in path:
        text += f"[{step}]" if isinstance(step, int) else ("." if text else "") + quote(step)
    return text


class Generator:
    """Makes texts that Python's parser accepts, in as many styles as people have."""

    def __init__(self, random):
        self.random = random

    def comment(self):
        return self.random.choice(["", "", "", " # a comment", "# tight [x] = 'q\"", "\t#\ttabs"])

    def value(self, depth=0):
        kind = self.random.random()
        if depth < 3 and kind < 0.12:
            return self.array(depth)
        if depth < 3 and kind < 0.2:
            return self.inline_table(depth)
        return self.random.choice(SCALARS)

    def array(self, depth):
        items = [self.value(depth + 1) for _ in range(self.random.randrange(4))]
        style = self.random.randrange(4)
        if style == 0:
            return "[" + ",".join(items) + "]"
        if style == 1:
            return "[ " + ", ".join(items) + (" , " if items and self.random.random() < 0.3 else " ") + "]"
        lines = "".join(f"    {item},{self.comment()}{self.eol}" for item in items[:-1])
        if items:
            lines += f"    {items[-1]}{self.random.choice([',', ''])}{self.comment()}{self.eol}"
        return "[" + self.comment() + self.eol + lines + self.random.choice(["", "  # last" + self.eol]) + "]"

    def inline_table(self, depth):
        names = self.random.sample(NAMES, self.random.randrange(4))
        pairs = []
        for name in names:
            key = quote(name, self.random)
            if self.random.random() < 0.2:
                key += "." + quote(self.random.choice(NAMES))
            pairs.append(f"{key} = {self.value(depth + 1)}")
        return self.random.choice(["{%s}", "{ %s }"]) % ", ".join(pairs)

    def pairs(self, count):
        lines = ""
        indent = self.random.choice(["", "", "  ", "\t"])
        for name in self.random.sample(NAMES, count):
            key = quote(name, self.random)
            for _ in range(self.random.choice([0, 0, 0, 1, 2])):
                key += self.random.choice([".", " . "]) + quote(self.random.choice(NAMES))
            if self.random.random() < 0.2:
                lines += f"{indent}# about {name!r}{self.eol}"
            lines += f"{indent}{key}{self.random.choice(['=', ' = ', '  ='])}{self.value()}{self.comment()}{self.eol}"
            if self.random.random() < 0.1:
                lines += self.eol
        return lines

    def text(self):
        self.eol = self.random.choice(["\n", "\n", "\n", "\r\n"])
        while True:
            text = self.random.choice(["", "", "# first line" + self.eol, self.eol])
            text += self.pairs(self.random.randrange(4))
            for _ in range(self.random.randrange(5)):
                key = ".".join(quote(self.random.choice(NAMES)) for _ in range(self.random.choice([1, 1, 2, 3])))
                brackets = self.random.choice(["[%s]", "[%s]", "[ %s ]", "[[%s]]"])
                text += self.random.choice(["", self.eol, "# on the table" + self.eol])
                text += brackets % key + self.comment() + self.eol + self.pairs(self.random.randrange(4))
            if self.random.random() < 0.2:
                text = text.rstrip("\r\n")
            try:
                tomllib.loads(text)
            except tomllib.TOMLDecodeError:
                continue
            return text


def paths_in(value, path=()):
    """Returns the paths of all values below this one."""
    found = []
    items = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for step, each in items:
        found += [(*path, step), *paths_in(each, (*path, step))]
    return found


def at(value, path):
    for step in path:
        value = value[step]
    return value


def put(model, path, value):
    """Sets a value in a model, and makes what is missing on the way. Returns False where there is no place for it."""
    for step, next_step in zip(path, (*path[1:], None)):
        last = next_step is None
        made = value if last else [] if isinstance(next_step, int) else {}
        if isinstance(step, int):
            if not isinstance(model, list) or step > len(model):
                return False
            if step == len(model):
                model.append(made)
            elif last:
                model[step] = made
        elif not isinstance(model, dict):
            return False
        elif last or step not in model:
            model[step] = made
        model = model[step]
    return True


def same(one, other):
    """Compares two values; nan is like itself, and 1 is neither true nor 1.0."""
    return repr(one) == repr(other) if not isinstance(one, (dict, list)) else \
        type(one) is type(other) and len(one) == len(other) and (
            all(name in other and same(each, other[name]) for name, each in one.items()) if isinstance(one, dict)
            else all(same(*pair) for pair in zip(one, other)))


def without(model, path):
    """Removes a value. Returns all models that are right: tables without lines of their own may be gone with it."""
    models = []
    while path:
        changed = copy.deepcopy(model)
        del at(changed, path[:-1])[path[-1]]
        models.append(changed)
        path = path[:-1]
        if not path or len(at(changed, path)) != 0 or isinstance(at(changed, path), list) and len(path) == 0:
            break
    return models


def is_inserted(old, new):
    """Whether `new` is `old` with a piece in one place."""
    begin = len(common(old, new))
    end = len(common(old[::-1], new[::-1]))
    return begin + end >= len(old)


def common(one, other):
    length = 0
    for a, b in zip(one, other):
        if a != b:
            break
        length += 1
    return one[:length]


def is_part(small, large):
    """Whether all bytes of one text stand in the other, in this order."""
    rest = iter(large)
    return all(byte in rest for byte in small)


class Edits(unittest.TestCase):
    def setUp(self):
        self.driver = Driver(options.command)
        self.addCleanup(self.driver.__exit__)
        self.random = random.Random(options.seed)
        self.generator = Generator(self.random)
        self.done = dict.fromkeys(["set", "new", "removed", "refused"], 0)

    def parse(self, text):
        self.assertEqual(self.driver.ask("parse", text.encode()), [], text)

    def text(self):
        return decode(self.driver.ask("text")[0]).decode()

    def test_edits(self):
        count = 0
        while count < options.count:
            text = self.generator.text()
            self.parse(text)
            for _ in range(10):
                model = tomllib.loads(text)
                paths = paths_in(model)
                if paths and self.random.random() < 0.3:
                    text = self.remove(text, model, self.random.choice(paths))
                elif paths and self.random.random() < 0.5:
                    text = self.set(text, model, self.random.choice(paths))
                else:
                    text = self.set(text, model, self.new_path(model, paths))
                count += 1
        print(self.done)
        self.assertGreater(min(self.done.values()), options.count // 50)

    def new_path(self, model, paths):
        above = self.random.choice([(), *paths])
        value = at(model, above)
        steps = [self.random.choice(NAMES) for _ in range(self.random.choice([1, 1, 2, 3]))]
        if isinstance(value, list):
            steps = [self.random.choice([len(value), len(value), len(value) + 1]), *steps[1:]]
        if self.random.random() < 0.15:
            steps.append(0)
            if self.random.random() < 0.5:
                steps.append(self.random.choice(NAMES))
        return (*above, *steps)

    def set(self, text, model, path):
        literal = self.generator.value()
        wanted = copy.deepcopy(model)
        value = tomllib.loads("x = " + literal)["x"]
        has_place = put(wanted, path, value)
        exists = path in paths_in(model)
        told = f"{path_text(path)} = {literal}\n--- in\n{text}"
        place = self.place(text, path) if exists else None
        answer = self.driver.ask("literal", path_text(path).encode(), literal.encode())
        new = self.text()
        if failed(answer):
            self.assertEqual(answer[0], NO_PLACE, told)
            self.assertEqual(new, text, told)
            # A table that has lines of its own is never replaced, and a list of such tables gets no other elements.
            is_table = exists and isinstance(at(model, path), (dict, list))
            missing = next((step for i, step in enumerate(path) if path[:i + 1] not in paths_in(model)), None)
            self.assertTrue(is_table or isinstance(missing, int) or not has_place, told)
            self.done["refused"] += 1
            return text
        self.assertTrue(has_place, told)
        self.assertTrue(same(tomllib.loads(new), wanted), f"{told}\n--- is\n{new}")
        if exists:
            # The old value, from its place on, has become the literal.
            self.assertTrue(new.startswith(text[:place] + literal), told)
            rest = new[place + len(literal):]
            self.assertTrue(text.endswith(rest), told)
            old = text[place:len(text) - len(rest)]
            self.assertTrue(same(tomllib.loads("x = " + old)["x"], at(model, path)), told)
        elif any(isinstance(step, int) for step in path):
            self.assertTrue(is_part(text, new), f"{told}\n--- is\n{new}")
        else:
            self.assertTrue(is_inserted(text, new), f"{told}\n--- is\n{new}")
        self.done["set" if exists else "new"] += 1
        return new

    def place(self, text, path):
        """Returns where a value begins in a text."""
        _, line, column = self.driver.ask("origin", path_text(path).encode())
        return sum(len(each) + 1 for each in text.split("\n")[:int(line) - 1]) + int(column) - 1

    def remove(self, text, model, path):
        told = f"remove {path_text(path)}\n--- in\n{text}"
        self.assertEqual(self.driver.ask("remove", path_text(path).encode()), [], told)
        new = self.text()
        found = tomllib.loads(new)
        self.assertTrue(any(same(found, each) for each in without(model, path)), f"{told}\n--- is\n{new}")
        self.assertTrue(is_part(new, text), f"{told}\n--- is\n{new}")
        if not any(isinstance(step, int) for step in path) and not isinstance(at(model, path), (dict, list)):
            self.assertTrue(is_inserted(new, text), f"{told}\n--- is\n{new}")
        self.done["removed"] += 1
        return new


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    parser.add_argument("--count", type=int, default=10_000)
    parser.add_argument("--seed", type=int, default=1)
    options, rest = parser.parse_known_args()
    options.command = [word for word in (options.runner, options.driver) if word]
    unittest.main(argv=[sys.argv[0], *rest])
