#!/usr/bin/env python3
"""The files of object stores, read and written by Python's sqlite3 and the command sqlite3, and hostile ones.

    files_test.py --driver PROGRAM [--runner PROGRAM]
"""

import argparse
import json
import os
import random
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest
from contextlib import closing
from pathlib import Path

from support import (BROKEN, CREATE, DAMAGED, EXISTS, NEWER, NOT_MIGRATED, NOT_OURS, OLDER, ONLY_READ, OPEN, READ_ONLY,
                     Reader, Store, failed)

options = None
VALUES = ['{}', '{"a":1}', '{"b":[1,null,true,-5,"é",{"c":{}}],"d":0.25}', '{"big":18446744073709551615}']


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.path = self.folder / "a store"

    def store(self, path=None, **more):
        store = Store(options, path or self.path, **more)
        self.addCleanup(store.__exit__)
        return store

    def refused(self, error, mode=CREATE, schema=0, steps=""):
        with Store(options) as store:
            answer = store.ask(*map(store.word, ("open", store.name(self.path), mode, 1000, 0, schema, steps)))
        self.assertTrue(failed(answer), answer)
        self.assertEqual(answer[0], error, answer)
        return answer[1]

    def sql(self, text, *values):
        with closing(sqlite3.connect(self.path)) as database:
            answer = database.execute(text, values).fetchall()
            database.commit()
        return answer

    def test_others_read_what_was_stored(self):
        store = self.store()
        model = {}
        for i in range(300):
            key = f"key {i * 7 % 100}"
            model[key] = (store.put(key, VALUES[i % 4]), json.loads(VALUES[i % 4]))
        for is_closed in (False, True):  # with the log beside the file, and without
            if is_closed:
                store.good("close")
            rows = self.sql("SELECT key, version, value FROM sets ORDER BY key")
            self.assertEqual({key.decode(): (version, Reader(value).whole_set()) for key, version, value in rows}, model)
            self.assertEqual(self.sql("PRAGMA integrity_check"), [("ok",)])
            self.assertEqual(self.sql("PRAGMA application_id"), [(0x716f7253,)])
            self.assertEqual(self.sql("PRAGMA journal_mode"), [("wal",)])
        if shutil.which("sqlite3"):
            said = subprocess.run(["sqlite3", "-readonly", self.path, "SELECT count(*), max(version) FROM sets"],
                                  capture_output=True, text=True, check=True).stdout
            self.assertEqual(said, f"{len(model)}|{max(version for version, _ in model.values())}\n")
        else:
            self.assertTrue(options.runner, "there is no command sqlite3 here")

    def test_what_others_write_is_read(self):
        store = self.store()
        version = store.put("a", '{"n":1}')
        ((value,),) = self.sql("SELECT value FROM sets")
        self.sql("INSERT INTO sets VALUES (?, ?, ?)", b"b", version + 1, value)
        self.assertEqual(store.get("b"), (version + 1, '{"n":1}'))
        self.assertEqual([key for key, _, _ in store.walk(backward=True)], [b"b", b"a"])

    def test_strange_names(self):
        here = os.getcwd()
        os.chdir(self.folder)
        self.addCleanup(os.chdir, here)
        for name in [":memory:", "file:x?mode=memory", "é ü.store", "a%20b", "-x"] if not options.runner else ["é ü.store"]:
            with self.subTest(name=name), Store(options) as store:
                store.good("open", name.encode(), CREATE, 1000, 0, 0, "")
                store.put("a", '{"n":1}')
                self.assertTrue((self.folder / name).exists())

    def test_other_files_are_refused_and_kept(self):
        self.sql("CREATE TABLE t (a)")
        before = self.path.read_bytes()
        self.assertIn(str(self.path), self.refused(NOT_OURS))
        self.assertEqual(self.path.read_bytes(), before)
        self.assertEqual([file.name for file in self.folder.iterdir()], [self.path.name])
        self.sql(f"PRAGMA application_id = {0x716f7253}")
        self.refused(NOT_OURS)
        self.path.unlink()
        self.path.touch()
        self.refused(NOT_OURS, mode=OPEN)
        self.store().put("a", "{}")

    def test_tables_that_were_changed_are_refused(self):
        for change in ["CREATE TRIGGER t AFTER INSERT ON sets BEGIN DELETE FROM sets; END", "CREATE TABLE more (a)",
                       "CREATE INDEX i ON sets (version)", "CREATE VIEW v AS SELECT 1", "DROP TABLE sets",
                       "ALTER TABLE sets ADD COLUMN more INT", "PRAGMA user_version = 2",
                       "CREATE TABLE deep (a CHECK (abs(a) > randomblob(1000000000)))"]:
            with self.subTest(change=change):
                self.store().good("close")
                self.sql(change)
                self.refused(NOT_OURS)
                self.refused(NOT_OURS, mode=READ_ONLY)
                for file in self.folder.iterdir():
                    file.unlink()

    def test_bytes_that_were_changed_are_never_believed(self):
        """Damages a file at random: an operation succeeds with the right content, or fails with an error."""
        model = {}
        with self.store() as store:
            for i in range(400):
                text = json.dumps({"n": i, "text": "x" * (i % 50 if i % 40 else 9000)}, separators=(",", ":"))
                model[f"{i:04}"] = text
                store.put(f"{i:04}", text)
            store.good("close")
        whole = self.path.read_bytes()
        generator = random.Random(2)
        found = 0
        for number in range(40 if options.runner else 150):
            data = bytearray(whole)
            at = generator.randrange(100) if number % 5 == 0 else generator.randrange(len(data))
            for place in range(at, min(len(data), at + generator.choice([1, 2, 8, 300, 5000]))):
                data[place] = generator.randrange(256)
            self.path.write_bytes(data[:generator.choice([len(data)] * 9 + [at])])
            with Store(options) as store, self.subTest(number=number, at=at):
                name = store.name(self.path)
                for operation in (("open", name, OPEN, 1000, 0, 0, ""), ("walk", "", "", "", "0"),
                                  ("put", "0001", '{"n":1}', "any"), ("check",), ("remove-range", "", "0300", "", "0")):
                    answer = store.ask(*map(store.word, operation))
                    self.assertIsNotNone(answer, operation)  # it must not crash
                    if failed(answer):
                        found += 1
                        if operation[0] == "open":
                            break
                saved = self.folder / f"saved {number}"
                store.good("open", name, DAMAGED, 1000, 0, 0, "")
                store.good("rescue", store.name(saved))
                store.good("open", store.name(saved), OPEN, 1000, 0, 0, "")
                store.good("check")
                store.good("close")
                saved.unlink()
        self.assertGreater(found, 20)

    def test_rescue_reads_the_log(self):
        """What was stored last lies beside the file, in the log."""
        store = self.store()
        for i in range(200):
            store.put(f"{i:03}", json.dumps({"n": i}, separators=(",", ":")))
        with open(self.path, "r+b") as file:
            file.write(b"\0" * 4096)
        with Store(options, self.path, mode=DAMAGED) as broken:
            saved = self.folder / "saved"
            sets, lost, _, _ = broken.good("rescue", broken.name(saved))
            self.assertEqual((sets, lost), ("200", "0"))
            broken.bad(EXISTS, "rescue", broken.name(saved))
            broken.bad(ONLY_READ, "put", "a", "{}", "any")
        self.assertEqual(self.store(saved).walk()[7][2], '{"n":7}')

    def test_a_set_that_is_damaged(self):
        store = self.store()
        store.put("a", '{"n":1}')
        store.put("b", '{"n":2}')
        store.good("close")
        self.sql("UPDATE sets SET value = substr(value, 1, length(value) - 1) WHERE key = ?", b"a")
        self.sql("UPDATE sets SET version = 1 << 50 WHERE key = ?", b"b")
        store = self.store()
        self.assertIn("'a'", store.bad(BROKEN, "get", "a"))
        store.bad(BROKEN, "walk", "", "", "", "0")
        store.bad(BROKEN, "put", "b", "{}", "any")
        store.bad(BROKEN, "check")
        store.put("a", '{"n":3}')
        self.assertEqual(store.get("a")[1], '{"n":3}')

    def test_schemas(self):
        self.store(schema=2).good("close")
        self.refused(NEWER, schema=1, steps="good")
        self.refused(OLDER, schema=3)
        self.assertIn("schema 2 to 4", self.refused(NOT_MIGRATED, schema=4, steps="bad"))
        self.assertEqual(self.sql("SELECT value FROM meta WHERE name = 'schema'"), [(2,)])
        self.assertEqual(self.sql("SELECT count(*) FROM sets"), [(0,)])
        store = self.store(schema=4, steps="good")
        self.assertEqual(store.good("schema"), ["4"])
        self.assertEqual([text for _, _, text in store.walk()], ['{"from":2}', '{"from":3}'])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    options, rest = parser.parse_known_args()
    options.command = [*([options.runner] if options.runner else []), options.driver]
    unittest.main(argv=[sys.argv[0], *rest])
