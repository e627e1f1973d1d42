#!/usr/bin/env python3
"""Buses and managers that are silent, slow, wrong or hostile: hostile_test.py --driver PROGRAM"""

import argparse
import itertools
import random
import socket
import struct
import sys
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from hostile_bus import PATH, SIGNAL, HostileBus, damaged, whole  # noqa: E402
from line_driver import Driver  # noqa: E402  # in tests/support

options = None

NO_MANAGER, TIMEOUT, LOST = 251, 256, 258
OPERATIONS = ("exists", "start", "stop")
QUESTIONS = ("Hello", "AddMatch", "Subscribe", "LoadUnit", "GetAll", "StartUnit")


class Hostile(unittest.TestCase):
    def setUp(self):
        self.bus = HostileBus()
        self.addCleanup(self.bus.end)
        self.driver = Driver([options.driver],
                             environment={"LC_ALL": "C", "DBUS_SYSTEM_BUS_ADDRESS": self.bus.address})
        self.addCleanup(self.driver.__exit__)

    def ask(self, operation, wait=300):
        answer = self.driver.ask(operation, "quick", 0, wait)
        self.assertIsNotNone(answer, "the program has ended")
        return answer

    def fails(self, operation, wait=300, numbers=(NO_MANAGER, LOST)):
        answer = self.ask(operation, wait)
        self.assertIsInstance(answer, tuple, (operation, answer))
        self.assertIn(answer[0], numbers, answer)
        return answer[1]

    def answers_wrongly(self, member, parts):
        """Lets questions of this name get the parts."""
        self.bus.answer = lambda question: parts(question) if question.member == member else None

    def test_the_right_answers(self):
        for operation in OPERATIONS:
            self.assertEqual(self.ask(operation, 20_000), [])
        self.assertEqual({each.member for each in self.bus.questions}, {*QUESTIONS, "StopUnit"})

    def test_nobody_accepts(self):
        path = Path(self.bus.folder.name, "full")
        with socket.socket(socket.AF_UNIX) as full, socket.socket(socket.AF_UNIX) as waiting:
            full.bind(str(path))
            full.listen(0)
            waiting.connect(str(path))
            with Driver([options.driver],
                        environment={"LC_ALL": "C", "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}) as driver:
                answer = driver.ask("exists", "quick", 0, 300)
                self.assertEqual(answer[0], NO_MANAGER)
                self.assertIn("Resource temporarily unavailable", answer[1])

    def test_logins(self):
        for greeting in (b"", b"REJECTED EXTERNAL\r\n", b"DATA\r\nERROR\r\n", b"OK\r\n", b"\0" * 1000,
                         b"x" * 200_000, b"DATA\r\nOK 0123\r\nAGREE_UNIX_FD\r\n", None):
            self.bus.greeting = greeting
            for operation in OPERATIONS:
                with self.subTest(greeting=greeting and greeting[:50], operation=operation):
                    self.fails(operation)

    def test_silence(self):
        for at, _ in enumerate(QUESTIONS):
            silent = QUESTIONS[at:]  # an answer to what follows would be a wrong one
            self.bus.answer = lambda question: [] if question.member in silent else None
            self.assertIn("does not answer", self.fails("start", 200, (LOST,)))

    def test_half_an_answer(self):
        for member in QUESTIONS:
            self.answers_wrongly(member, lambda question: [self.bus.right_answer(question)[:-5]])
            # The end of the job is missing, or an answer.
            self.fails("start", 200, (LOST, TIMEOUT))

    def test_bytes_one_by_one(self):
        self.bus.answer = lambda question: (bytes([byte]) for byte in self.bus.right_answer(question))
        self.assertEqual(self.ask("start", 60_000), [])

    def test_signals_without_end(self):
        noise = self.bus.signal("JobNew", "uos", 7, PATH + "/job/7", "other.service") * 100
        self.answers_wrongly("LoadUnit", lambda question: itertools.repeat(noise))
        self.assertIn("does not answer", self.fails("start", 300, (LOST,)))

    def test_other_answers(self):
        """Those of others, of another type, or of none."""
        def to_nobody(question):
            question.serial += 1000
            return [self.bus.right_answer(question)]

        def other(signature, *values):
            return lambda question: [self.bus.reply(question, ":1.2", signature, *values)]

        self.answers_wrongly("LoadUnit", to_nobody)
        self.fails("exists", 200, (LOST,))
        for member in "LoadUnit", "GetAll", "StartUnit":
            for wrong in other(""), other("u", 7), other("ss", "a", "b"), other("s", "\u20ac" * 10_000):
                self.answers_wrongly(member, wrong)
                self.fails("start", 5000, (LOST,))
        # An empty list of properties.
        self.answers_wrongly("GetAll", other("a{sv}", {}))
        self.fails("exists", 5000, (LOST,))

    def test_the_end_of_another_job(self):
        def ended(path, sender):
            return lambda question: [
                self.bus.reply(question, ":1.2", "o", PATH + "/job/1"),
                self.bus.signal("JobRemoved", "uoss", 1, path, "quick.service", "done", sender=sender)]

        self.answers_wrongly("StartUnit", ended(PATH + "/job/2", ":1.2"))
        self.fails("start", 200, (TIMEOUT,))
        self.answers_wrongly("StartUnit", ended(PATH + "/job/1", ":1.3"))
        self.fails("start", 200, (TIMEOUT,))
        self.answers_wrongly("StartUnit", ended(PATH + "/job/1", ":1.2"))
        self.assertEqual(self.ask("start", 20_000), [])

    def test_the_manager_leaves(self):
        def leaves(sender, before):
            return lambda question: [
                self.bus.reply(question, ":1.2", "o", PATH + "/job/1"),
                whole(SIGNAL, self.bus.next_serial(),
                      {1: ("o", "/org/freedesktop/DBus"), 2: ("s", "org.freedesktop.DBus"),
                       3: ("s", "NameOwnerChanged"), 7: ("s", sender)}, "sss", "org.freedesktop.systemd1", before, "")]

        self.answers_wrongly("StartUnit", leaves("org.freedesktop.DBus", ":1.2"))
        self.fails("start", 20_000, (LOST,))
        # Only the bus may say so.
        self.answers_wrongly("StartUnit", leaves(":1.3", ":1.2"))
        self.fails("start", 200, (TIMEOUT,))

    def test_sizes_that_never_come(self):
        for size in 1 << 20, 127 << 20, (1 << 32) - 1:
            def huge(question, size=size):
                head = bytearray(self.bus.right_answer(question)[:200])
                struct.pack_into("<I", head, 4, size)
                return [bytes(head)]

            self.answers_wrongly("GetAll", huge)
            self.fails("exists", 200)

    def test_permission_may_be_asked_for(self):
        for ask in 0, 1:
            self.bus.questions.clear()
            self.assertEqual(self.driver.ask("start", "quick", 0, 20_000, 10, ask), [])
            flags = {each.member: each.flags & 4 for each in self.bus.questions}
            self.assertEqual(flags["StartUnit"], 4 * ask)
            self.assertEqual(flags["LoadUnit"], 0)

    def test_damaged_answers(self):
        chance = random.Random(485)
        good = 0
        for _ in range(options.count):
            member = chance.choice(QUESTIONS)
            self.answers_wrongly(member, lambda question: [damaged(self.bus.right_answer(question), chance)])
            good += self.ask("start", 100) == []
        self.assertGreater(good, options.count // 20)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--count", type=int, default=300)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
