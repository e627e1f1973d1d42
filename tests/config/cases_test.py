#!/usr/bin/env python3
"""The cases of toml-test: cases_test.py --driver PROGRAM [--runner PROGRAM]

All values of a valid text must be as its case says, and each must be found where it stands. For an invalid text, the
error must name a place in it.
"""

import argparse
import json
import re
import sys
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

CASES = Path("/usr/share/gocode/src/github.com/BurntSushi/toml/internal/toml-test/tests")
SYNTAX, TOO_DEEP, AMBIGUOUS = 190, 200, 205
# Invalid texts that the parser accepts.
ACCEPTED = set()
# A valid text of a later version than TOML 1.0: the escape "\\e".
LATER = {"valid/string/escape-esc.toml"}
options = None

TIME = re.compile(r"(\d+-\d+-\d+)?[Tt ]?(?:(\d+:\d+:\d+)(\.\d+)?)?([Zz]|[+-]\d+:\d+)?")


def time(text):
    date, clock, fraction, offset = TIME.fullmatch(text).groups()
    out = date or ""
    if date and clock:
        out += "T"
    if clock:
        out += f"{clock}.{(fraction or '.')[1:]:0<9}"
    if offset in ("Z", "z"):
        out += "+000"
    elif offset:
        hours, minutes = offset[1:].split(":")
        out += f"{offset[0]}{int(hours) * 60 + int(minutes):03}"
    return out


def plain(value):
    """Makes a value of a case comparable: numbers are numbers, and there is one form of times."""
    if isinstance(value, list):
        return [plain(each) for each in value]
    if set(value) != {"type", "value"} or not isinstance(value["type"], str):
        return {name: plain(each) for name, each in value.items()}
    kind, text = value["type"], value["value"]
    if kind.startswith(("date", "time-")):
        return "time", time(text)
    if kind == "float":
        return kind, repr(float(text) + 0.0)  # some cases have -0.0 as 0
    return kind, int(text) if kind == "integer" else text


class Cases(unittest.TestCase):
    def setUp(self):
        self.driver = Driver(options.command)
        self.addCleanup(self.driver.__exit__)

    def test_valid_texts(self):
        paths = sorted(path for path in (CASES / "valid").rglob("*.toml") if str(path.relative_to(CASES)) not in LATER)
        self.assertGreater(len(paths), 90)
        for path in paths:
            with self.subTest(case=str(path.relative_to(CASES))):
                self.assertEqual(self.driver.ask("parse", path.read_bytes()), [])
                found = json.loads(decode(self.driver.ask("dump")[0]))
                self.assertEqual(plain(found), plain(json.loads(path.with_suffix(".json").read_text())))

    def test_invalid_texts(self):
        paths = sorted((CASES / "invalid").rglob("*.toml"))
        self.assertGreater(len(paths), 200)
        for path in paths:
            name = str(path.relative_to(CASES))
            with self.subTest(case=name):
                answer = self.driver.ask("parse", path.read_bytes())
                self.assertEqual(failed(answer), name not in ACCEPTED)
                if failed(answer):
                    self.assertEqual(answer[0], SYNTAX)
                    self.assertRegex(answer[1], r"^text, line \d+, column \d+: ")

    # Letters that have nothing to do with white space, but whose numbers are near those of other spaces.
    def test_letters_where_white_space_may_be(self):
        for letter in "¡éÿĀſ҇ҙᙠᠾᡠ‑⁁⁪₠‱⃿⁴\u2070꫞豈ﻼ":
            for text in (f"a{letter}=1", f"a={letter}1", f"a=1{letter}", f"{letter}a=1", f"[a]{letter}", f"a=[1,{letter}2]"):
                self.assertEqual(self.driver.ask("parse", text.encode())[0], SYNTAX, text)
        for space in "\u00a0\u2003\u3000\ufeff":
            self.assertEqual(self.driver.ask("parse", f"a={space}1".encode())[0], SYNTAX, ascii(space))

    def test_depth(self):
        for text in ("a" + ".a" * 99 + "=1", "[a" + ".a" * 98 + "]\na=1", "a=" + "[" * 99 + "]" * 99):
            self.assertEqual(self.driver.ask("parse", text), [], text)
        for text in ("a" + ".a" * 400_000 + "=1", "[a" + ".a" * 400_000 + "]", "a=" + "[" * 400_000,
                     "a=" + "{a=" * 400_000, "a=" + "{a.a.a=" * 40 + "1" + "}" * 40, "a" + ".a" * 100 + "=1"):
            self.assertEqual(self.driver.ask("parse", "\n" + text)[0], TOO_DEEP, text[:20])

    def test_places(self):
        text = "# ä\n[a] # x\n  'ü' = 1\nb.c = [ 2,\n  3 ]\n[[l]]\nx = {y = 4}\n"
        self.assertEqual(self.driver.ask("parse", text.encode()), [])
        for path, place in (("a", (2, 1)), ("a.'ü'", (3, 9)), ("a.b.c", (4, 7)), ("a.b.c[0]", (4, 9)),
                            ("a.b.c[1]", (5, 3)), ("l", (6, 1)), ("l[0]", (6, 1)), ("l[0].x.y", (7, 10))):
            self.assertEqual(self.driver.ask("origin", path.encode())[1:], [str(each) for each in place], path)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    options, rest = parser.parse_known_args()
    options.command = [word for word in (options.runner, options.driver) if word]
    unittest.main(argv=[sys.argv[0], *rest])
