#!/usr/bin/env python3
"""Pages and exports of a real recording.

    recorded_test.py --bin BUILD/bin --browser chromium|firefox

A service with eight threads, which loses the session of every connection, is recorded. The contents of the page and of the
exports are compared with another reading of the log, by tests/record, and with the functions and lines that elfutils' addr2line finds.
"""

import argparse
import collections
import csv
import gzip
import json
import pathlib
import re
import socket
import subprocess
import sys
import unittest

import page_test

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "record"))
import stacks_file  # noqa: E402
import symbols  # noqa: E402

options = None

SESSIONS = 200
SOURCE = pathlib.Path(__file__).resolve().parents[2] / "record/programs/session_server.cpp"
LEAK = "session_server.cpp:" + str(next(number for number, text in enumerate(SOURCE.read_text().splitlines(), 1)
                                       if text.endswith("// the leak")))


def bytes_of(title):
    return int(re.match(r"[\d,]+", title)[0].replace(",", ""))


class Recorded(page_test.PageCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.log = cls.folder / "server.mtrace"
        with subprocess.Popen([options.bin / "qor-record", "-o", cls.folder / "server", "--",
                               options.bin / "recorded/session_server"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as server:
            port = int(server.stdout.readline())
            for i in range(SESSIONS):
                with socket.create_connection(("127.0.0.1", port), timeout=120) as connection:
                    connection.sendall(b"a user with a long name %d\nkey=value\n\n" % i)
                    while connection.recv(100):
                        pass
        cls.recording = stacks_file.Recording(cls.log)
        cls.live = sum(record.size for record in cls.recording.alive.values())
        cls.all = sum(record.size for _, _, record in cls.recording.lines() if record)

    def heap(self, *words):
        return subprocess.run([options.bin / "qor-heap", *words, "--no-fetch"], check=True, stdin=subprocess.DEVNULL,
                              capture_output=True).stdout

    def expected(self):
        """The bytes of each function and line of the program's own source that allocates by the C++ library at most."""
        addr2line = symbols.Addr2line()
        self.addCleanup(addr2line.close)
        found = collections.Counter()
        for leak in symbols.recorded_leaks(self.recording, addr2line):
            for path, place in zip(leak.objects, leak.places):
                if place.file == SOURCE.name:
                    found[place.function, f"{place.file}:{place.line}"] += leak.size
                if place.file == SOURCE.name or not path.endswith(("/session_server", "/libstdc++.so.6")):
                    break
        return found

    def test_page(self):
        page = self.folder / "server.html"
        self.heap("page", self.log, "-o", page)
        self.open(page)
        self.assertEqual(self.browser.run("return [page.recording.sum(0, 0, 0), page.recording.sum(0, 2, 0)]"), [self.live, self.all])
        self.assertEqual(self.browser.run("return document.title"), "Heap of session_server")
        self.pick("#grouping", "line")
        found = collections.Counter()
        for row in range(self.browser.run("return page.table.order.length")):
            self.browser.run("page.table.select(arguments[0], false)", row)
            title, function, source = self.browser.run(
                "const row = document.querySelector('#selected-row');"
                "return [row.cells[0].title, row.cells[4].querySelector('bdi').textContent, row.cells[5].textContent]")
            if source.startswith("session_server.cpp") and bytes_of(title):
                found[symbols.short_name(function), source] += bytes_of(title)
        expected = self.expected()
        self.assertGreaterEqual(expected["make_session", LEAK], SESSIONS * 2000)
        self.assertEqual(found, expected)
        self.check_console()

    def test_comparison_with_itself(self):
        page = self.folder / "same.html"
        self.heap("page", self.log, "--compare", self.log, "-o", page)
        self.open(page)
        self.assertEqual(set(self.column("Change")), {"0 B"})
        self.assertEqual(self.browser.run("return [page.recording.sum(0, 0, 0), page.recording.sum(1, 0, 0)]"), [self.live, self.live])
        self.check_console()

    def test_exports(self):
        folded = self.heap("export", self.log, "--format", "folded").decode().splitlines()
        self.assertEqual(sum(int(line.rpartition(" ")[2]) for line in folded), self.live)
        leaks = [line for line in folded if re.search(r"serve[^;]*;.*make_session", line)]
        self.assertEqual(sum(int(line.rpartition(" ")[2]) for line in leaks), self.expected()["make_session", LEAK])
        rows = list(csv.DictReader(self.heap("export", self.log, "--format", "csv").decode().splitlines()))
        self.assertEqual([sum(int(row[each]) for row in rows) for each in ("live_bytes", "allocated_bytes")], [self.live, self.all])
        profile = json.loads(self.heap("export", self.log, "--format", "json"))
        self.assertEqual([profile["totals"][each]["bytes"] for each in ("live", "allocated")], [self.live, self.all])
        self.assertEqual(sum(place["live"]["bytes"] for place in profile["places"]), self.live)
        packed = self.folder / "server.pb.gz"
        self.heap("export", self.log, "--format", "pprof", "--label", "host=one", "-o", packed)
        self.assertEqual(gzip.decompress(packed.read_bytes())[:1], b"\x0a")
        top = subprocess.run(["go", "tool", "pprof", "-top", "-unit=B", "-nodecount=10000", "-nodefraction=0", packed], check=True,
                             capture_output=True, text=True).stdout
        self.assertIn(f"100% of {self.live}B total", top)
        self.assertRegex(subprocess.run(["go", "tool", "pprof", "-tags", packed], check=True, capture_output=True, text=True).stdout,
                         r"host: .*\n.*: one")

    def test_anonymous(self):
        page = self.folder / "anonymous.html"
        self.heap("page", self.log, "--anonymise", "-o", page)
        self.open(page)
        texts = self.browser.run("return document.querySelector('header').textContent + page.recording.texts.join('\\n')")
        for folder in {str(options.bin), str(self.folder), *(str(pathlib.Path(__file__).resolve().parents[3]),)}:
            self.assertFalse(folder in texts, folder)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True, type=pathlib.Path)
    parser.add_argument("--browser", required=True, choices=page_test.browsers.BROWSERS)
    options, rest = parser.parse_known_args()
    options.bin = options.bin.resolve()
    page_test.options = options
    unittest.main(argv=sys.argv[:1] + rest)


if __name__ == "__main__":
    main()
