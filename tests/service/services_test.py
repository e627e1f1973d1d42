#!/usr/bin/env python3
"""Services of a mocked manager, on a bus of the test's own: services_test.py --driver PROGRAM [--instrumented]"""

import argparse
import os
import shutil
import sys
import threading
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode  # noqa: E402  # in tests/support
from mocked_manager import Bus, Manager  # noqa: E402
from tool import public_folder  # noqa: E402

options = None

UNKNOWN, NO_MANAGER, MASKED, NO_RIGHT, FAILED = 250, 251, 252, 253, 254
TIMEOUT, REFUSED, LOST, NAME = 256, 257, 258, 259
STATES = ["unknown", "inactive", "activating", "active", "reloading", "deactivating", "failed", "paused"]
ENDS = ["none", "exited", "killed", "reported"]
SYSTEM, USER = 0, 1


class Status:
    def __init__(self, words):
        self.state, self.end = STATES[int(words[0])], ENDS[int(words[3])]
        self.masked, self.process, self.code = words[1] == "1", int(words[2]), int(words[4])
        self.name, self.description, self.detail, self.result, *self.lines = (
            decode(word).decode() for word in words[5:])


class Mocked(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.bus = Bus()
        cls.addClassCleanup(cls.bus.end)
        cls.manager = None

    def setUp(self):
        if self.manager is None or self.manager.process.poll() is not None:
            self.restart()
        self.driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": self.bus.address})

    def restart(self):
        cls = type(self)
        if cls.manager is not None:
            cls.manager.end()
        cls.manager = Manager(self.bus)
        cls.addClassCleanup(cls.manager.end)

    def drive(self, environment):
        driver = Driver([options.driver], environment={"LC_ALL": "C", **environment})
        self.addCleanup(driver.__exit__)
        return driver

    def status(self, driver=None):
        return Status((driver or self.driver).ask("status"))

    def good(self, *words):
        answer = self.driver.ask(*words)
        self.assertEqual(answer, [], words)
        return self.status()

    def bad(self, number, *words):
        answer = self.driver.ask(*words)
        self.assertIsInstance(answer, tuple, words)
        self.assertEqual(answer[0], number, answer)
        return answer[1]


class Services(Mocked):
    def test_exist(self):
        status = self.good("exists", "resting")
        self.assertEqual((status.name, status.description, status.state, status.detail, status.masked),
                         ("resting.service", "The unit resting", "inactive", "dead", False))
        for name in "quick.service", "cups.socket", "instance@", "instance@.service", "instance@one", "deleted":
            self.good("exists", name)
        self.assertTrue(self.good("exists", "masked").masked)
        self.assertTrue(self.good("exists", "masked@").masked)
        self.assertEqual(self.good("exists", "odd\\x2dname:a_b.c").name, "odd\\x2dname:a_b.c.service")

    def test_do_not_exist(self):
        for name in "nothing", "nothing.service", "nothing@", "cups", "nothing.socket":
            self.assertEqual(self.bad(0, "exists", name), "There is no error to report.")
            self.assertEqual(self.status().name, "")
        self.assertEqual(self.bad(UNKNOWN, "start", "nothing"), "There is no service 'nothing.service'.")
        self.bad(UNKNOWN, "stop", "nothing")
        self.bad(UNKNOWN, "start", "gone-meanwhile")

    def test_names(self):
        for name in "", "a b", "a/b", "/dev/sda", "\u00e4", "a\n", "@", "@one", ".service", "a" * 250, "a\x1b":
            for operation in "exists", "start", "stop":
                self.assertIn("cannot be the name of a service", self.bad(NAME, operation, name))
        self.assertIn("'instance@NAME.service'", self.bad(NAME, "start", "instance@"))
        self.bad(0, "exists", "a" * 247)

    def test_start_and_stop(self):
        status = self.good("start", "quick")
        self.assertEqual((status.state, status.detail, status.process), ("active", "running", 4711))
        self.assertEqual(self.good("start", "quick").state, "active")
        status = self.good("stop", "quick.service")
        self.assertEqual((status.state, status.process), ("inactive", 0))
        self.assertEqual(self.good("stop", "quick").state, "inactive")
        for name in "slow", "early", "flood", "odd-signal", "instance@one", "odd\\x2dname:a_b.c":
            self.assertEqual(self.good("start", name).state, "active")
            self.assertEqual(self.good("stop", name).state, "inactive")
        for name in "oneshot", "skipped":
            self.assertEqual(self.good("start", name).state, "inactive")
        self.assertEqual(self.good("stop", "deleted").state, "inactive")
        self.assertEqual(self.good("stop", "masked").state, "inactive")

    def test_another_process_cannot_end_the_wait(self):
        self.assertEqual(self.good("start", "foreign").state, "active")

    def test_failures_have_reasons(self):
        for name, reason, state, end, code, result in [
                ("exits", "its main process ended with exit code 3", "failed", "exited", 3, "exit-code"),
                ("killed", "SIGKILL ended its main process", "failed", "killed", 9, "signal"),
                ("dumped", "SIGSEGV ended its main process", "failed", "killed", 11, "core-dump"),
                ("before", "the service manager says 'exit-code'", "failed", "none", 0, "exit-code"),
                ("late", "its main process ended with exit code 1", "failed", "exited", 1, "exit-code"),
                ("again", "its main process ended with exit code 203", "activating", "exited", 203, "exit-code"),
                ("limit", "the service manager says 'start-limit-hit'", "failed", "none", 0, "start-limit-hit"),
                ("times-out", "the service manager says 'timeout'", "failed", "none", 0, "timeout"),
                ("dependent", "something that it needs could not be started", "inactive", "none", 0, ""),
                ("canceled", "the service manager says 'canceled'", "inactive", "none", 0, "exit-code")]:
            with self.subTest(name=name):
                self.assertEqual(self.bad(FAILED, "start", name), f"The service '{name}.service' has failed: {reason}.")
                status = self.status()
                self.assertEqual((status.state, status.end, status.code, status.result), (state, end, code, result))
        self.assertEqual(self.good("stop", "killed").state, "failed")  # stopped, if not gently

    def test_what_cannot_start(self):
        self.bad(MASKED, "start", "masked")
        self.assertTrue(self.status().masked)
        self.bad(MASKED, "start", "masked-meanwhile")
        self.assertIn("bad unit file setting", self.bad(REFUSED, "start", "broken"))
        self.assertIn("AccessDenied", self.bad(REFUSED, "start", "unreadable"))
        self.assertIn("dependency only", self.bad(REFUSED, "start", "only-by-dependency"))
        self.assertIn("org.example.Strange", self.bad(REFUSED, "stop", "wordless"))
        self.assertIn("the unit is bad", self.bad(REFUSED, "exists", "no-answer-to-load"))

    def test_no_right(self):
        for name, text in ("denied", "Permission denied"), ("asks", "Interactive authentication required"):
            for operation in "start", "stop":
                self.assertEqual(self.bad(NO_RIGHT, operation, name),
                                 f"This user may not do that with the service '{name}.service': {text}.")

    def test_texts_of_the_manager_are_harmless(self):
        text = self.bad(REFUSED, "start", "control")
        self.assertFalse([c for c in text if ord(c) < 32])
        self.assertLess(len(text), 700)
        self.assertNotIn("\ufffd", text)
        self.assertLess(len(self.good("exists", "long").description), 700)

    def test_answers_of_another_form(self):
        self.bad(LOST, "exists", "wrong-types")
        self.bad(LOST, "start", "wrong-types")
        status = self.good("exists", "wrong-some")
        self.assertEqual((status.name, status.state, status.end, status.process),
                         ("wrong-some.service", "inactive", "none", 0))
        self.assertEqual(self.good("start", "no-id").name, "no-id.service")

    def test_time_limit(self):
        self.assertEqual(self.bad(TIMEOUT, "start", "stuck", SYSTEM, 200),
                         "After 200 ms the state of the service 'stuck.service' was still 'activating'. "
                         "The request goes on.")
        self.assertEqual(self.status().state, "activating")
        self.assertIn("it does not answer", self.bad(LOST, "start", "silent", SYSTEM, 200))
        self.good("start", "quick", SYSTEM, 0)

    def test_a_manager_that_ends(self):
        for name in "leaves", "dies":
            self.assertIn("it closed the connection", self.bad(LOST, "start", name))
            self.assertIn("org.freedesktop.systemd1", self.bad(NO_MANAGER, "start", name))
            self.assertIn("org.freedesktop.systemd1", self.bad(NO_MANAGER, "exists", name))
            self.restart()
            self.good("start", "quick")

    def test_a_bus_that_ends(self):
        bus = Bus()
        manager = Manager(bus)
        driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": bus.address})
        answers = []
        thread = threading.Thread(target=lambda: answers.append(driver.ask("start", "stuck", SYSTEM, 0)))
        thread.start()
        # Ended when the request is under way: then the unit is activating.
        while Status((self.looking(bus))).state != "activating":
            pass
        bus.end()
        manager.end()
        thread.join()
        self.assertEqual(answers[0][0], LOST)
        self.assertEqual(driver.ask("start", "quick")[0], NO_MANAGER)

    def looking(self, bus):
        driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": bus.address})
        self.assertEqual(driver.ask("exists", "stuck"), [])
        return driver.ask("status")


class Managers(Mocked):
    def test_of_the_user(self):
        nowhere = "unix:path=/nowhere/bus"
        driver = self.drive({"DBUS_SESSION_BUS_ADDRESS": self.bus.address, "DBUS_SYSTEM_BUS_ADDRESS": nowhere})
        self.assertEqual(driver.ask("start", "user", USER), [])
        self.assertEqual(self.status(driver).state, "active")
        number, text = driver.ask("start", "user", SYSTEM)
        self.assertEqual((number, text), (NO_MANAGER, f"There is no service manager to ask: '{nowhere}': "
                                                      "No such file or directory."))

    def test_of_the_user_in_the_runtime_folder(self):
        folder = public_folder()
        self.addCleanup(folder.cleanup)
        place = Path(folder.name, "a folder;,=%")
        place.mkdir()
        (place / "bus").symlink_to(self.bus.address.split("=")[1].split(",")[0])
        environment = {"XDG_RUNTIME_DIR": str(place), "DBUS_SESSION_BUS_ADDRESS": ""}
        driver = self.drive(environment)
        self.assertEqual(driver.ask("start", "user", USER), [])
        (place / "bus").unlink()
        self.assertEqual(driver.ask("start", "user", USER)[0], NO_MANAGER)

    def test_addresses_that_are_not_followed(self):
        with_file = Path(self.bus.folder.name, "started")
        for address in [f"unixexec:path=/usr/bin/touch,argv1={with_file}", "tcp:host=localhost,port=1",
                        f"unix:path=/nowhere;unixexec:path=/usr/bin/touch,argv1={with_file}", "autolaunch:", "nonsense",
                        ";", "unix:", "unix:path=/nowhere;", "x-machine-unix:pid=1"]:
            driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": address})
            for operation in "exists", "start", "stop":
                self.assertEqual(driver.ask(operation, "quick")[0], NO_MANAGER, address)
        self.assertFalse(with_file.exists())
        # The first that works is taken.
        driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere;" + self.bus.address})
        self.assertEqual(driver.ask("exists", "quick"), [])

    def test_a_bus_without_a_manager(self):
        bus = Bus()
        self.addCleanup(bus.end)
        driver = self.drive({"DBUS_SYSTEM_BUS_ADDRESS": bus.address})
        for operation in "exists", "start", "stop":
            self.assertEqual(driver.ask(operation, "quick")[0], NO_MANAGER)

    def test_a_program_with_more_rights_ignores_the_environment(self):
        if os.geteuid() != 0:
            self.skipTest("only root can make such a program of another user")
        folder = public_folder()
        self.addCleanup(folder.cleanup)
        program = Path(folder.name, "driver")
        shutil.copy(options.driver, program)
        shutil.copy(Path(options.driver).parent / "libqor.so", folder.name)
        shutil.copytree(Path(options.driver).parent / "qor", Path(folder.name, "qor"))
        environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.bus.address, "DBUS_SESSION_BUS_ADDRESS": self.bus.address,
                       "XDG_RUNTIME_DIR": "/nowhere"}
        for manager in SYSTEM, USER:
            driver = Driver([program], environment=environment)
            self.assertEqual(driver.ask("exists", "quick", manager), [])
            driver.__exit__()
        os.chown(program, 65534, 65534)
        program.chmod(0o6755)
        if os.statvfs(folder.name).f_flag & os.ST_NOSUID:
            self.skipTest("this file system gives programs no rights")
        for manager, place in (SYSTEM, "/run/dbus/system_bus_socket"), (USER, "/run/user/65534/bus"):
            driver = Driver([program], environment=environment)
            answer = driver.ask("exists", "quick", manager)
            # A host may have a bus there, and on it no such service.
            if answer[0] == NO_MANAGER and "systemd1" not in answer[1]:
                self.assertIn(place, answer[1])
            else:
                self.assertNotEqual(answer, [])
            driver.__exit__()


class Load(Mocked):
    def leftovers(self):
        process = Path(f"/proc/{self.driver.process.pid}")
        memory = int((process / "statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
        return len(os.listdir(process / "fd")), len(os.listdir(process / "task")), memory

    def test_a_thousand_leave_nothing(self):
        self.assertEqual(self.driver.ask("many", "quick", 50), ["100"])
        before = self.leftovers()
        self.assertEqual(self.driver.ask("many", "quick", 1000), ["2000"])
        after = self.leftovers()
        self.assertEqual(after[:2], before[:2])
        if not options.instrumented:
            self.assertLess(after[2] - before[2], 1 << 20)

    def test_threads(self):
        self.assertEqual(self.driver.ask("threads", "quick", 8), ["160"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--instrumented", action="store_true")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
