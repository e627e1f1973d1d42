#!/usr/bin/env python3
"""Object stores that several processes use at once: processes_test.py --driver PROGRAM [--runner PROGRAM]"""

import argparse
import json
import random
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from support import BUSY, CONFLICT, Store, failed

options = None


class Processes(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "store"

    def store(self, **more):
        store = Store(options, self.path, **more)
        self.addCleanup(store.__exit__)
        return store

    def name(self):
        return f"Z:{self.path}" if options.runner else str(self.path)

    def test_agree_with_a_dictionary(self):
        """Processes in turn, each with what the others have done."""
        generator = random.Random(4)
        stores = [self.store() for _ in range(3)]
        model = {}
        for number in range(300 if options.runner else 1500):
            store = generator.choice(stores)
            key = f"key {generator.randrange(30)}"
            version = model.get(key, (0, None))[0]
            action = generator.randrange(6)
            if action < 2:
                text = json.dumps({"n": number})
                model[key] = (store.put(key, text), text.replace(" ", ""))
            elif action == 2:
                expected = generator.choice([version, generator.randrange(3000)])
                text = json.dumps({"n": number}).replace(" ", "")
                answer = store.ask(*map(store.word, ("put", key, text, str(expected))))
                self.assertEqual(failed(answer), expected != version, answer)
                if failed(answer):
                    self.assertEqual(answer[0], CONFLICT)
                else:
                    model[key] = (int(answer[0]), text)
            elif action == 3:
                self.assertEqual(store.good("remove", key, "any"), ["1" if model.pop(key, None) else "0"])
            elif action == 4:
                self.assertEqual(store.get(key), model.get(key, (0, "{}")))
            else:
                expected = [(name.encode(), *model[name]) for name in sorted(model) if "key 1" <= name]
                self.assertEqual(store.walk(start="key 1"), expected)
        stores[0].good("check")

    def test_lose_no_change(self):
        """Each adds to one number by compare and put; others open and close the store meanwhile."""
        self.store().good("close")
        processes, times = (2, 20) if options.runner else (4, 150)
        counters = [subprocess.Popen([*options.command, "count", self.name(), str(times)],
                                     stdout=subprocess.PIPE, text=True) for _ in range(processes)]
        while any(each.poll() is None for each in counters):
            with Store(options, self.path) as visitor:
                visitor.get("count")
        for each in counters:
            self.assertEqual((each.communicate()[0], each.returncode), ("", 0))
        self.assertEqual(self.store().get("count")[1], f'{{"number":{processes * times}}}')

    def test_create_it_at_once(self):
        for number in range(3 if options.runner else 20):
            self.path = self.path.with_name(f"store {number}")
            counters = [subprocess.Popen([*options.command, "count", self.name(), "3"],
                                         stdout=subprocess.PIPE, text=True) for _ in range(3)]
            for each in counters:
                self.assertEqual((each.communicate()[0], each.returncode), ("", 0))
            self.assertEqual(self.store().get("count")[1], '{"number":9}')

    def test_wait_for_a_limited_time(self):
        first, second = self.store(), self.store(wait=100)
        first.good("begin", "write")
        self.assertIn("100 ms", second.bad(BUSY, "put", "a", "{}", "any"))
        first.good("put", "a", '{"n":1}', "any")
        self.assertEqual(second.get("a"), (0, "{}"))
        first.good("commit")
        self.assertEqual(second.get("a")[1], '{"n":1}')


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    options, rest = parser.parse_known_args()
    options.command = [*([options.runner] if options.runner else []), options.driver]
    unittest.main(argv=[sys.argv[0], *rest])
