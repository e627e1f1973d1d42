#!/usr/bin/env python3
"""Configuration files, their drop-ins and their writers: files_test.py --driver PROGRAM [--runner PROGRAM]"""

import argparse
import os
import sys
import tempfile
import threading
import time
import tomllib
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

CANNOT_OPEN, SYNTAX, MISSING, OVERRIDDEN, NO_PLACE, TOO_LARGE, NAME = 10, 190, 191, 196, 198, 201, 202
NO_FILE = 50
options = None


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.path = self.folder / "app.toml"

    def driver(self, **environment):
        driver = Driver(options.command, environment or None)
        self.addCleanup(driver.__exit__)
        return driver

    @staticmethod
    def encode(word):
        return word.encode() if isinstance(word, str) else os.fsencode(f"Z:{word}" if options.runner else word)

    def good(self, driver, *words):
        answer = driver.ask(*map(self.encode, words))
        self.assertFalse(failed(answer), answer)
        return answer

    def bad(self, error, driver, *words):
        answer = driver.ask(*map(self.encode, words))
        self.assertTrue(failed(answer), words)
        self.assertEqual(answer[0], error, answer)
        return answer[1]

    def origin(self, driver, path):
        file, line, column = self.good(driver, "origin", path)
        return decode(file).decode().replace("\\", "/").removeprefix("Z:"), int(line), int(column)

    def test_create_and_save(self):
        driver = self.driver()
        self.assertIn(str(self.path), self.bad(MISSING, driver, "open", self.path))
        self.good(driver, "create", self.folder / "deep" / "er" / "app.toml")
        self.assertEqual((self.folder / "deep" / "er" / "app.toml").read_bytes(), b"")
        self.good(driver, "create", self.path)
        self.good(driver, "literal", "server.listen[0].port", "80")
        self.good(driver, "string", "server.name", 'a "b"')
        self.assertEqual(self.path.read_bytes(), b"")
        self.good(driver, "save")
        self.assertEqual(tomllib.loads(self.path.read_text()),
                         {"server": {"listen": [{"port": 80}], "name": 'a "b"'}})
        self.good(driver, "open", self.path)
        self.good(driver, "literal", "server.listen[0].port", "81")
        before = self.path.read_text()
        self.good(driver, "save")
        self.assertEqual(self.path.read_text(), before.replace("80", "81"))

    def test_drop_ins(self):
        self.path.write_text("a = 1\nb = 1\n[t]\nx = 1\n")
        drop_ins = self.folder / "app.d"
        drop_ins.mkdir()
        (drop_ins / "10-one.toml").write_text("b = 2\nc = 2\n[t]\ny = 2\n")
        (drop_ins / "20-two.toml").write_text("\nc = 3\n")
        (drop_ins / "30-other.txt").write_text("c = 4\n")
        (drop_ins / ".hidden.toml").write_text("c = 5\n")
        driver = self.driver()
        self.good(driver, "open", self.path)
        found = decode(self.good(driver, "dump")[0]).decode()
        for name, value in (("a", 1), ("b", 2), ("c", 3), ("x", 1), ("y", 2)):
            self.assertIn(f'"{name}":{{"type":"integer","value":"{value}"}}', found)
        self.assertEqual(self.origin(driver, "a"), (str(self.path), 1, 5))
        self.assertEqual(self.origin(driver, "b"), (str(drop_ins / "10-one.toml"), 1, 5))
        self.assertEqual(self.origin(driver, "c"), (str(drop_ins / "20-two.toml"), 2, 5))
        self.assertEqual(self.origin(driver, "t.x"), (str(self.path), 4, 5))
        # Changes go to the file itself, so one that a drop-in hides is refused.
        text = self.bad(OVERRIDDEN, driver, "literal", "b", "7")
        self.assertIn("10-one.toml", text)
        self.bad(OVERRIDDEN, driver, "literal", "t.y.z", "7")
        self.good(driver, "literal", "t.z", "7")
        self.good(driver, "save")
        self.assertEqual(self.path.read_text(), "a = 1\nb = 1\n[t]\nx = 1\nz = 7\n")
        (drop_ins / "20-two.toml").unlink()
        self.good(driver, "reload")
        self.assertEqual(self.origin(driver, "c")[0], str(drop_ins / "10-one.toml"))

    def test_folders_of_system_and_user(self):
        if options.runner:
            self.skipTest("Windows has no variables for these folders")
        one, two, home = (self.folder / name for name in ("one", "two", "home"))
        driver = self.driver(XDG_CONFIG_DIRS=f"relative:{one}/:{two}", XDG_CONFIG_HOME=str(home))
        name = "qor-test/app"
        self.bad(MISSING, driver, "open-system", name)
        self.good(driver, "create-system", name)
        self.assertEqual((one / "qor-test/app.toml").read_text(), "")
        (two / "qor-test").mkdir(parents=True)
        (two / "qor-test/app.toml").write_text("a = 2\nb = 2\n")
        (one / "qor-test/app.toml").write_text("a = 1\n")
        self.good(driver, "open-system", name)
        self.assertEqual(self.origin(driver, "a")[0], f"{one}/qor-test/app.toml")
        self.assertEqual(self.origin(driver, "b")[0], f"{two}/qor-test/app.toml")
        self.good(driver, "literal", "b", "3")
        self.good(driver, "save")
        self.assertEqual((one / "qor-test/app.toml").read_text(), "a = 1\nb = 3\n")
        (one / "qor-test/app.toml").unlink()
        self.good(driver, "open-system", name)
        self.assertEqual(decode(self.good(driver, "path")[0]).decode(), f"{two}/qor-test/app.toml")

        self.bad(MISSING, driver, "open-user", name)
        self.bad(SYNTAX, driver, "init-user", name, "a =")
        self.assertFalse(home.exists())
        self.good(driver, "init-user", name, "# first\na = 1\n")
        self.assertEqual((home / "qor-test/app.toml").read_text(), "# first\na = 1\n")
        self.assertEqual((home / "qor-test").stat().st_mode & 0o777, 0o700)
        self.good(driver, "init-user", name, "a = 2\n")
        self.good(driver, "create-user", name)
        self.assertEqual(self.origin(driver, "a")[1], 2)
        for wrong in ("", "/etc/app", "../app", ".app", "a//b", "a/"):
            self.bad(NAME, driver, "open-user", wrong)
        self.bad(NAME, driver, "open", "app.toml")

    def test_what_cannot_be_read_is_not_overwritten(self):
        driver = self.driver()
        self.path.write_text("a = 1\n")
        self.good(driver, "open", self.path)
        self.good(driver, "literal", "b", "2")
        for text in ("a = \n", "a = 1\na = 2\n", "\n\nx = '\xe4\n"):
            self.path.write_text(text, encoding="latin-1")
            self.assertIn(f"{self.path}, line ", self.bad(SYNTAX, driver, "save"))
            self.assertEqual(self.path.read_text(encoding="latin-1"), text)
            self.assertIn(f"{self.path}, line ", self.bad(SYNTAX, self.driver(), "create", self.path))
        self.path.write_text("b.c = 1\n")  # leaves no room for the change
        self.bad(NO_PLACE, driver, "save")
        self.assertEqual(self.path.read_text(), "b.c = 1\n")
        self.path.unlink()
        self.path.mkdir()
        self.assertTrue(failed(driver.ask("save")))
        self.path.rmdir()
        with open(self.path, "wb") as file:
            file.truncate((16 << 20) + 1)
        self.bad(TOO_LARGE, driver, "save")
        self.path.write_text("# mended\n")
        self.good(driver, "save")
        self.assertEqual(self.path.read_text(), "# mended\nb = 2\n")
        if os.name != "nt" and not options.runner:
            self.path.unlink()
            os.mkfifo(self.path)
            self.bad(NO_FILE, driver, "open", self.path)

    def test_writers_lose_nothing(self):
        """Several processes change the same file at the same time, each another value."""
        self.path.write_text("# shared\n[table]\n# all of them\nfirst = 0\n\n[other]\nlist = []\n")
        count = 10 if options.runner else 30
        errors = []

        def write(driver, name):
            for i in range(count):
                for words in (("literal", f"table.{name}", str(i)), ("literal", "other.list[]", f'"{name}{i}"'),
                              ("save",)):
                    answer = driver.ask(*(word.encode() for word in words))
                    if answer != []:
                        errors.append(answer)
        writers = []
        for name in ("one", "two", "three", "four"):
            driver = self.driver()
            self.good(driver, "open", self.path)
            writers.append(threading.Thread(target=write, args=(driver, name)))
        for each in writers:
            each.start()
        for each in writers:
            each.join()
        self.assertEqual(errors, [])
        found = tomllib.loads(self.path.read_text())
        self.assertEqual(found["table"], {"first": 0, **dict.fromkeys(("one", "two", "three", "four"), count - 1)})
        self.assertEqual(len(found["other"]["list"]), 4 * count)
        self.assertEqual(len(set(found["other"]["list"])), 4 * count)
        self.assertTrue(self.path.read_text().startswith("# shared\n[table]\n# all of them\nfirst = 0\n"))

    def test_a_killed_writer_leaves_a_whole_file(self):
        if options.runner:
            self.skipTest("Wine goes on when its starter is killed")
        self.path.write_text("# first\nlist = []\n")
        saved = 0
        for i in range(20):
            writer = Driver(options.command)
            self.good(writer, "open", self.path)

            def save(driver=writer):
                while driver.ask(b"literal", b"list[]", b"'a value'") == [] and driver.ask(b"save") == []:
                    counts.append(1)
            counts = []
            thread = threading.Thread(target=save)
            thread.start()
            time.sleep(0.01 + 0.01 * i)
            writer.process.kill()
            thread.join()
            writer.process.communicate()
            self.assertTrue(self.path.read_text().startswith("# first\nlist = ["))
            found = len(tomllib.loads(self.path.read_text())["list"])
            # What was confirmed is there, and at most one more that was not.
            self.assertIn(found - saved - len(counts), (0, 1))
            saved = found
        last = self.driver()
        self.good(last, "open", self.path)
        self.good(last, "literal", "last", "true")
        self.good(last, "save")
        self.assertTrue(tomllib.loads(self.path.read_text())["last"])

    def test_changes_of_others_are_merged(self):
        self.path.write_text("a = 1 # one\nb = 2\nc = 3\n")
        one, two = self.driver(), self.driver()
        for driver in (one, two):
            self.good(driver, "open", self.path)
        self.good(one, "literal", "a", "10")
        self.good(one, "remove", "b")
        self.good(two, "remove", "b")
        self.good(two, "literal", "d", "4")
        self.good(one, "save")
        self.good(two, "save")
        self.assertEqual(self.path.read_text(), "a = 10 # one\nc = 3\nd = 4\n")
        self.assertEqual(self.origin(two, "c")[1], 2)
        # Without a change, nothing is written.
        before = self.path.stat().st_mtime_ns
        self.good(one, "reload")
        self.good(one, "save")
        self.assertEqual(self.path.stat().st_mtime_ns, before)

    def test_the_lock_has_a_time_limit(self):
        if options.runner:
            self.skipTest("the lock of this test is flock's")
        import fcntl
        self.path.write_text("a = 1\n")
        driver = self.driver()
        self.good(driver, "open", self.path)
        self.good(driver, "literal", "a", "2")
        with open(self.folder / ".app.toml.lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            release = threading.Timer(0.3, fcntl.flock, (lock, fcntl.LOCK_UN))
            begin = time.monotonic()
            release.start()
            self.good(driver, "save")
            self.assertGreaterEqual(time.monotonic() - begin, 0.25)
            release.join()
        self.assertEqual(self.path.read_text(), "a = 2\n")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    options, rest = parser.parse_known_args()
    options.command = [word for word in (options.runner, options.driver) if word]
    unittest.main(argv=[sys.argv[0], *rest])
