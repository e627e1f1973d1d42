#!/usr/bin/env python3
"""Files at paths of more than 260 characters. Wine has no such limit, but tells which paths it gets: Windows takes a
long one only in the form that begins with \\\\?\\.

    long_paths_test_windows.py --bin FOLDER --samples FOLDER --runner PROGRAM
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, failed  # noqa: E402  # in tests/support

LIMIT = 260
# Each function that takes a path of Windows comes here. Wine cuts long ones off.
TAKEN = re.compile(r'RtlDosPathNameToNtPathName_U_WithStatus \(L"(.*?)"(\.\.\.)?,')

options = None


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


class LongPaths(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.folder = self.root.joinpath(*("d" * 60 for _ in range(5)))
        self.folder.mkdir(parents=True)
        self.told = self.root / "told"
        self.assertGreater(len(str(self.folder)), LIMIT + 40)

    def there(self, name):
        return windows(self.folder / name)

    def check_told(self, least=1):
        """Every long path had the form for long paths."""
        # In Wine's message each backslash is two.
        text = self.told.read_text(errors="replace")
        long = [path for path, cut in TAKEN.findall(text) if cut or len(path.replace("\\\\", "\\")) >= LIMIT]
        self.assertGreaterEqual(len(long), least, text[-2000:])
        plain = [path for path in long if not path.startswith(r"\\\\?\\") and "ddddd" in path]
        self.assertEqual(plain, [])

    def environment(self):
        return {"PATH": os.defpath, "LC_ALL": "C.UTF-8", "WINEDEBUG": "-all,trace+file"}

    def run_program(self, program, *words, least=1):
        with open(self.told, "wb") as told:
            done = subprocess.run([options.runner, options.bin / f"{program}.exe", *words], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=told, env=self.environment(), timeout=120)
        self.assertEqual(done.returncode, 0, self.told.read_text(errors="replace")[-2000:])
        self.check_told(least)
        return done.stdout.decode()

    def test_the_tool_reads_files(self):
        (self.folder / "f").write_text("hello\n")
        self.assertIn("B1946AC92492D2347C6235B4D2611184",
                      self.run_program("qortool", "--quiet", "md5sum", self.there("f")))
        (self.folder / "demo.mtrace").write_bytes((options.samples / "demo.mtrace").read_bytes())
        self.assertIn("LEAK", self.run_program("qortool", "--quiet", "mtrace", self.there("demo.mtrace")))

    def test_every_program_writes_files(self):
        self.run_program("qortool", "--qor-debug=*", f"--qor-debug-file={self.there('trace')}",
                         f"--qor-memcheck={self.there('memcheck')}", "--quiet", "dow", "28/3/2021", least=2)
        self.assertIn(">>ENTER>> func_dow()", (self.folder / "trace").read_text())
        self.assertGreater((self.folder / "memcheck").stat().st_size, 100)
        self.assertEqual({path.name for path in self.folder.iterdir()}, {"trace", "memcheck"})

    def test_the_page_of_a_profile(self):
        (self.folder / "demo.mtrace").write_bytes((options.samples / "demo.mtrace").read_bytes())
        self.run_program("qor-heap", "page", self.there("demo.mtrace"), "-o", self.there("page.html"), least=3)
        self.assertIn("<html", (self.folder / "page.html").read_text()[:2000])
        self.assertEqual({path.name for path in self.folder.iterdir()}, {"demo.mtrace", "page.html"})

    def test_the_recorder_writes_and_replaces_files(self):
        for least in 2, 4:  # the second run looks at what the first one left, and removes it
            self.run_program("qor-record", "-o", self.there("log"), windows(options.bin / "qortool.exe"), "--quiet",
                             "dow", "28/3/2021", least=least)
            self.assertEqual({path.name for path in self.folder.iterdir()}, {"log.memcheck", "log.mtrace", "log.stacks"})
            self.assertGreater((self.folder / "log.mtrace").stat().st_size, 1000)

    def test_accounts(self):
        """They are kept in folders of their own, which are made first."""
        users = f"--file={self.there('new')}\\accounts"
        self.run_program("qor-debug-user", users, "--generate", "add", "ann", least=3)
        self.assertLessEqual({"accounts", "accounts.key"}, {path.name for path in (self.folder / "new").iterdir()})
        self.assertIn("ann", self.run_program("qor-debug-user", users, "list"))

    def test_object_stores(self):
        words = [options.runner, str(options.bin / "store_driver.exe")]
        with open(self.told, "wb") as told, Driver(words, self.environment(), stderr=told) as store:
            def good(*operation):
                answer = store.ask(*operation)
                self.assertFalse(answer is None or failed(answer), (operation, answer))
                return answer
            good("open", self.there("a.store"), 0, 10000, "0", 0, "")
            good("put", "key", '{"a": 1}', "any")
            good("copy", self.there("b.store"))
            good("close")
            good("open", self.there("b.store"), 1, 10000, "1", 0, "")
            good("get", "key")
            good("check")
            good("close")
            good("open", self.there("b.store"), 3, 10000, "0", 0, "")
            good("rescue", self.there("c.store"))
        # The file, its log and the index of that are opened.
        self.check_told(least=8)
        self.assertLessEqual({"a.store", "b.store", "c.store"}, {path.name for path in self.folder.iterdir()})

    def test_a_short_name_in_a_deep_folder(self):
        deep = self.folder.parent.parent
        self.assertLess(len(str(deep)), LIMIT - 40)
        (self.folder.parent / "x").write_text("hello\n")
        with open(self.told, "wb") as told:
            done = subprocess.run([options.runner, options.bin / "qortool.exe", "--quiet", "md5sum", "d" * 60 + "\\x"],
                                  cwd=deep, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=told,
                                  env=self.environment(), timeout=120)
        self.assertEqual(done.stdout.decode().strip(), "B1946AC92492D2347C6235B4D2611184")
        self.assertRegex(self.told.read_text(errors="replace"),
                         r'RtlDosPathNameToNtPathName_U_WithStatus \(L"\\\\\\\\\?\\\\Z:')


def main():
    global options
    parser = argparse.ArgumentParser()
    for name in ("bin", "samples", "runner"):
        parser.add_argument(f"--{name}", type=Path, required=True)
    options = parser.parse_args()
    for name in ("bin", "samples", "runner"):
        setattr(options, name, getattr(options, name).resolve())
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(LongPaths)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
