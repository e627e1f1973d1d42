#!/usr/bin/env python3
"""Records servers while clients keep them busy.

    servers_test.py --bin FOLDER --record PROGRAM --tool QORTOOL

A C++ server with threads, of this tree, which loses its sessions. In ./test load more of it, and PostgreSQL with ten
clients; that is skipped where PostgreSQL is not installed.
"""

import argparse
import collections
import glob
import os
import pathlib
import pwd
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

import recorded_runs
import symbols

CLIENTS = 10


class Servers(recorded_runs.RecordedRuns):
    def in_threads(self, work):
        """Lets each client do its work; an exception of one of them is raised here."""
        failed = []

        def run(number):
            try:
                work(number)
            except Exception as error:  # pylint: disable=broad-except
                failed.append(error)
        threads = [threading.Thread(target=run, args=(number,)) for number in range(CLIENTS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if failed:
            raise failed[0]

    def test_a_server_that_loses_its_sessions(self):
        sessions = 400 if recorded_runs.longer() else 40
        libraries = self.with_libraries("counting.so", COUNTING=self.folder / "counts")
        with self.start(*libraries, self.options.bin / "session_server", stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                        stderr=subprocess.PIPE, text=True) as server:
            port = int(server.stdout.readline())

            def client(number):
                for i in range(sessions):
                    with socket.create_connection(("127.0.0.1", port), timeout=120) as connection:
                        stream = connection.makefile("rw", newline="\n")
                        stream.write(f"user {number} with a long name\n")
                        for key in range(5):
                            stream.write(f"{key}=the value {key} of session {i} of {number}\n{key}\n")
                            stream.flush()
                            self.assertEqual(stream.readline(), "kept\n")
                            self.assertEqual(stream.readline(), f"the value {key} of session {i} of {number}\n")
                        stream.write("\n")
                        stream.flush()
            self.in_threads(client)
            _, errors = server.communicate()
        self.assertEqual(server.returncode, 0, errors)
        recording = self.recording()
        (counted,) = self.folder.glob("counts.*")
        self.assertEqual(self.counts(recording), struct.unpack("=3Q", counted.read_bytes()))
        self.assertEqual(recording.bad[:5], [])
        self.assert_same(self.by_both("log.mtrace"), sorted((address, record.size) for address, record in recording.alive.items()))
        # Each lost session and the name of its user, from the one line.
        with_function = collections.Counter()
        addr2line = symbols.Addr2line()
        self.addCleanup(addr2line.close)
        source = (pathlib.Path(__file__).parent / "programs/session_server.cpp").read_text().splitlines()
        line = next(number for number, text in enumerate(source, 1) if text.endswith("// the leak"))
        for leak in symbols.recorded_leaks(recording, addr2line):
            for place in leak.within(self.options.bin):
                if place.function == "make_session":
                    with_function[place.line, leak.size > 2000] += 1
        self.assertEqual(with_function, {(line, True): CLIENTS * sessions, (line, False): CLIENTS * sessions})

    @unittest.skipUnless(recorded_runs.longer(), "only in ./test load")
    def test_postgresql(self):
        """The postmaster, its background processes and the backend of each client have logs of their own."""
        programs = max(glob.glob("/usr/lib/postgresql/*/bin"), default=None)
        if programs is None:
            self.skipTest("PostgreSQL is not installed")
        user = {}
        if os.geteuid() == 0:
            # It does not run as root.
            owner = pwd.getpwnam("nobody")
            user = {"user": owner.pw_uid, "group": owner.pw_gid}
            os.chown(self.folder, owner.pw_uid, owner.pw_gid)
        data = self.folder / "data"
        self.environment["PATH"] = f"{programs}:/usr/bin:/bin"

        def run(*words, **more):
            return subprocess.run(words, cwd=self.folder, env=self.environment, check=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True, **user, **more).stdout
        run(f"{programs}/initdb", "-D", data, "-U", "tester", "-A", "trust", "--no-sync")
        at = ["-h", str(self.folder), "-U", "tester", "postgres"]
        with self.start(f"{programs}/postgres", "-D", data, "-k", self.folder, "-c", "listen_addresses=", "-F",
                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **user) as server:
            while subprocess.run([f"{programs}/pg_isready", "-q", *at[:2]], env=self.environment, check=False).returncode != 0:
                self.assertIsNone(server.poll())
                time.sleep(0.2)
            run(f"{programs}/pgbench", "-q", "-i", "-s", "1", *at)
            done = run(f"{programs}/pgbench", "-c", str(CLIENTS), "-j", "2", "-t", "200", *at)
            self.assertIn(f"{CLIENTS * 200}/{CLIENTS * 200}", done)
            server.send_signal(signal.SIGINT)  # the fast way to end
            errors = server.communicate()[1]
        self.assertEqual(server.returncode, 0, errors)
        logs = self.logs()
        self.assertGreater(len(logs), CLIENTS)
        children = 0
        for name in logs:
            recording = self.recording(name)
            self.assertEqual(recording.bad[:5], [], name)
            self.assert_same(self.by_both(name), sorted((address, record.size) for address, record in recording.alive.items()))
            # A forked child begins with what it inherited.
            children += bool(recording.stacks.inherited)
        self.assertGreater(children, CLIENTS)


def main():
    parser = argparse.ArgumentParser()
    rest = recorded_runs.parse(parser)
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
