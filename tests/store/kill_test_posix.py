#!/usr/bin/env python3
"""Writers of an object store that are killed, and a disk that is full: kill_test_posix.py --driver PROGRAM

With QOR_TEST_LOAD set, 1,000 rounds."""

import argparse
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from support import FULL, Store, failed

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from name_space import name_space  # noqa: E402  # in tests/support

options = None
ROUNDS = 1000 if "QOR_TEST_LOAD" in os.environ else 40


class Killed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "store"

    def test_what_was_confirmed_is_there(self):
        """Kills a writer at random moments, from its start on. Each set has the number of its last confirmed change, or
        of the one that was under way; both sets of a transaction are there, or none."""
        generator = random.Random(8)
        confirmed = {}
        total = 0
        for seed in range(ROUNDS):
            writer = subprocess.Popen([*options.command, "write", self.path, str(seed % 7)], stdout=subprocess.PIPE)
            time.sleep(generator.random() ** 2 * 0.1)  # any moment will do
            writer.send_signal(signal.SIGKILL)
            lines = writer.communicate()[0].decode().splitlines(keepends=True)
            self.assertEqual(writer.returncode, -signal.SIGKILL, lines[-1:])
            last = 0
            for line in lines:
                if line.endswith("\n"):  # the last one may be cut
                    key, _, number = line.split()
                    confirmed[key] = (seed, int(number))
                    last = max(last, int(number))
                    total += 1
            with Store(options, self.path) as store:
                store.good("check")
                found = {key.decode(): int(text.split(":")[1].split(",")[0]) for key, _, text in store.walk()}
            for key, (when, number) in confirmed.items():
                self.assertIn(key, found)
                under_way = key.startswith(f"{seed % 7}/") and found[key] == last + 1
                self.assertTrue(found[key] == number or under_way, (key, when, number, found[key], last))
            for key, number in found.items():
                if key not in confirmed or confirmed[key][1] != number:
                    confirmed[key] = (seed, number)  # the one that was under way was stored
        self.assertGreater(total, ROUNDS)


class FullDisk(unittest.TestCase):
    def test_nothing_is_lost(self):
        inside = name_space()
        if inside is None:
            self.skipTest("this system allows no name space with a disk of its own")
        program = [*inside, sys.executable, __file__, "--driver", options.driver, "Inside"]
        done = subprocess.run(program, capture_output=True, text=True, env={**os.environ, "QOR_TEST_INSIDE": "1"})
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("Ran 1 test", done.stderr)


@unittest.skipUnless("QOR_TEST_INSIDE" in os.environ, "runs inside the test of a full disk")
class Inside(unittest.TestCase):
    def test_a_small_disk(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        for size in (200, 300, 512, 1000):  # KiB
            disk = Path(folder.name) / str(size)
            disk.mkdir()
            subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}k", "none", disk], check=True)
            self.addCleanup(subprocess.run, ["umount", "-l", disk], check=True)
            store = Store(options, disk / "store", synced=True)
            self.addCleanup(store.__exit__)
            confirmed = {}
            for number in range(10000):
                key = f"key {number}"
                answer = store.ask(*map(store.word, ("put", key, f'{{"n":{number}}}', "any")))
                if failed(answer):
                    self.assertEqual(answer[0], FULL, answer)
                    break
                confirmed[key.encode()] = f'{{"n":{number}}}'
            self.assertTrue(failed(answer))
            self.assertGreater(len(confirmed), 10)
            for open_again in (False, True):
                if open_again:
                    store.good("close")
                    (disk / "room").unlink(missing_ok=True)
                    store.good("open", store.name(disk / "store"), 0, 1000, 1, 0, "")
                self.assertEqual({key: text for key, _, text in store.walk()}, confirmed)
            store.good("check")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    options, rest = parser.parse_known_args()
    options.command = [options.driver]
    options.runner = None
    unittest.main(argv=[sys.argv[0], *rest])
