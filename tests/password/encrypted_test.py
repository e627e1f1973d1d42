#!/usr/bin/env python3
"""Encrypted passwords beside another implementation of AES-GCM; their keys, and the file of the keys.

    encrypted_test.py --driver PROGRAM [--runner PROGRAM] [--injector LIBRARY] [--instrumented]
"""

import argparse
import base64
import concurrent.futures
import errno
import hmac
import os
import random
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
sys.path.append("/usr/lib/python3/dist-packages")  # a Python of its own may lack what Debian's has
from cryptography.exceptions import InvalidTag  # noqa: E402
from cryptography.hazmat.primitives.ciphers.aead import AESGCM  # noqa: E402
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402

options = None
MALFORMED, NEWER, KEY_UNKNOWN, TAMPERED, KEYS_UNUSABLE, TOO_LONG = range(320, 326)
HEAD = "AES-256-GCM$1:"
FIRST_LINE = "qor-password-keys 1"


def encoded(data):
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


def decoded(text):
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def name_of(key):
    return hmac.digest(key, b"qor password key", "sha256")[:8].hex()


def take_apart(text):
    """Returns the key's name, the nonce, and the encrypted bytes with the tag, as AESGCM wants them."""
    name, _, rest = text.removeprefix(HEAD).partition("$")
    nonce, cipher, tag = rest.split(":")
    return name, decoded(nonce), decoded(cipher) + decoded(tag)


def put_together(key, nonce, password, context):
    both = AESGCM(key).encrypt(nonce, password, f"{HEAD}{name_of(key)}$".encode() + context)
    return f"{HEAD}{name_of(key)}${encoded(nonce)}:{encoded(both[:-16])}:{encoded(both[-16:])}"


class Base(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.home = Path(folder.name)
        self.file = self.home / "qor" / "keys" / "passwords"
        self.driver = self.new_driver()

    def new_driver(self, home=None, **environment):
        driver = Driver([*filter(None, [options.runner]), options.driver],
                        {"XDG_CONFIG_HOME": str(home or self.home), "LC_ALL": "C", **environment})
        self.addCleanup(driver.__exit__)
        return driver

    def good(self, *words, driver=None):
        answer = (driver or self.driver).ask(*words)
        self.assertFalse(failed(answer) or answer is None, (words, answer))
        return answer

    def bad(self, error, *words, driver=None):
        answer = (driver or self.driver).ask(*words)
        self.assertTrue(failed(answer), (words, answer))
        self.assertEqual(answer[0], error, answer)
        return answer[1]

    def encrypt(self, password, context=b""):
        return decode(self.good("encrypt", password, context)[0]).decode()

    def keys(self):
        head, *lines = self.file.read_text().splitlines()
        self.assertEqual(head, FIRST_LINE)
        pairs = [line.split(" ") for line in lines]
        self.assertEqual([name_of(decoded(key)) for _, key in pairs], [name for name, _ in pairs])
        return [decoded(key) for _, key in pairs]


class Anywhere(Base):
    def test_texts(self):
        source = random.Random(1)
        for password in (b"", b"secret", "Grüße 🎉".encode(), bytes(range(256)), source.randbytes(65536)):
            for context in (b"", b"mail.example:ada", source.randbytes(4096)):
                text = self.encrypt(password, context)
                self.assertRegex(text, r"\AAES-256-GCM\$1:[0-9a-f]{16}\$[-\w]{16}:[-\w]*:[-\w]{22}\Z")
                self.assertNotEqual(text, self.encrypt(password, context))
                found, is_old = self.good("decrypt", text, context, driver=self.new_driver())
                self.assertEqual((decode(found), is_old), (password, "0"))
                self.bad(TAMPERED, "decrypt", text, context[1:] if context else b"x")

    def test_sealing_is_that_of_another_implementation(self):
        source = random.Random(2)
        for size in [*range(40), 100, 1000, 65536]:
            key, nonce = source.randbytes(32), source.randbytes(12)
            bound, plain = source.randbytes(source.randrange(50)), source.randbytes(size)
            theirs = AESGCM(key).encrypt(nonce, plain, bound)
            ours = self.good("seal", key, nonce, bound, plain)
            self.assertEqual(b"".join(map(decode, ours)), theirs)
            self.assertEqual(self.good("unseal", key, nonce, bound, theirs[:-16], theirs[-16:]),
                             ["1", "x" + plain.hex()])
            for changed in range(5):  # one bit of each input
                words = [key, nonce, bound, theirs[:-16], theirs[-16:]]
                if not words[changed]:
                    continue
                bit = source.randrange(len(words[changed]) * 8)
                damaged = bytearray(words[changed])
                damaged[bit // 8] ^= 1 << bit % 8
                words[changed] = bytes(damaged)
                self.assertEqual(self.good("unseal", *words), ["0", "x"])
                with self.assertRaises(InvalidTag):
                    AESGCM(words[0]).decrypt(words[1], words[3] + words[4], words[2])

    def test_every_changed_bit_is_refused(self):
        text = self.encrypt(b"some secret", b"context").encode()
        errors = set()
        for bit in range(len(text) * 8):
            changed = bytearray(text)
            changed[bit // 8] ^= 1 << bit % 8
            answer = self.driver.ask("decrypt", bytes(changed), b"context")
            self.assertTrue(failed(answer), changed)
            errors.add(answer[0])
        self.assertEqual(errors, {MALFORMED, NEWER, KEY_UNKNOWN, TAMPERED})

    def test_every_other_form_is_refused(self):
        text = self.encrypt(b"some secret")
        for size in range(len(text)):
            self.bad(MALFORMED, "decrypt", text[:size], b"")
        for end in ("=", "==", "\n", " ", ":", "A", "AAAA", "-"):
            self.bad(MALFORMED, "decrypt", text + end, b"")
        for at in range(len(text) + 1):
            for more in ("\n", " ", "=", "$", ":", "+", "/"):
                self.bad(MALFORMED, "decrypt", text[:at] + more + text[at:], b"")
        self.bad(MALFORMED, "decrypt", text.replace("$1:", "$01:"), b"")
        self.bad(MALFORMED, "decrypt", text.replace("$1:", "$0:"), b"")
        self.bad(MALFORMED, "decrypt", text.replace("$1:", "$-1:"), b"")
        self.bad(MALFORMED, "decrypt", text.replace("$1:", "$4294967297:"), b"")
        self.assertIn(" form 2,", self.bad(NEWER, "decrypt", text.replace("$1:", "$2:"), b""))

    def test_limits(self):
        self.encrypt(bytes(65536), bytes(4096))
        self.assertIn("65536", self.bad(TOO_LONG, "encrypt", bytes(65537), b""))
        self.assertIn("4096", self.bad(TOO_LONG, "encrypt", b"", bytes(4097)))
        self.bad(TOO_LONG, "decrypt", self.encrypt(b""), bytes(4097))

    def test_renewal(self):
        old = self.encrypt(b"secret", b"c")
        self.good("renew")
        new = self.encrypt(b"secret", b"c")
        self.assertNotEqual(take_apart(old)[0], take_apart(new)[0])
        self.assertEqual(self.good("decrypt", old, b"c"), ["x" + b"secret".hex(), "1"])
        self.assertEqual(self.good("decrypt", new, b"c"), ["x" + b"secret".hex(), "0"])
        text, has_changed = self.good("again", old, b"c")
        self.assertEqual(has_changed, "1")
        self.assertEqual(take_apart(decode(text).decode())[0], take_apart(new)[0])
        self.assertEqual(self.good("decrypt", decode(text), b"c"), ["x" + b"secret".hex(), "0"])
        self.assertEqual(self.good("again", new, b"c"), ["x" + new.encode().hex(), "0"])
        self.bad(TAMPERED, "again", old, b"d")


class OfFiles(Base):
    """Windows protects the keys by the system, so there is nothing to look at."""

    def test_both_ways(self):
        source = random.Random(3)
        for _ in range(100):
            password, context = source.randbytes(source.randrange(100)), source.randbytes(source.randrange(50))
            text = self.encrypt(password, context)
            name, nonce, both = take_apart(text)
            [key] = self.keys()
            self.assertEqual(name, name_of(key))
            self.assertEqual(AESGCM(key).decrypt(nonce, both, f"{HEAD}{name}$".encode() + context), password)
            theirs = put_together(key, source.randbytes(12), password, context)
            self.assertEqual(decode(self.good("decrypt", theirs, context)[0]), password)

    def test_a_file_that_somebody_has_written(self):
        source = random.Random(4)
        keys = [source.randbytes(32) for _ in range(3)]
        self.file.parent.mkdir(parents=True)
        self.file.write_text("".join(f"{line}\n" for line in
                                     [FIRST_LINE, *(f"{name_of(key)} {encoded(key)}" for key in keys)]))
        self.file.chmod(0o600)
        for key in keys:
            answer = self.good("decrypt", put_together(key, bytes(12), b"secret", b"c"), b"c")
            self.assertEqual(answer, ["x" + b"secret".hex(), "0" if key is keys[-1] else "1"])
        self.assertEqual(take_apart(self.encrypt(b""))[0], name_of(keys[-1]))

    def test_of_the_user_alone(self):
        old = os.umask(0)
        self.addCleanup(os.umask, old)
        self.driver = self.new_driver()
        text = self.encrypt(b"secret")
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(self.file.parent.stat().st_mode), 0o700)
        self.assertEqual([path.name for path in self.file.parent.iterdir()], ["passwords"])
        for mode in (0o604, 0o640, 0o602, 0o620, 0o644, 0o666):
            self.file.chmod(mode)
            for words in (("decrypt", text, b""), ("encrypt", b"x", b""), ("renew",)):
                self.assertIn(str(self.file), self.bad(KEYS_UNUSABLE, *words))
        self.file.chmod(0o600)
        self.file.parent.chmod(0o777)
        self.bad(KEYS_UNUSABLE, "decrypt", text, b"")
        self.file.parent.chmod(0o700)
        if os.geteuid() == 0:
            os.chown(self.file, 12345, 12345)
            self.bad(KEYS_UNUSABLE, "decrypt", text, b"")
            os.chown(self.file, 0, 0)
        self.good("decrypt", text, b"")

    def test_not_where_it_should_be(self):
        text = self.encrypt(b"secret")
        words = (("decrypt", text, b""), ("encrypt", b"x", b""), ("renew",))
        aside = self.file.with_name("aside")
        self.file.rename(aside)
        before = aside.read_bytes()
        for make in (lambda: self.file.symlink_to(aside), lambda: os.mkfifo(self.file), self.file.mkdir,
                     lambda: self.file.symlink_to(self.home / "nothing")):
            make()
            for each in words:
                self.bad(KEYS_UNUSABLE, *each)
            self.file.rmdir() if self.file.is_dir() and not self.file.is_symlink() else self.file.unlink()
        self.assertEqual(aside.read_bytes(), before)
        self.assertFalse((self.home / "nothing").exists())
        aside.rename(self.file)
        folder = self.file.parent
        folder.rename(folder.with_name("moved"))
        folder.symlink_to("moved")
        for each in words:
            self.bad(KEYS_UNUSABLE, *each)
        folder.unlink()
        # Without the file the key is unknown, which is something else than a changed text.
        self.assertIn(f"'{take_apart(text)[0]}'", self.bad(KEY_UNKNOWN, "decrypt", text, b""))
        self.assertFalse(folder.exists())  # decrypting makes nothing

    def test_the_key_of_another(self):
        text = self.encrypt(b"secret")
        other = self.home / "other"
        stranger = self.new_driver(other)
        self.bad(KEY_UNKNOWN, "decrypt", text, b"", driver=stranger)
        self.good("encrypt", b"x", b"", driver=stranger)
        self.bad(KEY_UNKNOWN, "decrypt", text, b"", driver=stranger)
        # A text that names a key which has not encrypted it.
        name = name_of(decoded((other / "qor/keys/passwords").read_text().split()[-1]))
        self.bad(TAMPERED, "decrypt", text.replace(take_apart(text)[0], name), b"", driver=stranger)

    def test_damaged_keys(self):
        text = self.encrypt(b"secret")
        good = self.file.read_bytes()
        errors = set()
        for bit in range(len(good) * 8):
            changed = bytearray(good)
            changed[bit // 8] ^= 1 << bit % 8
            self.file.write_bytes(changed)
            errors.add(self.bad(KEYS_UNUSABLE, "decrypt", text, b"").partition(" cannot be used: ")[2])
        self.assertEqual(errors, {"its line 1 is damaged.", "its line 2 is damaged.", "a newer program has made them."})
        for size in [*range(len(FIRST_LINE) + 18), len(good) - 2]:
            self.file.write_bytes(good[:size])
            self.bad(KEYS_UNUSABLE, "decrypt", text, b"")
            self.bad(KEYS_UNUSABLE, "encrypt", b"x", b"")
            self.assertEqual(self.file.read_bytes(), good[:size])  # nobody's keys are thrown away
        self.file.write_bytes(good[:-1])  # an editor that leaves out the last end of a line
        self.good("decrypt", text, b"")

    def test_one_of_many_makes_the_key(self):
        drivers = [self.new_driver() for _ in range(30)]
        with concurrent.futures.ThreadPoolExecutor(len(drivers)) as pool:
            answers = list(pool.map(lambda each: each.ask("encrypt", b"secret", b""), drivers))
        self.assertFalse([answer for answer in answers if failed(answer)])
        [key] = self.keys()
        self.assertEqual({take_apart(decode(answer[0]).decode())[0] for answer in answers}, {name_of(key)})

    def test_many_renew_at_once(self):
        text = self.encrypt(b"secret")
        drivers = [self.new_driver() for _ in range(10)]
        with concurrent.futures.ThreadPoolExecutor(len(drivers)) as pool:
            answers = list(pool.map(lambda each: each.ask("renew"), drivers))
        self.assertEqual(answers, [[]] * len(drivers))
        self.assertEqual(len(set(self.keys())), 11)
        self.assertEqual(self.good("decrypt", text, b""), ["x" + b"secret".hex(), "1"])


class Leftovers(Base):
    def test_nothing_stays_in_memory(self):
        secret = random.Random(5).randbytes(40)
        text = self.encrypt(secret)
        for _ in range(20):
            self.good("renew")
        keys = self.keys()
        everything = [secret, *keys, *(encoded(key).encode() for key in keys)]
        inverted = [bytes(byte ^ 255 for byte in each) for each in everything]
        counts = self.good("leftovers", text, b"", *inverted, driver=self.new_driver())
        self.assertEqual(counts, ["0"] * len(everything))
        # What is there is found: the text itself is a word of the question.
        [count] = self.good("leftovers", text, b"", bytes(byte ^ 255 for byte in text.encode()))
        self.assertGreater(int(count), 0)


class Faults(Base):
    CALLS = {"open": [errno.EMFILE, errno.EACCES, errno.EINTR], "read": [errno.EIO, errno.EINTR, "short"],
             "write": [errno.ENOSPC, errno.EIO, errno.EINTR, "short"], "fsync": [errno.EIO, errno.ENOSPC],
             "fstat": [errno.EIO], "flock": [errno.ENOLCK, errno.EINTR], "linkat": [errno.EIO, errno.ENOSPC],
             "renameat": [errno.EIO, errno.ENOSPC], "close": [errno.EIO]}

    def test_each_call(self):
        text = self.encrypt(b"secret")
        injector, report = linked(options.injector, self.home), self.home / "report"
        counts = dict.fromkeys(self.CALLS, 0)
        for words in (("encrypt", b"new", b""), ("renew",), ("decrypt", text, b"")):
            for call, errors in self.CALLS.items():
                for error in errors:
                    for at in range(1, 100):
                        with self.subTest(words=words[0], call=call, error=error, at=at):
                            makes = words[0] == "encrypt"
                            home = self.home / f"{call}.{error}.{at}" if makes else self.home
                            report.unlink(missing_ok=True)
                            faulty = Driver([options.driver], {
                                "XDG_CONFIG_HOME": str(home), "LC_ALL": "C", "LD_PRELOAD": str(injector),
                                "QOR_INJECT": call, "QOR_INJECT_AT": str(at), "QOR_INJECT_WITH": str(error),
                                "QOR_INJECT_REPORT": str(report)}, stderr=subprocess.DEVNULL)
                            with faulty:
                                answer = faulty.ask(*words)
                            has_fired = report.exists()
                            # Whatever it was: the next program works, and what was encrypted can be read.
                            after = self.new_driver(home)
                            if makes:
                                self.good("encrypt", b"x", b"", driver=after)
                                if answer is not None and not failed(answer):
                                    self.assertEqual(decode(self.good("decrypt", decode(answer[0]), b"",
                                                                      driver=after)[0]), b"new")
                            else:
                                self.assertEqual(decode(self.good("decrypt", text, b"", driver=after)[0]), b"secret")
                        if not has_fired:
                            break
                        counts[call] += 1
        self.assertEqual([call for call, count in counts.items() if count == 0], [])

    def test_requests_for_memory(self):
        """OpenSSL makes thousands, so these are the first ones, and then every further by a tenth."""
        text = self.encrypt(b"secret")
        injector, report = linked(options.injector, self.home), self.home / "report"
        for words in (("encrypt", b"new", b""), ("renew",), ("decrypt", text, b"")):
            at = 1
            while True:
                with self.subTest(words=words[0], at=at):
                    report.unlink(missing_ok=True)
                    with Driver([options.driver], {
                            "XDG_CONFIG_HOME": str(self.home), "LC_ALL": "C", "LD_PRELOAD": str(injector),
                            "QOR_INJECT": "alloc", "QOR_INJECT_AT": str(at), "QOR_INJECT_REPORT": str(report)},
                            stderr=subprocess.DEVNULL) as faulty:
                        answer = faulty.ask(*words)
                        if answer is None:
                            self.assertGreaterEqual(faulty.process.wait(), 0)  # it has ended, not crashed
                    if answer is not None and not failed(answer) and words[0] == "decrypt":
                        self.assertEqual(decode(answer[0]), b"secret")
                    self.assertEqual(decode(self.good("decrypt", text, b"")[0]), b"secret")
                if not report.exists():
                    break
                at = max(at + 1, at * 11 // 10)
            self.assertGreater(at, 100)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    parser.add_argument("--injector")
    parser.add_argument("--instrumented", action="store_true")
    options, rest = parser.parse_known_args()
    # The sanitizers fill memory with copies of their own, and have no injector.
    classes = [Anywhere] if options.runner or options.driver.endswith(".exe") else [Anywhere, OfFiles]
    if not options.instrumented and len(classes) > 1:
        classes.append(Leftovers)
    if options.injector:
        classes.append(Faults)
    load = unittest.defaultTestLoader.loadTestsFromTestCase
    suite = unittest.TestSuite(load(each) for each in classes)
    sys.exit(not unittest.TextTestRunner(verbosity=1).run(suite).wasSuccessful())
