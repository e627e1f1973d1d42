#!/usr/bin/env python3
"""Whole runs of qor-debug-user, through pipes and on a terminal.

usage: debug_user_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import base64
import hashlib
import hmac
import os
import re
import signal
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

ACCOUNT = re.compile(rb"([^:]+):SCRAM-SHA-256\$(\d+):([^$]+)\$([^:]+):(.+)")
tool = None


def is_password(line, password):
    """Returns whether this line of the file contains the password, computed by the standard without our code."""
    _, iterations, salt, stored, _ = ACCOUNT.fullmatch(line).groups()
    salted = hashlib.pbkdf2_hmac("sha256", password, base64.b64decode(salt), int(iterations))
    key = hmac.digest(salted, b"Client Key", "sha256")
    return base64.b64decode(stored) == hashlib.sha256(key).digest()


class DebugUser(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.file = self.folder / "users"

    def run_tool(self, *words, given=b"", file=True, env=()):
        command = [*tool.command, *([f"--file={self.file}"] if file else []), *words]
        done = subprocess.run(command, input=given, capture_output=True, cwd=self.folder, timeout=250,
                              env={**tool.environment(), **dict(env)})
        return done.returncode, tool.printed(done.stdout).decode(), tool.printed(done.stderr).decode()

    def lines(self):
        return self.file.read_bytes().splitlines()

    # ---- through pipes

    def test_an_account_comes_changes_and_goes(self):
        self.assertEqual(self.run_tool("add", "ada", given=b"secret\nnext line\n"), (0, "", "The account 'ada' was created.\n"))
        self.assertTrue(is_password(self.lines()[0], b"secret"))
        self.assertEqual(self.run_tool("add", "bob", given="grün 世".encode()), (0, "", "The account 'bob' was created.\n"))
        self.assertTrue(is_password(self.lines()[1], "grün 世".encode()))
        self.assertEqual(self.run_tool("list"), (0, "ada\nbob\n", ""))
        self.assertEqual(self.run_tool("password", "ada", given=b" other \r\n"),
                         (0, "", "The password of the account 'ada' was changed.\n"))
        self.assertTrue(is_password(self.lines()[0], b" other "))
        self.assertEqual(self.run_tool("remove", "ada"), (0, "", "The account 'ada' was removed.\n"))
        self.assertEqual(self.run_tool("list"), (0, "bob\n", ""))
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["users", "users.key"])

    def test_a_password_that_is_made_up(self):
        code, out, err = self.run_tool("--generate", "add", "ada")
        self.assertEqual((code, err), (0, "The account 'ada' was created.\n"))
        self.assertRegex(out, r"\A[2-9a-km-np-z]{5}(-[2-9a-km-np-z]{5}){3}\n\Z")
        self.assertTrue(is_password(self.lines()[0], out.strip().encode()))
        again = self.run_tool("password", "--generate", "ada")[1]
        self.assertNotEqual(again, out)
        self.assertTrue(is_password(self.lines()[0], again.strip().encode()))

    def test_the_key_beside_the_accounts(self):
        self.run_tool("--generate", "add", "ada")
        key = self.file.with_name("users.key")
        before = key.read_bytes()
        done = subprocess.run(["openssl", "pkey", "-in", key, "-noout", "-text"], capture_output=True, check=True)
        self.assertIn(b"prime256v1", done.stdout)
        self.run_tool("--generate", "add", "bob")
        self.assertEqual(key.read_bytes(), before)

    def test_what_is_refused(self):
        self.run_tool("--generate", "add", "ada")
        before = self.file.read_bytes()
        no_user = f"There is no account 'eve' in '{self.file}'.\n"
        for words, given, text in [
            (("add", "ada"), b"x\n", "The account 'ada' already exists. 'qor-debug-user password ada' changes its password.\n"),
            (("password", "eve"), b"x\n", no_user),
            (("remove", "eve"), b"", no_user),
            (("add", "eve"), b"", "No password was given: the input has ended.\n"),
            (("add", "eve"), b"\n", "An account of debug control needs a password.\n"),
            (("add", "eve"), b"a\tb\n", "A password cannot contain control characters.\n"),
            (("add", "eve"), b"a\0b\n", "A password cannot contain control characters.\n"),
            (("add", "a:b"), b"x\n", None),
            (("add", ""), b"x\n", None),
        ]:
            code, out, err = self.run_tool(*words, given=given)
            self.assertEqual((code, out), (1, ""), words)
            if text is not None:
                self.assertEqual(err, text)
            else:
                self.assertIn("is not a valid account name", err)
        self.assertEqual(self.file.read_bytes(), before)

    def test_words_that_cannot_be(self):
        see = "'qor-debug-user help'"
        for words, code, err in [
            ((), 10, f"No action was given. {see} lists the actions.\n"),
            (("--generate",), 10, f"No action was given. {see} lists the actions.\n"),
            (("what",), 13, f"Unknown action 'what'. {see} lists the actions.\n"),
            (("Add", "x"), 13, f"Unknown action 'Add'. {see} lists the actions.\n"),
            (("--what", "add", "x"), 2, f"Unknown option '--what'. {see} lists the options.\n"),
            (("add", "--what", "x"), 2, f"Unknown option '--what'. {see} lists the options.\n"),
            (("--file", "list"), 2, "Write the option '--file' as '--file=FILE'.\n"),
            (("--generate=yes", "list"), 2, "Write the option '--generate' as '--generate'.\n"),
            (("add",), 1, f"Wrong number of arguments for 'add'. {see} shows its usage.\n"),
            (("add", "x", "secret"), 1, f"Wrong number of arguments for 'add'. {see} shows its usage.\n"),
            (("list", "x"), 1, f"Wrong number of arguments for 'list'. {see} shows its usage.\n"),
        ]:
            self.assertEqual(self.run_tool(*words, file=False), (code, "", err), words)

    def test_a_missing_and_a_damaged_file(self):
        self.assertEqual(self.run_tool("list"), (1, "", f"There are no accounts for debug control in '{self.file}'. "
                                                        "'qor-debug-user add NAME' creates one.\n"))
        self.run_tool("--generate", "add", "ada")
        self.file.write_bytes(self.file.read_bytes() + b"eve\n")
        damaged = f"Line 2 of the accounts in '{self.file}' cannot be used: the colon after the name is missing.\n"
        for words in (("list",), ("remove", "ada"), ("--generate", "add", "bob")):
            self.assertEqual(self.run_tool(*words), (1, "", damaged))

    def test_help_in_three_languages(self):
        for language, begin in (("en", "Usage: qor-debug-user"), ("de", "Aufruf: qor-debug-user"), ("fr", "Utilisation : qor-debug-user")):
            code, out, err = self.run_tool("help", env=[("LANGUAGE", language), ("LC_ALL", "C.UTF-8")])
            self.assertEqual((code, err), (0, ""))
            self.assertTrue(out.startswith(begin), out)
            for word in ("add", "password", "remove", "list", "fingerprint", "trust", "help", "--file=", "--generate", "--qor-debug="):
                self.assertIn(f"\n  {word}", out)

    def test_the_fingerprint_of_the_key(self):
        self.assertEqual(self.run_tool("fingerprint"),
                         (1, "", f"The key in '{self.file}.key' cannot be used: there is no such file.\n"))
        self.assertEqual(list(self.folder.iterdir()), [])
        self.run_tool("--generate", "add", "ada")
        public = subprocess.run(["openssl", "pkey", "-in", f"{self.file}.key", "-pubout", "-outform", "DER"], check=True,
                                capture_output=True).stdout
        self.assertEqual(self.run_tool("fingerprint"), (0, hashlib.sha256(public).hexdigest() + "\n", ""))

    def test_a_damaged_key_is_called_one(self):
        self.run_tool("--generate", "add", "ada")
        key = self.folder / "users.key"
        whole = key.read_bytes()
        other = subprocess.run(["openssl", "genpkey", "-algorithm", "ED25519"], check=True, capture_output=True).stdout
        for damaged in (b"", b"what", whole[:100], whole.replace(b"M", b"N", 1), other):
            key.write_bytes(damaged)
            for words in (("fingerprint",), ("--generate", "add", "bob")):
                self.assertEqual(self.run_tool(*words),
                                 (1, "", f"The key in '{self.file}.key' cannot be used: it is not a private key for the curve P-256, or "
                                         "it is damaged; once removed, it is replaced by a new one, which consoles do not know yet.\n"))
        self.assertEqual(self.run_tool("list"), (0, "ada\n", ""))

    def test_zero_bytes_in_a_password(self):
        for given in (b"sec\0ret\n", b"\0\n", b"secret\0\n"):
            self.assertEqual(self.run_tool("add", "ada", given=given), (1, "", "A password cannot contain control characters.\n"))
        self.assertFalse(self.file.exists())

    def test_what_is_not_there_is_not_made(self):
        self.file = self.folder / "folder" / "users"
        missing = f"There are no accounts for debug control in '{self.file}'. 'qor-debug-user add NAME' creates one.\n"
        for words in (("remove", "ada"), ("--generate", "password", "ada"), ("list",)):
            self.assertEqual(self.run_tool(*words), (1, "", missing))
        self.assertEqual(list(self.folder.iterdir()), [])

    # ---- Linux

    def trust(self, *words):
        return self.run_tool("trust", *words, file=False, env=[("XDG_CONFIG_HOME", str(self.folder))])

    def test_trust_before_the_first_login(self):
        self.needs_linux()
        one, other = "0123456789abcdef" * 4, "1" * 64
        said = "Consoles of this user now accept only this key of '{}', port {}.\n"
        hosts = self.folder / "qor" / "known-hosts"
        self.assertEqual(self.trust("Example.org", "4711", one.upper()), (0, "", said.format("Example.org", 4711)))
        self.assertEqual(self.trust("example.org", "4711", one), (0, "", said.format("example.org", 4711)))
        self.assertEqual(self.trust("example.org", "4712", other), (0, "", said.format("example.org", 4712)))
        noted = f"example.org 4711 sha256 {one}\nexample.org 4712 sha256 {other}\n"
        self.assertEqual(hosts.read_text(), noted)
        self.assertEqual(self.trust("example.org", "4711", other),
                         (1, "", f"The key of 'example.org', port 4711, differs from the one in line 1 of '{hosts}': somebody may be "
                                 "intercepting the connection. Ask the operator of the process; if its key was renewed, remove that line.\n"))
        for port in ("0", "65536", "-1", "+1", " 1", "1x", ""):
            self.assertEqual(self.trust("h", port, one), (1, "", f"'{port}' is not a port: port numbers range from 1 to 65535.\n"))
        for key in ("", one[1:], one + "0", "g" + one[1:], "sha256:" + one):
            self.assertEqual(self.trust("h", "1", key),
                             (1, "", f"'{key}' is not the fingerprint of a key: that has 64 hexadecimal digits, and 'qor-debug-user "
                                     "fingerprint' prints it where the listener runs.\n"))
        for host in ("", "#h", "a b", "a\nb"):
            self.assertEqual(self.trust(host, "1", one)[0], 1)
        self.assertEqual(hosts.read_text(), noted)

    def test_locks_are_private(self):
        self.needs_linux()
        import fcntl
        held = os.open(self.folder, os.O_RDONLY)
        fcntl.flock(held, fcntl.LOCK_EX)
        self.assertEqual(self.run_tool("--generate", "add", "ada")[0], 0)
        os.close(held)
        lock = self.folder / "users.lock"
        lock.touch()
        lock.chmod(0o644)
        self.assertEqual(self.run_tool("remove", "ada"),
                         (1, "", f"Cannot write '{self.file}': {lock}: users other than its owner have access to it; 'chmod 600' revokes that.\n"))
        lock.unlink()
        lock.symlink_to("elsewhere")
        self.assertEqual(self.run_tool("remove", "ada")[0], 1)
        lock.unlink()
        # A lock file that a crash has left is not locked any more.
        lock.touch(0o600)
        self.assertEqual(self.run_tool("remove", "ada")[0], 0)
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["users", "users.key"])

    def test_a_lock_is_not_waited_for_without_an_end(self):
        self.needs_linux()
        import fcntl
        self.run_tool("--generate", "add", "ada")
        lock = self.folder / "users.lock"
        held = os.open(lock, os.O_RDWR | os.O_CREAT, 0o600)
        fcntl.flock(held, fcntl.LOCK_EX)
        self.assertEqual(self.run_tool("remove", "ada"),
                         (1, "", f"Cannot write '{self.file}': another process of the same user has held the lock '{lock}' for 20 seconds.\n"))
        os.close(held)
        self.assertEqual(self.run_tool("remove", "ada")[0], 0)

    def test_a_folder_that_others_change(self):
        self.needs_linux()
        self.run_tool("--generate", "add", "ada")
        for mode in (0o777, 0o770, 0o702):
            self.folder.chmod(mode)
            for words in (("remove", "ada"), ("list",)):
                code, out, err = self.run_tool(*words)
                self.assertEqual((code, out), (1, ""))
                self.assertIn(f"other users can change the contents of the folder '{self.folder}'; 'chmod go-w' prevents that", err)
        for mode in (0o755, 0o1777):
            self.folder.chmod(mode)
            self.assertEqual(self.run_tool("list"), (0, "ada\n", ""))

    def test_root_leaves_nothing_in_the_home_folder_of_a_user(self):
        self.needs_linux()
        if os.geteuid() != 0:
            self.skipTest("only root can give a folder away")
        home = self.folder / "home"
        home.mkdir(mode=0o700)
        os.chown(home, 12345, 12345)
        refused = (1, "", f"Cannot write '{home}/.config/qor/debug-users': the folder '{home}' belongs to another user.\n")
        self.assertEqual(self.run_tool("--generate", "add", "ada", file=False, env=[("HOME", str(home))]), refused)
        self.assertEqual(list(home.iterdir()), [])
        self.assertEqual(self.run_tool("trust", "h", "1", "0" * 64, file=False, env=[("HOME", str(home))])[0], 1)
        self.assertEqual(list(home.iterdir()), [])
        for folder in (home / ".config", home / ".config" / "qor"):
            folder.mkdir(mode=0o700)
            os.chown(folder, 12345, 12345)
        self.assertEqual(self.run_tool("--generate", "add", "ada", file=False, env=[("HOME", str(home))])[0], 1)
        self.assertEqual(list((home / ".config" / "qor").iterdir()), [])

    def test_signals_that_are_ignored_stay_ignored(self):
        self.needs_linux()
        import pty
        import termios
        terminal, inside = pty.openpty()

        def ignore():
            for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTERM):
                signal.signal(number, signal.SIG_IGN)

        process = subprocess.Popen([*tool.command, f"--file={self.file}", "add", "ada"], stdin=inside, stderr=subprocess.PIPE,
                                   env=tool.environment(), preexec_fn=ignore)
        for prompt in (b"Password for 'ada': ", b"Repeat the password: "):
            self.assertEqual(process.stderr.read(len(prompt)), prompt)
            self.assertEqual(termios.tcgetattr(inside)[3] & termios.ECHO, 0)
            for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTERM):
                process.send_signal(number)
            os.write(terminal, b"secret\n")
        self.assertEqual(process.stderr.read(), b"The account 'ada' was created.\n")
        self.assertEqual(process.wait(), 0)
        for end in (terminal, inside):
            os.close(end)
        process.stderr.close()
        self.assertTrue(is_password(self.lines()[0], b"secret"))

    def needs_linux(self):
        if tool.for_windows:
            self.skipTest("files have modes and terminals are files on POSIX alone")

    def test_where_it_writes(self):
        self.needs_linux()
        self.assertEqual(self.run_tool("--generate", "add", "ada", file=False, env=[("XDG_CONFIG_HOME", str(self.folder))])[0], 0)
        folder = self.folder / "qor"
        self.assertEqual(stat.S_IMODE(folder.stat().st_mode), 0o700)
        for name in ("debug-users", "debug-users.key"):
            self.assertEqual(stat.S_IMODE((folder / name).stat().st_mode), 0o600)

    def test_a_file_that_others_can_read(self):
        self.needs_linux()
        self.run_tool("--generate", "add", "ada")
        self.file.chmod(0o644)
        self.assertEqual(self.run_tool("list"), (1, "", f"The accounts in '{self.file}' cannot be used: users other than its owner have "
                                                        "access to it; 'chmod 600' revokes that.\n"))

    def test_a_full_disk(self):
        self.needs_linux()
        self.run_tool("--generate", "add", "ada")
        with open("/dev/full", "wb") as full:
            done = subprocess.run([*tool.command, f"--file={self.file}", "list"], stdout=full, stderr=subprocess.PIPE,
                                  env=tool.environment())
        self.assertEqual((done.returncode, done.stderr), (1, b"The results could not be written: No space left on device.\n"))

    # Types lines at the prompts; returns the terminal's contents and the exit code.
    def type_in(self, *answers, words=("add", "ada")):
        import pty
        import termios
        child, terminal = pty.fork()
        if child == 0:
            os.execve(tool.command[0], [*tool.command, f"--file={self.file}", *words], tool.environment())
        shown = b""
        for prompt, answer in answers:
            while not shown.endswith(prompt):
                shown += os.read(terminal, 4096)
            echo = termios.tcgetattr(terminal)[3] & termios.ECHO
            self.assertEqual(echo, 0)
            os.write(terminal, answer)
        try:
            while piece := os.read(terminal, 4096):
                shown += piece
        except OSError:
            pass  # Linux reports so that the other end is closed
        code = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        os.close(terminal)
        return code, shown.replace(b"\r\n", b"\n").decode()

    def test_typed_twice_and_not_shown(self):
        self.needs_linux()
        first, second = b"Password for 'ada': ", b"Repeat the password: "
        self.assertEqual(self.type_in((first, b"secret\n"), (second, b"secret\n")),
                         (0, "Password for 'ada': \nRepeat the password: \nThe account 'ada' was created.\n"))
        self.assertTrue(is_password(self.lines()[0], b"secret"))
        before = self.file.read_bytes()
        self.assertEqual(self.type_in((first, b"one\n"), (second, b"two\n"), words=("password", "ada")),
                         (1, "Password for 'ada': \nRepeat the password: \nThe passwords do not match. Nothing was changed.\n"))
        self.assertEqual(self.type_in((first, b"\x04"), words=("password", "ada"))[0], 1)
        self.assertEqual(self.type_in((first, b"one\n"), (second, b"\x04"), words=("password", "ada"))[0], 1)
        self.assertEqual(self.file.read_bytes(), before)

    def test_an_interrupt_leaves_a_terminal_that_shows_what_is_typed(self):
        self.needs_linux()
        import pty
        import termios
        terminal, inside = pty.openpty()
        process = subprocess.Popen([*tool.command, f"--file={self.file}", "add", "ada"], stdin=inside, stderr=subprocess.PIPE,
                                   env=tool.environment())
        prompt = b"Password for 'ada': "
        self.assertEqual(process.stderr.read(len(prompt)), prompt)
        while termios.tcgetattr(inside)[3] & termios.ECHO:
            pass
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(), -signal.SIGINT)
        self.assertNotEqual(termios.tcgetattr(inside)[3] & termios.ECHO, 0)
        self.assertFalse(self.file.exists())
        for end in (terminal, inside):
            os.close(end)
        process.stderr.close()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=0)
