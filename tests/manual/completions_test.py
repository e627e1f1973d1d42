#!/usr/bin/env python3
"""Completes in bash, zsh and fish under tmux, with the installed completions and the programs of this build.

    completions_test.py --cmake CMAKE --build FOLDER --bin FOLDER
"""

import argparse
import functools
import hashlib
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from helps import installed, rows_of_help
from shells import Shell

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from name_space import name_space  # noqa: E402  # in tests/support

options = None


def in_each_shell(test):
    @functools.wraps(test)
    def run(self):
        for shell in self.shells:
            with self.subTest(shell=shell.name):
                test(self, shell)
    return run


class Completions(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(cls.temporary.cleanup)
        cls.prefix = installed(options, "completions", Path(cls.temporary.name, "installed"))
        cls.folder = Path(cls.temporary.name, "work")
        cls.folder.mkdir()
        cls.shells = []
        for name in ("bash", "zsh", "fish"):
            shell = Shell(name, cls.prefix, cls.folder, options.bin)
            cls.addClassCleanup(shell.close)
            (shell.home / ".ssh").mkdir()
            (shell.home / ".ssh/known_hosts").write_text("printer.example.test ssh-ed25519 AAAA\n")
            cls.shells.append(shell)

    def in_folder(self, *names):
        for old in list(self.folder.iterdir()):
            if not old.name.startswith("home of"):
                shutil.rmtree(old) if old.is_dir() else old.unlink()
        for name in names:
            path = self.folder / name
            path.parent.mkdir(exist_ok=True)
            path.write_text(f"@ x + 0x1000 0x10\n# {name}\n")

    @in_each_shell
    def test_every_action_and_option_of_help(self, shell):
        for program in ("qortool", "qor-heap", "qor-record", "qor-debug-user"):
            rows = rows_of_help(options.bin / program)
            actions = {row.name for row in rows if not row.name.startswith("-")}
            words = {row.name for row in rows if row.name.startswith("-")}
            self.assertGreater(len(words), 5, program)
            self.assertEqual(not actions, program == "qor-record")
            shell.offered(f"{program} --", {word for word in words if word.startswith("--")})
            for word in words:
                if not word.startswith("--"):
                    shell.offered(f"{program} -", {word})
            if actions:
                shell.offered(f"{program} ", actions)

    @in_each_shell
    def test_options_of_an_action(self, shell):
        shell.completed("qortool sysinfo --dev", "qortool sysinfo --developer")

    @in_each_shell
    def test_an_action(self, shell):
        shell.completed("qortool --quiet list-s", "qortool --quiet list-serial")
        shell.completed("qor-debug-user finger", "qor-debug-user fingerprint")
        shell.completed("qor-heap --peak timel", "qor-heap --peak timeline")

    @in_each_shell
    def test_values_of_an_option(self, shell):
        shell.completed("qor-heap export --format pp", "qor-heap export --format pprof")
        shell.completed("qor-heap export --format=fo", "qor-heap export --format=folded")
        shell.completed("qortool --qor-log=sy", "qortool --qor-log=system")
        shell.offered("qortool --qor-language=", {"de", "en", "fr"} if shell.name != "fish" else
                      {f"--qor-language={name}" for name in ("de", "en", "fr")})

    @in_each_shell
    def test_an_option_that_needs_an_equals_sign(self, shell):
        self.in_folder("my accounts")
        shell.completed("qor-debug-user --fi", "qor-debug-user --file=")
        shell.completed("qor-debug-user --file=my", r"qor-debug-user --file=(my\\ accounts|'my accounts')")

    @in_each_shell
    def test_a_file_with_a_blank(self, shell):
        self.in_folder("big file")
        digest = hashlib.md5((self.folder / "big file").read_bytes()).hexdigest().upper()
        shell.ran("qortool --quiet md5sum bi", digest)

    @in_each_shell
    def test_logs_by_their_kind(self, shell):
        self.in_folder("app.mtrace", "app.mtrace.12.gz", "app.memcheck", "app.stacks", "app.txt", "folder/x")
        shell.offered("qortool mtrace ", {"app.mtrace", "app.mtrace.12.gz", "folder/"},
                      {"app.memcheck", "app.stacks", "app.txt"})
        shell.completed("qortool mtrace app.mtrace ap", "qortool mtrace app.mtrace app.memcheck")
        shell.completed("qortool --quiet memcheck ap", "qortool --quiet memcheck app.memcheck")
        shell.offered("qor-heap sites --limit 5 app.mtrace ap", {"app.mtrace.12.gz", "app.memcheck"},
                      {"app.stacks", "app.txt"})
        shell.completed("qor-heap page app.mtrace -o app.t", "qor-heap page app.mtrace -o app.txt")

    @in_each_shell
    def test_a_log_with_another_name(self, shell):
        self.in_folder("strange log")
        shell.ran("qortool --quiet mtrace stra", "LEAK at 0x1000 size 16")

    @in_each_shell
    def test_a_program_without_actions(self, shell):
        if not (options.bin / "qor-check").exists():
            self.skipTest("qor-check is not built")
        self.in_folder("some program")
        shell.completed("qor-check --he", "qor-check --help")
        shell.completed("qor-check --qor-lang", "qor-check --qor-language=")
        shell.completed("qor-check so", r"qor-check (some\\ program|'some program')")

    @in_each_shell
    def test_users_and_hosts(self, shell):
        shell.completed("qortool userinfo roo", "qortool userinfo root")
        shell.completed("qortool lookup printer.exa", "qortool lookup printer.example.test")

    @in_each_shell
    def test_accounts_of_the_file_that_is_named(self, shell):
        self.in_folder()
        file = self.folder / "my accounts"
        os.chmod(self.folder, 0o700)
        for name in ("ann", "$(touch danger)"):
            subprocess.run([options.bin / "qor-debug-user", f"--file={file}", "--generate", "add", name], check=True,
                           capture_output=True)
        typed = f"qor-debug-user --file={shlex.quote(str(file))} password"
        shell.completed(f"{typed} an", re.escape(f"{typed} ann"))
        shell.offered(f"{typed} ", {"ann"})
        self.assertFalse((self.folder / "danger").exists())

    @in_each_shell
    def test_the_command_that_is_recorded(self, shell):
        self.in_folder("app.mtrace", "app.txt")
        shell.completed("qor-record --depth=3 -o x qor-heap timel", "qor-record --depth=3 -o x qor-heap timeline")
        shell.completed("qor-record -- qortool sysi", "qor-record -- qortool sysinfo")
        shell.completed("qor-record control app.mtrace sto", "qor-record control app.mtrace stop")

    @in_each_shell
    def test_serial_ports(self, shell):
        space = name_space()
        if space is None:
            self.skipTest("this system has no name spaces for us")
        self.in_folder()
        host = Path(self.temporary.name, f"host of {shell.name}")
        for name in ("ttyS4", "ttyS5"):
            terminal = host / f"sys/devices/pci0/{name}/tty/{name}"
            terminal.mkdir(parents=True)
            (terminal / "dev").write_text("250:0\n")
            (terminal / "device").symlink_to("../..")
            (host / "sys/class/tty").mkdir(parents=True, exist_ok=True)
            (host / "sys/class/tty" / name).symlink_to(f"../../devices/pci0/{name}/tty/{name}")
            (host / "dev").mkdir(exist_ok=True)
            (host / "dev" / name).touch()
        # The program itself, in a name space where these are the host's ports.
        there = 'mount --bind "$0/sys" /sys && mount --bind "$0/dev" /dev && exec "$@"'
        script = self.folder / "qortool"
        command = shlex.join([*space, "sh", "-c", there, str(host), str(options.bin / "qortool")])
        script.write_text(f'#!/bin/sh\nexec {command} "$@"\n')
        script.chmod(0o755)
        shell.offered("./qortool ttyinfo ", {"ttyS4", "ttyS5"})
        shell.completed("./qortool ttyinfo ttyS5", "./qortool ttyinfo ttyS5")


def main():
    global options
    parser = argparse.ArgumentParser()
    for name in ("cmake", "build", "bin"):
        parser.add_argument(f"--{name}", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
