#!/usr/bin/env python3
"""The exports of heap profiles, read by the programs that they are for.

    exports_test.py --maker MAKE_OUTPUTS --schema docs/heap-profile.schema.json

protoc decodes the profile by the published schema, and the pprof tool of Go reads it; Python's csv and sqlite3 read the
table; Python's jsonschema checks the JSON. The numbers are those of tests/qor-heap/support/made_profiles.cpp.
"""

import argparse
import ast
import collections
import csv
import gzip
import io
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.append("/usr/lib/python3/dist-packages")  # a Python of its own may lack what Debian's has
import jsonschema  # noqa: E402

options = None

PROTO = pathlib.Path("/usr/share/gocode/src/github.com/google/pprof/proto/profile.proto")
MEASURES = ["live", "at_peak", "allocated", "temporary"]
SHOP = {  # the stack and the type of each place, and what the measures count: bytes and blocks
    ("main;serve(request const&);parse(char const*);copy_text", ""): [(1000, 10), (4000, 40), (9000, 90), (500, 5)],
    ("main;serve(request const&);store_put", "shop.item"): [(6000, 3), (6000, 3), (6000, 3), (0, 0)],
    ("main;serve(request const&);store_put", ""): [(0, 0), (2000, 2), (2000, 2), (0, 0)],
    ("main;serve(request const&);store_put;libstore.so+0x900", ""): [(3000, 1), (3000, 1), (8000, 4), (5000, 3)],
    ("main;0x7f00", ""): [(0, 0), (0, 0), (100, 1), (100, 1)],
    ("/opt/shop/bin/shop:[0x4242]", ""): [(24, 1), (24, 1), (24, 1), (0, 0)],
}
HOSTILE = 20  # places


def run(*words, data=None):
    return subprocess.run(words, input=data, capture_output=True, check=True).stdout


def text_format(text):
    """Reads protoc's text format: a message is a list of pairs of a field and a value or message."""
    stack = [[]]
    for line in text.splitlines():
        line = line.strip()
        if line.endswith("{"):
            inner = []
            stack[-1].append((line[:-1].strip(), inner))
            stack.append(inner)
        elif line == "}":
            stack.pop()
        elif line:
            field, value = line.split(": ", 1)
            if value.startswith('"'):
                value = ast.literal_eval(f"b{value}").decode()
            elif value.lstrip("-").isdigit():
                value = int(value)
            stack[-1].append((field, value))
    return stack[0]


def values(message, field):
    return [value for name, value in message if name == field]


def value(message, field, otherwise=0):
    return next(iter(values(message, field)), otherwise)


class Exports(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)

    def make(self, kind, *words):
        folder = self.folder / "-".join([kind, *words])
        if not folder.exists():
            folder.mkdir()
            run(options.maker, kind, folder, *words)
        return folder

    def decoded(self, kind, *words):
        packed = (self.make(kind, *words) / "all.pb.gz").read_bytes()
        self.assertEqual(packed[:2], b"\x1f\x8b")
        said = run("protoc", "--decode=perftools.profiles.Profile", f"--proto_path={PROTO.parent}", PROTO.name,
                   data=gzip.decompress(packed))
        return text_format(said.decode())

    # ---- the profile of profile stores

    def test_pprof_by_the_published_schema(self):
        profile = self.decoded("shop")
        texts = values(profile, "string_table")
        self.assertEqual(texts[0], "")
        self.assertEqual([(texts[value(each, "type")], texts[value(each, "unit")]) for each in values(profile, "sample_type")],
                         [("alloc_objects", "count"), ("alloc_space", "bytes"), ("inuse_objects", "count"), ("inuse_space", "bytes")])
        self.assertEqual(texts[value(profile, "default_sample_type")], "inuse_space")
        self.assertEqual(value(profile, "time_nanos"), 1_790_000_000_000_000_000)
        self.assertEqual(value(profile, "duration_nanos"), 4_000_000_000)
        mappings = {value(each, "id"): each for each in values(profile, "mapping")}
        self.assertEqual([(texts[value(each, "filename")], texts[value(each, "build_id")], value(each, "memory_start"), value(each, "memory_limit"))
                          for each in mappings.values()],
                         [("/opt/shop/bin/shop", "01abcdef", 0x550000000000, 0x550000005000),
                          ("/usr/lib/libstore.so", "9988", 0x7f0000000000, 0x7f0000009000)])
        flags = ["has_functions", "has_filenames", "has_line_numbers", "has_inline_frames"]
        self.assertEqual([[str(value(each, flag, "false")) for flag in flags] for each in mappings.values()],
                         [["true", "true", "true", "true"], ["true", "true", "true", "false"]])
        functions = {value(each, "id"): each for each in values(profile, "function")}
        locations = {value(each, "id"): each for each in values(profile, "location")}
        self.assertNotIn(0, [*functions, *locations, *mappings])

        def frames(location):
            found = [texts[value(functions[value(line, "function_id")], "name")] for line in values(location, "line")]
            if found:
                return found
            address, mapping = value(location, "address"), mappings.get(value(location, "mapping_id"))
            if not mapping:
                return [f"{address + 1:#x}"]
            self.assertLess(address, value(mapping, "memory_limit"))
            return [f"{texts[value(mapping, 'filename')].rpartition('/')[2]}+{address + 1 - value(mapping, 'memory_start'):#x}"]

        found = {}
        for sample in values(profile, "sample"):
            stack = [name for each in values(sample, "location_id") for name in frames(locations[each])]
            labels = {texts[value(each, "key")]: texts[value(each, "str")] for each in values(sample, "label")}
            self.assertEqual((labels.pop("host"), labels.pop("region")), ("h1", "eu"))
            kind = labels.pop("type", "")
            self.assertEqual(labels, {})
            found[";".join(reversed(stack)), kind] = values(sample, "value")
        self.assertEqual(found, {key: [allocated[1], allocated[0], live[1], live[0]] for key, (live, _, allocated, _) in SHOP.items()})

    def test_pprof_tool(self):
        file = self.make("shop") / "all.pb.gz"
        top = run("go", "tool", "pprof", "-top", "-nodecount=100", "-nodefraction=0", "-unit=B", file).decode()
        self.assertIn("Type: inuse_space", top)
        self.assertIn("Build ID: 01abcdef", top)
        self.assertIn("100% of 10024B total", top)
        flat = {words[5]: words[0] for line in top.splitlines() if len(words := line.split()) >= 6 and words[1].endswith("%")}
        self.assertEqual(flat["store_put"], "6000B")
        self.assertEqual(flat["copy_text"], "1000B")
        for kind, whole in (("alloc_space", 25124), ("alloc_objects", 101), ("inuse_objects", 15)):
            raw = run("go", "tool", "pprof", "-top", f"-sample_index={kind}", "-unit=B", file).decode()
            self.assertRegex(raw, rf"of {whole}B? total")
        only = run("go", "tool", "pprof", "-top", "-unit=B", "-tagfocus=type=shop.item", file).decode()
        self.assertRegex(only, r"6000B .* store_put")
        raw = run("go", "tool", "pprof", "-raw", file).decode()
        self.assertIn("/src/shop/text.cpp:5", raw)

    def test_pprof_of_odd_profiles(self):
        self.assertEqual(values(self.decoded("empty"), "sample"), [])
        profile = self.decoded("hostile")
        self.assertEqual(len(values(profile, "sample")), HOSTILE)
        self.assertFalse([text for text in values(profile, "string_table") if re.search("[\0-\x1f\u202e]", text)])
        anonymous = "\n".join(values(self.decoded("shop", "anonymous"), "string_table"))
        for part in "/opt", "/src", "/usr", "/home":
            self.assertNotIn(part, anonymous)

    # ---- JSON

    def test_json_has_its_schema(self):
        schema = json.loads(options.schema.read_text())
        jsonschema.Draft202012Validator.check_schema(schema)
        check = jsonschema.Draft202012Validator(schema)
        for kind in ["shop"], ["shop", "anonymous"], ["hostile"], ["empty"]:
            with self.subTest(kind):
                check.validate(json.loads((self.make(*kind) / "all.json").read_bytes()))
        wrong = json.loads((self.make("shop") / "all.json").read_bytes())
        wrong["places"][0]["live"]["bytes"] = "many"
        self.assertFalse(check.is_valid(wrong))
        wrong["places"][0]["live"]["bytes"] = 1
        self.assertTrue(check.is_valid(wrong))
        self.assertFalse(check.is_valid({**wrong, "version": 2}))

    def test_json_has_the_profile(self):
        profile = json.loads((self.make("shop") / "all.json").read_bytes())
        found = {}
        for place in profile["places"]:
            names, node = [], place["stack"]
            while node:
                names += [each["name"] for each in profile["frames"][profile["stacks"][node]["frame"]]["functions"]]
                self.assertLess(profile["stacks"][node]["parent"], node)
                node = profile["stacks"][node]["parent"]
            key = ";".join(reversed(names)) or place["caller"], place.get("type_name", "")
            found[key] = [(place[each]["bytes"], place[each]["blocks"]) for each in MEASURES]
        self.assertEqual(found, SHOP)
        sums = [tuple(map(sum, zip(*column))) for column in zip(*SHOP.values())]
        self.assertEqual([tuple(profile["totals"][each].values()) for each in ("live", "peak", "allocated", "temporary")], sums)
        self.assertEqual(profile["timeline"][2], {"time_ns": 2_500_000_000, "record": 120, "live": {"bytes": 15024, "blocks": 47}})
        self.assertEqual(profile["modules"][1]["build_id"], "01abcdef")
        text = (self.make("shop", "anonymous") / "all.json").read_text()
        for part in "/opt", "/src", "/usr", "/home", "ann":
            self.assertNotIn(part, text)

    # ---- CSV

    def table(self, kind):
        text = (self.make(kind) / "all.csv").read_bytes().decode()
        self.assertEqual(text.count("\n"), text.count("\r\n"))
        rows = list(csv.DictReader(io.StringIO(text, newline=""), strict=True))
        self.assertTrue(all(None not in row and None not in row.values() for row in rows))
        return rows

    def test_csv_has_the_profile(self):
        columns = [(f"{each}_bytes", f"{each}_blocks") for each in ("live", "peak", "allocated", "temporary")]
        found = {(row["stack"], row["type_name"]): [(int(row[a]), int(row[b])) for a, b in columns] for row in self.table("shop")}
        self.assertEqual(found, SHOP)
        row = self.table("shop")[0]
        self.assertEqual([row[each] for each in ("function", "source_file", "source_line", "module", "build_id", "address")],
                         ["copy_text", "/src/shop/text.cpp", "5", "/opt/shop/bin/shop", "01abcdef", "0x1200"])

    def test_csv_has_no_formula(self):
        rows = self.table("hostile")
        self.assertEqual(len(rows), HOSTILE)
        for row in rows:
            for name, cell in row.items():
                self.assertNotRegex(cell, "^[=+\\-@\t\r\n\uff1d\uff0b\uff0d\uff20]", name)
                self.assertNotRegex(cell, "[\0-\x1f\u202e]")
        self.assertIn("'=cmd|' /C calc'!A0", [row["function"] for row in rows])

    def test_csv_goes_into_a_data_base(self):
        for kind, count, live in (("shop", len(SHOP), 10024), ("hostile", HOSTILE, None)):
            script = f".mode csv\n.import {self.make(kind) / 'all.csv'} places\nSELECT count(*), sum(live_bytes) FROM places;\n"
            found = run("sqlite3", ":memory:", data=script.encode()).decode().split(",")
            self.assertEqual(int(found[0]), count)
            if live is not None:
                self.assertEqual(int(found[1]), live)

    # ---- folded stacks

    def test_folded(self):
        lines = (self.make("shop") / "all.folded").read_text().splitlines()
        found = collections.Counter()
        for line in lines:
            # How flamegraph.pl takes a line apart.
            stack, count = re.fullmatch(r"(.*)\s+?(\d+(?:\.\d*)?)", line).groups()
            found[stack] += int(count)
        expected = collections.Counter()
        for (stack, _), (live, *_) in SHOP.items():
            expected[stack] += live[0]
        self.assertEqual(found, +expected)
        self.assertEqual(len(lines), len(set(line.rpartition(" ")[0] for line in lines)))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--maker", required=True, type=pathlib.Path)
    parser.add_argument("--schema", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=sys.argv[:1] + rest)


if __name__ == "__main__":
    main()
