#!/usr/bin/env python3
"""Installs the framework for Windows under Wine, uses it and removes it again. The tests have a Wine of their own.

    installer_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --runner PROGRAM
                      --aid PROGRAM
"""

import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import packed

USER = "HKCU\\Environment"
MACHINE = "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment"
ENTRY = "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\qor"
# Against hanging only.
LONGEST = 120


class InWine(packed.Unpacked):
    """What the tests do in a Wine that is theirs alone."""
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        cls.environment = {**os.environ, "QOR_BUILDS": folder.name}
        (Path(folder.name) / "windows").mkdir()
        cls.drive = Path(folder.name) / "windows/wine/drive_c"
        cls.addClassCleanup(subprocess.run, [packed.options.runner, "--stop"], env=cls.environment, check=False)
        subprocess.run([packed.options.runner, "--start"], env=cls.environment, check=True, timeout=LONGEST)
        # Otherwise Wine says that it is Windows 7.
        subprocess.run([packed.options.runner, "reg", "add", "HKCU\\Software\\Wine", "/v", "Version", "/d", "win10"],
                       env=cls.environment, check=True, timeout=LONGEST, stdout=subprocess.DEVNULL)

    def run_there(self, *words, code=0):
        done = subprocess.run([packed.options.runner, *map(str, words)], env=self.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=LONGEST)
        self.assertEqual(done.returncode, code, (words, done.stdout))
        return done.stdout

    def unix(self, path):
        """The path of a file on drive C."""
        return self.drive / path.replace("C:\\", "").replace("\\", "/")

    def value(self, key, name):
        """Returns type and contents of a value of the registry, by Wine's own program; None if there is none."""
        done = subprocess.run([packed.options.runner, "reg", "query", key, "/v", name], env=self.environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              timeout=LONGEST)
        # It writes in the code page of consoles.
        text = done.stdout.decode("cp437").replace("\r\n", "\n")
        found = re.search(rf"^    {name}    (REG_\w+)    (.*)$", text, re.M | re.I)
        return found.groups() if found else None

    def set_value(self, key, kind, text):
        self.run_there("reg", "add", key, "/v", "Path", "/t", kind, "/d", text, "/f")


class Installer(InWine):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.files = {path.relative_to(cls.root).as_posix() for path in cls.root.rglob("*") if path.is_file()}

    def install(self, *words, code=0):
        self.run_there(packed.package("-setup.exe"), "/S", *words, code=code)

    def remove(self, folder, key):
        """Runs the uninstaller as Windows' settings do. It goes on in a copy of itself."""
        self.run_there(self.unix(folder) / "uninstall.exe", "/S")
        end = time.monotonic() + LONGEST
        while (self.unix(folder) / "uninstall.exe").exists() or self.value(key, "DisplayName"):
            self.assertLess(time.monotonic(), end, "the uninstaller does not end")
            time.sleep(0.1)

    def check_installed(self, folder, root):
        """Compares the installed files with those of the zip, and the registry's entry with the folder."""
        place = self.unix(folder)
        found = {path.relative_to(place).as_posix() for path in place.rglob("*") if path.is_file()}
        self.assertEqual(found, self.files | {"uninstall.exe"})
        for name in self.files:
            self.assertEqual((place / name).read_bytes(), (self.root / name).read_bytes(), name)
        key = f"{root}\\{ENTRY}"
        self.assertEqual(self.value(key, "DisplayVersion"), ("REG_SZ", packed.options.version))
        self.assertEqual(self.value(key, "InstallLocation"), ("REG_SZ", folder))
        self.assertEqual(self.value(key, "QuietUninstallString"), ("REG_SZ", f'"{folder}\\uninstall.exe" /S'))
        return key

    def local_folder(self):
        return self.run_there("cmd", "/c", "echo %LOCALAPPDATA%").strip() + "\\Programs\\qor"

    def test_for_the_user(self):
        folder, before = self.local_folder(), self.value(USER, "Path")
        self.install()
        key = self.check_installed(folder, "HKCU")
        self.assertIsNone(self.value(f"HKLM\\{ENTRY}", "DisplayName"))
        self.assertEqual(self.value(USER, "Path"), ("REG_EXPAND_SZ", f"{folder}\\bin"))
        # A new process finds the tool by its name, and the tool its library, a module and another language.
        said = self.run_there("cmd", "/c", "qortool --quiet dow 28/3/2021")
        self.assertIn("Sunday", said)
        self.assertIn("Affiche", self.run_there("cmd", "/c", "qortool --quiet --qor-language=fr help", code=1))
        self.run_there("cmd", "/c", "qortool --quiet netlist")

        # What others have put there stays, in the folder and in the search path.
        own = self.unix(folder) / "bin/notes.txt"
        own.write_text("mine")
        self.install("/CurrentUser")
        self.assertEqual(self.value(USER, "Path"), ("REG_EXPAND_SZ", f"{folder}\\bin"))
        own.unlink()
        self.check_installed(folder, "HKCU")
        own.write_text("mine")
        self.remove(folder, key)
        self.assertEqual([path.name for path in self.unix(folder).rglob("*")], ["bin", "notes.txt"])
        self.assertEqual(self.value(USER, "Path"), before)
        self.assertIsNone(self.value(key, "InstallLocation"))
        own.unlink()
        own.parent.rmdir()
        own.parent.parent.rmdir()

    def test_for_the_machine(self):
        before = self.value(MACHINE, "Path")
        self.install("/AllUsers")
        key = self.check_installed("C:\\Program Files\\qor", "HKLM")
        self.assertIsNone(self.value(f"HKCU\\{ENTRY}", "DisplayName"))
        self.assertEqual(self.value(MACHINE, "Path"), (before[0], before[1] + ";C:\\Program Files\\qor\\bin"))
        self.assertIn("Sunday", self.run_there("cmd", "/c", "qortool --quiet dow 28/3/2021"))
        self.remove("C:\\Program Files\\qor", key)
        self.assertFalse(self.unix("C:\\Program Files\\qor").exists())
        self.assertEqual(self.value(MACHINE, "Path"), before)

    def test_on_an_older_system(self):
        key = f"HKCU\\Software\\Wine\\AppDefaults\\{packed.package('-setup.exe').name}"
        self.run_there("reg", "add", key, "/v", "Version", "/d", "win81", "/f")
        self.install(code=1150 & 0xff)
        self.run_there("reg", "delete", key, "/f")
        self.assertFalse(self.unix(self.local_folder()).exists())

    def test_in_another_folder(self):
        folder = "C:\\a place\\for tools"
        # The last word has no quotes, though it has blanks.
        self.install("/NoPath", *f"/D={folder}".split(" "))
        key = self.check_installed(folder, "HKCU")
        self.assertIsNone(self.value(USER, "Path"))
        # It is found there again.
        self.install()
        self.check_installed(folder, "HKCU")
        # It moves.
        other = "C:\\another"
        self.install("/NoPath", f"/D={other}")
        self.assertFalse(self.unix(folder).exists())
        key = self.check_installed(other, "HKCU")
        self.assertIsNone(self.value(USER, "Path"))
        self.remove(other, key)
        self.assertFalse(self.unix(other).exists())

    def test_a_program_that_runs(self):
        """Nothing is changed while a program of qor runs from the folder."""
        folder = "C:\\running"
        self.install(f"/D={folder}")
        key = self.check_installed(folder, "HKCU")
        running = subprocess.Popen([packed.options.runner, self.unix(folder) / "bin/qortool.exe", "timer-check"],
                                   env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        try:
            self.assertTrue(running.stdout.readline())
            self.install(f"/D={folder}", code=2)
            self.check_installed(folder, "HKCU")
            self.run_there(self.unix(folder) / "uninstall.exe", "/S", f"_?={folder}", code=2)
            self.check_installed(folder, "HKCU")
        finally:
            running.kill()
            running.communicate()
        self.wait_until(lambda: self.is_free(self.unix(folder) / "bin/libqor.dll"))
        self.remove(folder, key)
        self.assertFalse(self.unix(folder).exists())

    def start(self, *words):
        """Starts a program that writes a line when it is at work."""
        running = subprocess.Popen([packed.options.runner, *map(str, words)], env=self.environment,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.addCleanup(lambda: running.stdin.closed or running.communicate())
        self.addCleanup(running.kill)
        self.assertTrue(running.stdout.readline())
        return running

    def test_a_recorded_program_that_runs_longer_than_its_recorder(self):
        """It has the library with the hooks open, and nothing else."""
        folder = "C:\\recorded"
        self.install(f"/D={folder}")
        key = self.check_installed(folder, "HKCU")
        hooks = self.unix(folder) / "bin/qor-record-hooks.dll"
        recorder = self.start(self.unix(folder) / "bin/qor-record.exe", "-o", "C:\\log", "--", packed.options.aid,
                              "hold", "C:\\windows\\win.ini")
        # The program goes on: standard input is the same for both.
        recorder.kill()
        self.wait_until(lambda: self.is_free(self.unix(folder) / "bin/libqor.dll"))
        self.assertFalse(self.is_free(hooks))
        self.install(f"/D={folder}", code=2)
        self.check_installed(folder, "HKCU")
        self.run_there(self.unix(folder) / "uninstall.exe", "/S", f"_?={folder}", code=2)
        self.check_installed(folder, "HKCU")
        recorder.communicate(timeout=LONGEST)
        self.wait_until(lambda: self.is_free(hooks))
        self.remove(folder, key)
        self.assertFalse(self.unix(folder).exists())

    def test_a_file_that_cannot_be_removed(self):
        """The uninstaller and its entry stay, so that it can be called again."""
        folder = "C:\\held"
        self.install(f"/D={folder}")
        key = self.check_installed(folder, "HKCU")
        path = self.value(USER, "Path")
        held = self.start(packed.options.aid, "hold", f"{folder}\\include\\qor\\qor.h")
        self.run_there(self.unix(folder) / "uninstall.exe", "/S", f"_?={folder}", code=2)
        left = [path.name for path in self.unix(folder).rglob("*") if path.is_file()]
        self.assertEqual(sorted(left), ["qor.h", "uninstall.exe"])
        self.assertEqual(self.value(key, "InstallLocation"), ("REG_SZ", folder))
        self.assertEqual(self.value(USER, "Path"), path)
        held.communicate(timeout=LONGEST)
        self.remove(folder, key)
        self.assertFalse(self.unix(folder).exists())
        self.assertIsNone(self.value(USER, "Path"))

    def limited(self, *words, code):
        """Runs the program as a user who is no administrator, without a screen. Returns the words of what it starts."""
        environment = {**self.environment, "WINEDEBUG": "-all,trace+process"}
        environment.pop("DISPLAY", None)
        done = subprocess.run([packed.options.runner, packed.options.aid, "limited", *words], env=environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=LONGEST)
        said = done.stdout.decode(errors="replace")
        self.assertEqual(done.returncode, code & 0xff, said[-2000:])
        # In Wine's message each backslash is two. The first program is the one that is limited.
        started = [line.replace("\\\\", "\\")
                   for line in re.findall(r'NtCreateUserProcess .* cmdline L"(.*)" parent', said)]
        self.assertTrue(started, said[-2000:])
        return [line.rpartition('setup.exe\\" ')[2] for line in started[1:]]

    def test_without_the_rights_of_an_administrator(self):
        setup = packed.package("-setup.exe")
        self.assertEqual(self.limited(setup, "/S", "/AllUsers", code=740), [])
        self.assertFalse(self.unix("C:\\Program Files\\qor").exists())
        # It asks for them, and starts itself again with the same words, but only once.
        self.assertEqual(self.limited(setup, "/AllUsers", "/NoPath", "/D=C:\\a", "place", code=0),
                         ["/AllUsers /NoPath /Elevated /D=C:\\a place"])
        self.assertEqual(self.limited(setup, "/AllUsers", "/Elevated", code=740), [])

    def wait_until(self, condition):
        end = time.monotonic() + LONGEST
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.1)

    def is_free(self, path):
        """Whether no process under Wine has the library."""
        for maps in Path("/proc").glob("[0-9]*/maps"):
            try:
                if str(path) in maps.read_text():
                    return False
            except OSError:
                pass
        return True


class SearchPath(InWine):
    """The program that changes the search path, on its own."""
    def entry(self, *words, code=0):
        self.run_there(packed.options.build / "installer/path-entry.exe", *words, code=code)

    def changed(self, kind, before, action, folder="C:\\q\\bin"):
        self.set_value(USER, kind, before)
        self.entry(action, "user", folder)
        found = self.value(USER, "Path")
        if found:
            self.assertEqual(found[0], kind)
        return found and found[1]

    def test_the_rest_stays(self):
        long = ";".join(f"C:\\folder number {number}\\bin" for number in range(200))
        for kind in "REG_SZ", "REG_EXPAND_SZ":
            for before, after in (("C:\\a", "C:\\a;C:\\q\\bin"), ("C:\\a;", "C:\\a;C:\\q\\bin"),
                                  ("%SystemRoot%;;C:\\b", "%SystemRoot%;;C:\\b;C:\\q\\bin"),
                                  ("c:\\Q\\BIN\\;C:\\a", "c:\\Q\\BIN\\;C:\\a"), ('"C:\\q\\bin";x', '"C:\\q\\bin";x'),
                                  ("C:\\q\\bin2", "C:\\q\\bin2;C:\\q\\bin"), (long, long + ";C:\\q\\bin"),
                                  ("C:\\Käse", "C:\\Käse;C:\\q\\bin")):
                with self.subTest(before=before[:60], kind=kind):
                    self.assertEqual(self.changed(kind, before, "add"), after)
        for before, after in (("C:\\a;C:\\q\\bin", "C:\\a"), ("C:\\q\\bin;C:\\a", "C:\\a"),
                              ("C:\\a;C:\\Q\\bin\\;C:\\b", "C:\\a;C:\\b"), ("C:\\a;;C:\\b", "C:\\a;;C:\\b"),
                              (f"{long};C:\\q\\bin;{long}", f"{long};{long}"), ("C:\\q\\bin", None)):
            with self.subTest(before=before[:60], action="remove"):
                self.assertEqual(self.changed("REG_EXPAND_SZ", before, "remove"), after)

    def test_a_folder_with_a_semicolon(self):
        self.assertEqual(self.changed("REG_SZ", "C:\\a", "add", "C:\\x;y\\bin"), 'C:\\a;"C:\\x;y\\bin"')
        self.entry("add", "user", "C:\\x;y\\bin")
        self.assertEqual(self.value(USER, "Path")[1], 'C:\\a;"C:\\x;y\\bin"')
        self.entry("remove", "user", "C:\\x;y\\bin\\")
        self.assertEqual(self.value(USER, "Path")[1], "C:\\a")

    def test_what_is_refused(self):
        for words in ((), ("add", "user"), ("append", "user", "C:\\a"), ("add", "all", "C:\\a"), ("add", "user", "")):
            with self.subTest(words=words):
                self.entry(*words, code=160)
        self.run_there("reg", "add", USER, "/v", "Path", "/t", "REG_DWORD", "/d", "1", "/f")
        self.entry("add", "user", "C:\\a", code=1630 & 0xff)
        self.assertEqual(self.value(USER, "Path"), ("REG_DWORD", "0x1"))
        self.run_there("reg", "delete", USER, "/v", "Path", "/f")


if __name__ == "__main__":
    sys.exit(packed.main("runner", "aid"))
