#!/usr/bin/env python3
"""The console and a listening process over loopback, through a pipe and through a terminal.

usage: console_test.py --tool QORTOOL --ticker TICKER [--runner PROGRAM]
"""

import base64
import hashlib
import hmac
import os
import shlex
import subprocess
import threading
import time

import listening
from listening import TIMEOUT, Listening, key_beside, trust

PROMPT = "Debug> "
LOGGED_IN = "Logged in. 'help' lists the commands; end of input closes the console.\n"
BANNER = "qortool - tries out and inspects the facilities of the framework\nVersion 3.35.21\n"
REFUSED = "The user name or the password was refused.\n"
END_OF_INPUT = "The input has ended.\n"


class Input:
    """A program whose input and output are pipes."""

    def __init__(self, command, environment, before=None):
        # Python ignores the signal for files that are too long, and the program then inherits that.
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=environment, preexec_fn=before, restore_signals=before is None)
        self.limit = threading.Timer(TIMEOUT, self.process.kill)
        self.limit.start()

    def say(self, *lines):
        self.process.stdin.write("".join(line + "\n" for line in lines).encode())
        self.process.stdin.flush()

    def until(self, end):
        """Returns its output up to and including these words, or to its end."""
        text = b""
        while not text.endswith(end.encode()):
            byte = self.process.stdout.read(1)
            if not byte:
                break
            text += byte
        return listening.tool.printed(text).decode()

    def end(self, close=True):
        """Returns (exit code, standard output, standard error)."""
        if close:
            self.process.stdin.close()
        out, err = self.process.stdout.read(), self.process.stderr.read()
        code = self.process.wait()
        self.limit.cancel()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            stream.close()
        return code, listening.tool.printed(out).decode(), listening.tool.printed(err).decode()


def memory_of(process):
    """Returns all readable memory of the process, except that of a sanitizer."""
    pieces = []
    with open(f"/proc/{process}/maps") as maps, open(f"/proc/{process}/mem", "rb") as memory:
        for line in maps:
            begin, end = (int(each, 16) for each in line.split()[0].split("-"))
            if line.split()[1].startswith("r") and end - begin <= 256 << 20:
                try:
                    memory.seek(begin)
                    pieces.append(memory.read(end - begin))
                except (OSError, ValueError, OverflowError):
                    pass  # a page of the kernel
    return b"\n".join(pieces)


def secrets_of(password, salt):
    """Returns the password in its possible forms, and the keys that are derived from it."""
    text = password.encode()
    salted = hashlib.pbkdf2_hmac("sha256", text, base64.b64decode(salt), 4096)
    client = hmac.digest(salted, b"Client Key", "sha256")
    keys = [("the salted password", salted), ("the client's key", client), ("the server's key", hmac.digest(salted, b"Server Key", "sha256")),
            ("the stored key", hashlib.sha256(client).digest())]
    # A piece of a long password is as bad as the whole.
    return [("the password", text[:12]), ("the end of the password", text[-12:]), ("the password in UTF-16", password.encode("utf-16le")[:24]),
            *keys, *((f"{name} in base64", base64.b64encode(key)) for name, key in keys)]


class Console(Listening):
    def console(self, *words, port=None, before=None):
        return Input([*listening.tool.command, *words, "debug-control", "localhost", str(port or self.port)], self.environment(),
                     before)

    def needs_linux(self):
        if listening.tool.for_windows:
            self.skipTest("files have other rights there, and processes no memory that is a file")

    def unknown(self):
        """Returns the text for a listener that is not known yet."""
        return (f"The key of 'localhost', port {self.port}, is not known here yet. Its fingerprint is {key_beside(self.users)}; "
                "compare it with the output of 'qor-debug-user fingerprint' on that host.\n")

    def refused(self):
        """Returns the text for a refusal by such a listener."""
        return (f"{REFUSED[:-1]} The listener has not proved its identity yet. Before you type a password again, compare the "
                f"fingerprint of its key, {key_beside(self.users)}, with the output of 'qor-debug-user fingerprint' on that host.\n")

    def logged_in(self):
        trust(listening.tool, self.users, "localhost", self.port, self.environment())
        console = self.console("--quiet")
        console.say("ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " + PROMPT)
        return console

    def ask(self, console, line):
        console.say(line)
        return console.until(PROMPT).removesuffix(PROMPT)

    def listed(self, console, command):
        heading = {"show-all": "Trace codes of the process:", "show-enabled": "Enabled trace codes:"}[command]
        text = self.ask(console, command)
        self.assertTrue(text.startswith(f"\n{heading}\n\n") and text.endswith("\n\n"), text)
        names = text.splitlines()[3:-1]
        self.assertEqual(names, sorted(names))
        return names

    def test_a_whole_session(self):
        self.listen()
        console = self.console()
        console.say("ann", "wrong", "nobody", "secret", "ann", "secret")
        self.assertEqual(console.until(PROMPT),
                         BANNER + "Connecting ...\n" + "Username: Password: " * 3 + LOGGED_IN + PROMPT)
        self.assertEqual(self.listed(console, "show-enabled"), ["ticker.tick"])
        codes = self.listed(console, "show-all")
        self.assertIn("system.debug-control", codes)
        self.assertIn("ticker.work", codes)
        self.assertEqual(self.ask(console, "  enable \t ticker.work "), "")
        self.assertEqual(self.listed(console, "show-enabled"), ["ticker.tick", "ticker.work"])
        self.wait_for_trace("ticker.work <<LEAVE<< work()")
        self.assertEqual(self.ask(console, "disable ticker.tick"), "")
        self.assertEqual(self.listed(console, "show-enabled"), ["ticker.work"])
        self.assertEqual(self.ask(console, "disable-all"), "")
        self.assertEqual(self.ask(console, "show-enabled"), "No trace code is enabled.\n")
        self.assertEqual(self.ask(console, "quit"), "")
        self.assertEqual(self.ask(console, "enable"), "")
        code, out, err = console.end()
        self.assertEqual((code, out), (1, ""))
        self.assertEqual(err, self.unknown() + self.refused() * 2 + "Unknown command. 'help' lists the commands.\n"
                         "Wrong arguments for this command. 'help' shows its usage.\n" + END_OF_INPUT)
        self.assertIsNone(self.peer.poll())

    def test_switches_stay_when_the_console_leaves(self):
        self.listen()
        console = self.logged_in()
        self.ask(console, "enable ticker.work")
        self.assertEqual(console.end(), (1, "", END_OF_INPUT))
        console = self.logged_in()
        self.assertEqual(self.listed(console, "show-enabled"), ["ticker.tick", "ticker.work"])
        console.end()

    def test_codes_known_only_later(self):
        self.listen()
        console = self.logged_in()
        self.ask(console, "enable ticker.*")
        self.wait_for_trace(" ticks")  # of any tenth tick after the command
        self.assertIn("ticker.ten", self.listed(console, "show-all"))
        self.assertIn("ticker.ten", self.listed(console, "show-enabled"))
        console.end()

    def test_the_key_is_shown_before_the_password_is_asked_for(self):
        self.listen()
        console = self.console("--quiet")
        self.assertEqual(console.until("Username: "), "Username: ")
        self.assertEqual(console.process.stderr.readline().decode().replace("\r", ""), self.unknown())
        console.say("ann", "secret")
        self.assertEqual(console.until(PROMPT), "Password: " + PROMPT)
        self.assertEqual(console.end(), (1, "", END_OF_INPUT))
        # Now the listener is known, and its refusal needs no warning.
        console = self.console("--quiet")
        console.say("ann", "wrong", "ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " * 2 + PROMPT)
        self.assertEqual(console.end(), (1, "", REFUSED + END_OF_INPUT))

    def test_a_key_that_was_noted_first(self):
        self.listen()
        trust(listening.tool, self.users, "localhost", self.port, self.environment())
        console = self.console("--quiet")
        console.say("ann", "wrong", "ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " * 2 + PROMPT)
        self.assertEqual(console.end(), (1, "", REFUSED + END_OF_INPUT))

    def test_zero_bytes_cut_nothing(self):
        self.listen()
        trust(listening.tool, self.users, "localhost", self.port, self.environment())
        console = self.console("--quiet")
        console.say("ann", "secret\0", "ann\0x", "secret", "ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " * 3 + PROMPT)
        self.ask(console, "enable ticker.work\0x")
        self.ask(console, "show-all\0")
        self.assertEqual(self.listed(console, "show-enabled"), ["ticker.tick"])
        code, out, err = console.end()
        self.assertEqual((code, out, err), (1, "", REFUSED * 2 + "Unknown command. 'help' lists the commands.\n" * 2 + END_OF_INPUT))

    def test_a_disk_without_room(self):
        """The first login has to store the key; a stored key is not the cause of a failure."""
        self.needs_linux()
        self.listen()
        import resource
        console = self.console("--quiet", before=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
        console.say("ann", "secret")
        code, out, err = console.end()
        self.assertEqual((code, out), (1, "Username: Password: "))
        self.assertEqual(err, self.unknown() + f"Cannot write '{self.folder}/qor/known-hosts': File too large.\n")

    def test_no_lock_of_another_user_stops_a_login(self):
        self.needs_linux()
        import fcntl
        (self.folder / "qor").mkdir(mode=0o700)
        for folder in (self.folder, self.folder / "qor"):
            held = os.open(folder, os.O_RDONLY)
            self.addCleanup(os.close, held)
            fcntl.flock(held, fcntl.LOCK_EX)
        self.listen()
        console = self.console("--quiet")
        console.say("ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " + PROMPT)
        console.end()

    def test_no_password_stays_in_memory(self):
        """Searches the console's whole memory while it waits for a command."""
        self.needs_linux()
        passwords = ["horse battery 71", "staple " * 300 + "72"]
        self.users.write_text("".join(f"ann{i}:{listening.verifier(each.encode())}\n" for i, each in enumerate(passwords)))
        self.listen()
        for i, password in enumerate(passwords):
            wrong = f"wrong {password} 73"
            console = self.console("--quiet")
            console.say(f"ann{i}", wrong, f"ann{i}", password, "show-all")
            self.assertEqual(console.until(PROMPT), "Username: Password: " * 2 + PROMPT)
            self.assertIn("ticker.tick", console.until(PROMPT))
            memory = memory_of(console.process.pid)
            self.assertTrue(b"ticker.tick" in memory)  # otherwise no memory has been read
            salt = self.users.read_text().splitlines()[i].split(":")[2].split("$")[0]
            for name, secret in secrets_of(password, salt) + secrets_of(wrong, salt):
                self.assertFalse(secret in memory, f"{name} of '{password[:20]}'")
            console.end()

    def test_a_port_beyond_sixteen_bits_loses_the_upper_ones(self):
        self.listen()
        console = self.console("--quiet", port=self.port + 65536)
        console.say("ann", "secret")
        self.assertEqual(console.until(PROMPT), "Username: Password: " + PROMPT)
        console.end()

    def test_nobody_listens(self):
        for port in (1, 65537):
            code, out, err = self.console("--quiet", port=port).end()
            self.assertEqual((code, out), (1, ""))
            self.assertRegex(err, r"^.*localhost.*\b1\b.*\n$")

    def lose(self, end_peer):
        """The connection is lost while the prompt waits for a line that never comes."""
        self.listen()
        console = self.logged_in()
        end_peer()
        self.assertEqual(console.end(close=False), (0, "", "Debug connection lost\n"))

    def test_a_killed_peer(self):
        self.lose(lambda: self.peer.kill())

    def test_a_peer_that_ends(self):
        self.lose(lambda: self.peer.terminate())


class Terminal(Console):
    """The same on a terminal, where users see their own typing."""

    def tmux(self, *words):
        return subprocess.run(["tmux", "-S", self.folder / "tmux", "-f", os.devnull, *words], check=True, text=True,
                              stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                              env=self.environment() | {"TERM": "xterm"}).stdout

    def screen(self):
        return self.tmux("capture-pane", "-p", "-t", "console").rstrip("\n")

    def see(self, end):
        until = time.monotonic() + TIMEOUT
        while not self.screen().endswith(end):
            self.assertLess(time.monotonic(), until, self.screen())
            time.sleep(0.05)

    def type(self, line):
        self.tmux("send-keys", "-t", "console", "-l", line)
        self.tmux("send-keys", "-t", "console", "Enter")

    def start(self):
        words = shlex.join([*listening.tool.command, "--quiet", "debug-control", "localhost", str(self.port)])
        self.tmux("new-session", "-d", "-s", "console", "-x", "100", "-y", "50", f"{words}; echo ended with $?; cat")
        self.addCleanup(self.tmux, "kill-server")
        self.see("Username:")
        self.type("ann")
        self.see("Username: ann\nPassword:")
        self.type("secret")
        self.see("Username: ann\nPassword: secret\nDebug>")

    def test_a_session(self):
        self.listen()
        self.start()
        self.type("show-enabled")
        self.see("Debug> show-enabled\n\nEnabled trace codes:\n\nticker.tick\n\nDebug>")
        self.type("Help")
        self.see("Debug> Help\nUnknown command. 'help' lists the commands.\nDebug>")
        self.tmux("send-keys", "-t", "console", "C-d")
        self.see(f"Debug> {END_OF_INPUT}ended with 1")

    def test_a_killed_peer(self):
        self.listen()
        self.start()
        self.peer.kill()
        self.see("Debug> Debug connection lost\nended with 0")


def load_tests(loader, _tests, _pattern):
    suite = loader.loadTestsFromTestCase(Console)
    if not listening.tool.for_windows:
        suite.addTests(Terminal(name) for name in ("test_a_session", "test_a_killed_peer"))
    return suite


if __name__ == "__main__":
    listening.main()
