#!/usr/bin/env python3
"""Whole runs of a program that logs to the system, with a journal and a syslog of the test:

    daemons_test_posix.py --driver PROGRAM [--injector LIBRARY]

The test runs in a name space of its own, where /run and /dev are empty but for what it puts there. The reader of the
journal's protocol follows its public description; the form of syslog is that of the C library, as Python uses it.
"""

import argparse
import array
import errno
import fcntl
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import syslog
import tempfile
import time
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, failed  # noqa: E402  # in tests/support
from name_space import name_space  # noqa: E402  # in tests/support
from tool import linked  # noqa: E402  # in tests/support

options = None

JOURNAL = Path("/run/systemd/journal/socket")
SYSLOG = Path("/dev/log")
ROOM = 4096  # entries that wait
LONG = 60  # seconds; only a test that hangs takes as long
ERROR, WARNING, INFO = 3, 4, 6


def parse(data):
    """Returns the fields of an entry of the journal: {name: value}, both as bytes."""
    fields = {}
    while data:
        head, _, rest = data.partition(b"\n")
        if b"=" in head:
            name, _, value = head.partition(b"=")
        else:
            name, (size,) = head, struct.unpack("<Q", rest[:8])
            value, end, rest = rest[8:8 + size], rest[8 + size:9 + size], rest[9 + size:]
            assert end == b"\n", data
        assert name not in fields, name
        fields[name.decode()] = value
        data = rest
    return fields


class Daemon:
    """A socket with a name, and what comes to it."""

    def __init__(self, path):
        path.unlink(missing_ok=True)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        self.socket.bind(str(path))
        self.path, self.process, self.files = path, None, 0

    def next(self, wait=LONG):
        """Returns the next datagram; None: none has come in this time."""
        if not select.select([self.socket], [], [], wait)[0]:
            return None
        data, control, _, _ = self.socket.recvmsg(1 << 20, 4096)
        for level, kind, value in control:
            if kind == socket.SCM_CREDENTIALS:
                self.process = struct.unpack("3i", value)[0]
            elif kind == socket.SCM_RIGHTS:
                file = array.array("i", value)[0]
                seals = fcntl.fcntl(file, fcntl.F_GET_SEALS)
                assert seals & (fcntl.F_SEAL_WRITE | fcntl.F_SEAL_SHRINK), seals
                self.files += 1
                with open(f"/proc/self/fd/{file}", "rb") as content:
                    data = content.read()
                os.close(file)
        return data

    def entry(self, wait=LONG):
        data = self.next(wait)
        return None if data is None else parse(data)

    def close(self):
        self.socket.close()
        self.path.unlink(missing_ok=True)


class Outside(unittest.TestCase):
    def test_inside(self):
        inside = name_space()
        if inside is None:
            self.skipTest("this system allows no name space with daemons of its own")
        words = [word for pair in (("--driver", options.driver), ("--injector", options.injector)) if pair[1]
                 for word in pair]
        done = subprocess.run([*inside, sys.executable, __file__, *words, "Journal", "Syslog", "Nobody", "Faults"],
                              capture_output=True, text=True, env={**os.environ, "QOR_TEST_INSIDE": "1"})
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stderr, r"Ran \d\d tests")
        print(done.stderr)


def make_folders():
    """Makes /run and /dev of this name space, once."""
    if JOURNAL.parent.exists() and Path("/dev/qor-test").exists():
        return
    run = lambda *words: subprocess.run(words, check=True)  # noqa: E731
    run("mount", "-t", "tmpfs", "none", "/run")
    JOURNAL.parent.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "none", "/mnt")
    for name in ("null", "zero", "urandom", "random", "full", "qor-test"):
        Path("/mnt", name).touch()
        if Path("/dev", name).exists():
            run("mount", "--bind", f"/dev/{name}", f"/mnt/{name}")
    run("mount", "--move", "/mnt", "/dev")


@unittest.skipUnless("QOR_TEST_INSIDE" in os.environ, "runs inside the test of daemons")
class Inside(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        make_folders()

    def daemon(self, path):
        made = Daemon(path)
        self.addCleanup(made.close)
        return made

    def driver(self, environment=None):
        errors = tempfile.TemporaryFile()
        self.addCleanup(errors.close)
        made = Driver([options.driver], environment, stderr=errors)
        self.addCleanup(made.__exit__)
        made.errors = errors
        return made

    def good(self, driver, *words):
        answer = driver.ask(*words)
        self.assertFalse(failed(answer) or answer is None, answer)
        return answer

    def said(self, driver):
        driver.errors.seek(0)
        return driver.errors.read().decode()

    def end(self, driver):
        """Ends the driver, and returns what it has said on standard error."""
        driver.__exit__()
        self.assertEqual(driver.process.returncode, 0)
        return self.said(driver)

    def processor_time(self, driver):
        words = Path(f"/proc/{driver.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


class Journal(Inside):
    def setUp(self):
        self.journal = self.daemon(JOURNAL)

    def texts(self, count):
        return [self.journal.entry()["MESSAGE"].decode() for _ in range(count)]

    def test_the_fields_of_an_entry(self):
        driver = self.driver()
        self.good(driver, "entry", ERROR, b"two\nlines \xff", "DISK", "sda", "NOTE", "a\nb")
        fields = self.journal.entry()
        place = {name: fields.pop(name).decode() for name in ("CODE_FILE", "CODE_LINE", "CODE_FUNC", "TID")}
        self.assertEqual(fields, {"MESSAGE": b"two\nlines \xff", "PRIORITY": b"3", "SYSLOG_IDENTIFIER": b"log-driver",
                                  "DISK": b"sda", "NOTE": b"a\nb"})
        self.assertTrue(place["CODE_FILE"].endswith("tests/log/log_driver.cpp"))
        lines = Path(__file__).with_name("log_driver.cpp").read_text().splitlines()
        self.assertIn("qorLogEntry entry", lines[int(place["CODE_LINE"]) - 1])
        self.assertIn("send_entry", place["CODE_FUNC"])
        self.assertEqual(place["TID"], str(driver.process.pid))
        self.assertEqual(self.journal.process, driver.process.pid)

    def test_a_message_has_its_number_in_every_language(self):
        for language, text in ("en", "Cannot open 'a': b."), ("de", "„a“ kann nicht geöffnet werden: b."):
            driver = self.driver({"QOR_LANGUAGE": language})
            self.good(driver, "message", WARNING, "qorcore", 10, "a", "b")
            fields = self.journal.entry()
            self.assertEqual((fields["QOR_MESSAGE"], fields["QOR_INSERT_1"], fields["QOR_INSERT_2"]),
                             (b"qorcore:10", b"a", b"b"))
            if language == "en":
                self.assertEqual(fields["MESSAGE"].decode(), text)
            else:
                self.assertNotEqual(fields["MESSAGE"].decode(), "Cannot open 'a': b.")

    def test_large_entries(self):
        driver = self.driver()
        for size in (100, 10_000, 200_000, 300_000, 1_000_000):
            text = (b"%d\n" % size) * (size // 8)
            self.good(driver, "text", INFO, text)
            self.assertEqual(self.journal.entry()["MESSAGE"], text)
        self.assertGreaterEqual(self.journal.files, 2)

    def test_a_killed_process_has_logged_all(self):
        driver = self.driver()
        self.good(driver, "many", 5, "text ")
        driver.process.kill()
        driver.process.wait()
        self.assertEqual(self.texts(5), [f"text {i}" for i in range(5)])

    def test_a_slow_journal(self):
        driver = self.driver()
        self.good(driver, "many", 2 * ROOM, "text ")  # answers, although nobody reads
        dropped = int(self.good(driver, "dropped")[0])
        self.assertGreater(dropped, 0)
        self.assertTrue(failed(driver.ask("flush", 10)))
        found, told = [], 0
        while len(found) + told < 2 * ROOM:
            fields = self.journal.entry()
            self.assertIsNotNone(fields, (len(found), told))
            if "QOR_DROPPED" in fields:
                told += int(fields["QOR_DROPPED"])
                self.assertEqual(fields["MESSAGE"], fields["QOR_DROPPED"] + b" log entries were dropped.")
            else:
                found.append(int(fields["MESSAGE"].split()[1]))
        self.assertEqual(told, dropped)
        self.assertEqual(found, list(range(len(found))))  # the first ones, in their order
        self.good(driver, "flush", LONG * 1000)
        # There is nothing more to say, and nothing goes round in circles.
        before = self.processor_time(driver)
        self.assertIsNone(self.journal.next(1))
        self.assertLess(self.processor_time(driver) - before, 0.2)
        self.assertEqual(self.end(driver), "")

    def test_a_journal_that_never_reads_holds_up_nobody(self):
        driver = self.driver()
        self.good(driver, "many", 1000, "text ")
        self.assertTrue(failed(driver.ask("flush", 10)))
        before = self.processor_time(driver)
        time.sleep(1)
        self.assertLess(self.processor_time(driver) - before, 0.3)
        self.assertRegex(self.end(driver), r"^log-driver: \d+ log entries were dropped\.\n$")

    def test_the_time_of_an_entry_that_has_waited(self):
        driver = self.driver()
        self.good(driver, "many", 1000, "text ")
        entries = [self.journal.entry() for _ in range(1000)]
        self.assertNotIn("QOR_TIME", entries[0])
        self.assertRegex(entries[-1]["QOR_TIME"].decode(), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")

    def test_the_journal_is_replaced(self):
        driver = self.driver()
        for i in range(3):
            self.good(driver, "many", 3, f"{i} ")
            self.assertEqual(self.texts(3), [f"{i} {j}" for j in range(3)])
            self.journal.close()
            self.good(driver, "many", 3, "meanwhile ")
            self.journal = self.daemon(JOURNAL)
            self.assertEqual(self.texts(3), [f"meanwhile {j}" for j in range(3)])

    def test_a_fork_with_entries_that_wait(self):
        driver = self.driver()
        self.good(driver, "many", 1000, "text ")
        # The child's entry waits until there is room; what waits in the parent is the parent's.
        driver.process.stdin.write("x" + b"fork".hex() + " x" + b"of the child".hex() + "\n")
        driver.process.stdin.flush()
        texts = self.texts(1001)
        self.assertEqual(driver.process.stdout.readline().split(), ["ok"])
        self.assertEqual(texts.count("of the child"), 1)
        texts.remove("of the child")
        self.assertEqual(texts, [f"text {i}" for i in range(1000)])
        self.assertIsNone(self.journal.next(0.5))

    def test_a_host_that_closes_its_descriptors(self):
        driver = self.driver()
        for i in range(3):
            self.good(driver, "text", INFO, "text")
            self.assertEqual(self.texts(1), ["text"])
            self.good(driver, "close")

    def test_a_thousand_changes_of_the_target_leave_nothing(self):
        driver = self.driver()
        with tempfile.TemporaryDirectory() as folder:
            counts = []
            for i in range(1000):
                for target in (f"{folder}/log", "system"):
                    self.good(driver, "target", target)
                    self.good(driver, "text", INFO, "text")
                self.assertEqual(self.texts(1), ["text"])
                if i in (10, 999):
                    process = Path(f"/proc/{driver.process.pid}")
                    memory = int((process / "statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
                    counts.append([*(len(os.listdir(process / name)) for name in ("fd", "task")), memory])
            self.assertEqual(counts[0][0], counts[1][0])
            if options.injector:  # sanitizers keep what was freed
                self.assertLess(counts[1][2] - counts[0][2], 1 << 20)
            self.assertLessEqual(counts[1][1], 3)  # one for a flood in a file, and one for a slow journal
            self.assertEqual(Path(folder, "log").read_text().count("\n"), 1000)
            self.assertEqual(os.listdir(folder), ["log"])


class Syslog(Inside):
    def test_the_form_is_that_of_the_c_library(self):
        daemon = self.daemon(SYSLOG)
        syslog.openlog("log-driver", syslog.LOG_PID, syslog.LOG_USER)
        driver = self.driver()
        for level in range(7):
            syslog.syslog(level, "a text: [1] %s")
            self.good(driver, "text", level, "a text: [1] %s")
            theirs, ours = daemon.next().rstrip(b"\0\n"), daemon.next()
            form = re.compile(rb"(<\d+>)[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d (log-driver\[)(\d+)(\]: .*)")
            theirs, ours = form.fullmatch(theirs), form.fullmatch(ours)
            self.assertEqual(ours.group(1, 2, 4), theirs.group(1, 2, 4))
            self.assertEqual(int(ours[3]), driver.process.pid)
        syslog.closelog()

    def test_the_time_is_local(self):
        daemon = self.daemon(SYSLOG)
        driver = self.driver({"TZ": "XYZ-5:30", "LC_ALL": "de_DE.UTF-8"})
        self.good(driver, "text", INFO, "text")
        shown = re.match(r"<14>(.{15}) ", daemon.next().decode())[1]
        there = time.gmtime(time.time() + 5.5 * 3600)
        month, day, clock = shown[:3], shown[4:6], shown[7:]
        self.assertIn(month, "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split())
        seconds = sum(int(part) * unit for part, unit in zip(clock.split(":"), (3600, 60, 1)))
        shift = (there.tm_hour * 3600 + there.tm_min * 60 + there.tm_sec - seconds) % 86400
        self.assertLess(shift, LONG, (shown, day))

    def test_the_journal_comes_first(self):
        daemon, journal = self.daemon(SYSLOG), self.daemon(JOURNAL)
        driver = self.driver()
        self.good(driver, "text", INFO, "text")
        self.assertEqual(journal.entry()["MESSAGE"], b"text")
        journal.close()
        self.good(driver, "text", INFO, "text")
        self.assertTrue(daemon.next().endswith(b": text"))


class Nobody(Inside):
    def test_is_said_once_and_the_entries_wait(self):
        driver = self.driver()
        self.good(driver, "many", 10, "text ")
        before = self.processor_time(driver)
        time.sleep(1)
        self.assertLess(self.processor_time(driver) - before, 0.2)
        said = self.said(driver)
        self.assertRegex(said, r"^log-driver: The system's log takes no entries: /dev/log: No such file or directory\. "
                               r"The first 4096 wait .*\n$")
        journal = self.daemon(JOURNAL)
        self.assertEqual([journal.entry()["MESSAGE"] for _ in range(10)], [b"text %d" % i for i in range(10)])
        self.assertEqual(self.end(driver), said)

    def test_at_the_end_the_loss_is_said_without_a_wait(self):
        driver = self.driver()
        self.good(driver, "many", 10, "text ")
        self.assertTrue(self.end(driver).endswith("\nlog-driver: 10 log entries were dropped.\n"))


class Faults(Inside):
    """Each system call of the way to the journal fails in turn."""

    CALLS = {"socket": [errno.EMFILE, errno.ENOBUFS], "fstat": [errno.EIO], "sendto": [errno.EAGAIN, errno.ENOBUFS,
             errno.EINTR, errno.ECONNREFUSED, errno.EPERM], "memfd_create": [errno.EMFILE, errno.ENOSYS],
             "write": [errno.ENOSPC, errno.EINTR, "short"], "sendmsg": [errno.EAGAIN, errno.EINTR, errno.ETOOMANYREFS]}

    def setUp(self):
        if not options.injector:
            self.skipTest("the injector works with no sanitizer")
        self.journal = self.daemon(JOURNAL)

    def test_each_entry_comes_or_is_counted(self):
        with tempfile.TemporaryDirectory() as folder:
            injector = linked(options.injector, folder)
            for call, failures in self.CALLS.items():
                for failure in failures:
                    at, fired = 1, True
                    while fired and at < 30:
                        report = Path(folder, "report")
                        report.unlink(missing_ok=True)
                        with self.subTest(call=call, failure=failure, at=at):
                            self.run_with({"LD_PRELOAD": str(injector), "QOR_INJECT": call, "QOR_INJECT_AT": str(at),
                                           "QOR_INJECT_WITH": str(failure), "QOR_INJECT_REPORT": str(report)})
                        fired = report.exists() and report.stat().st_size != 0
                        at += 1

    def run_with(self, environment):
        driver = Driver([options.driver], environment, stderr=subprocess.DEVNULL)
        texts = [b"one", b"x" * 400_000, b"three"]
        answers = [driver.ask("text", INFO, text) for text in texts]
        if None in answers:  # what failed was the binding, or the driver's own output
            try:
                driver.process.communicate()
            except BrokenPipeError:
                driver.process.stdout.close()
                driver.process.wait()
            self.assertNotEqual(driver.process.returncode, 0)
            while self.journal.next(0) is not None:
                pass
            return
        driver.ask("flush", LONG * 1000)
        dropped = driver.ask("dropped")
        driver.__exit__()
        self.assertEqual(driver.process.returncode, 0)
        found, told = [], 0
        while (fields := self.journal.entry(0)) is not None:
            if "QOR_DROPPED" in fields:
                told += int(fields["QOR_DROPPED"])
            else:
                found.append(fields["MESSAGE"])
        self.assertEqual(found, [text for text in texts if text in found])
        if dropped:
            self.assertEqual(len(found) + int(dropped[0]), len(texts))
            self.assertEqual(told, int(dropped[0]))


if __name__ == "__main__":
    signal.alarm(20 * LONG)
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--injector")
    options, rest = parser.parse_known_args()
    names = rest or ["Outside"]
    unittest.main(argv=[sys.argv[0], *names])
