#!/usr/bin/env python3
"""Debug information from debuginfod servers: from elfutils' own, and from one that misbehaves.

    fetch_test.py --places PROGRAM --compiler PROGRAM
"""

import argparse
import contextlib
import http.server
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

import places

SOURCE = Path(__file__).resolve().parent / "sample.cpp"
ID = "0123456789abcdef0123456789abcdef01234567"


class Handler(http.server.BaseHTTPRequestHandler):
    """Serves /buildid/ID/debuginfo from `files`. An event in place of the bytes keeps the client waiting until it is set."""

    files, asked = {}, []

    def do_GET(self):
        self.asked.append(self.path)
        content = self.files.get(self.path)
        if isinstance(content, threading.Event):
            content.wait(240)
            content = None
        with contextlib.suppress(BrokenPipeError):  # of a client that is gone
            self.send_response(404 if content is None else 200)
            self.send_header("Content-Length", str(len(content or b"")))
            self.end_headers()
            self.wfile.write(content or b"")

    def log_message(self, *_):
        pass


class Fetch(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.built = Path(folder.name).resolve()
        whole = cls.built / "whole.so"
        subprocess.run([options.compiler, "-std=c++17", "-O2", "-g", "-fPIC", "-shared", f"-Wl,--build-id=0x{ID}", SOURCE,
                        "-o", whole], check=True)
        subprocess.run(["strip", "-o", cls.built / "sample.so", whole], check=True)
        subprocess.run(["objcopy", "--only-keep-debug", whole, cls.built / "sample.debug"], check=True)
        symbols = subprocess.run(["nm", whole], stdout=subprocess.PIPE, text=True, check=True).stdout
        cls.entry = int(re.search(r"^(\w+) T sample_entry$", symbols, re.MULTILINE)[1], 16)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.handler = type("Own", (Handler,), {"files": {}, "asked": []})
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), self.handler)
        server.daemon_threads = True
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        self.addCleanup(server.server_close)
        self.addCleanup(thread.join)
        self.addCleanup(server.shutdown)
        self.url = f"http://127.0.0.1:{server.server_port}"
        self.module = places.Module(self.built / "sample.so", [self.entry], build_id=ID)
        self.path = f"/buildid/{ID}/debuginfo"

    def environment(self, url):
        result = {"HOME": str(self.folder), "DEBUGINFOD_CACHE_PATH": str(self.folder / "cache")}
        return {**result, "DEBUGINFOD_URLS": url} if url is not None else result

    def ask(self, *words, url=None, modules=None):
        return places.ask(options.places, modules or [self.module], f"debug={self.folder}", *words,
                          environment=self.environment(url))

    def check_fetched(self, found, url):
        answer = found.modules[0]
        self.assertEqual((answer.status, [place.file for place in answer.places[self.entry]]), ("ok", [str(SOURCE)]),
                         (answer, found.messages))
        self.assertIn(f"fetching {url}\n", found.messages)
        self.assertTrue(answer.server.startswith(url) or answer.server.startswith("file://"), answer.server)
        self.assertTrue(answer.file.startswith(str(self.folder / "cache")), answer.file)

    def test_nothing_is_asked_unless_the_user_wants_it(self):
        self.handler.files[self.path] = (self.built / "sample.debug").read_bytes()
        for url, words in ((None, []), ("", []), (self.url, ["fetch=0"])):
            found = self.ask(*words, url=url)
            self.assertEqual((found.modules[0].status, self.handler.asked), ("no_debug_information", []))
            self.assertNotIn("fetching", found.messages)
        self.assertFalse((self.folder / "cache").exists())

    def test_a_fetched_file(self):
        self.handler.files[self.path] = (self.built / "sample.debug").read_bytes()
        found = self.ask(url=self.url)
        self.check_fetched(found, self.url)
        self.assertEqual((found.modules[0].server, self.handler.asked), (self.url + self.path, [self.path]))
        # The file of the recording may be missing then, and the next time the server is not asked.
        gone = places.Module("/nowhere/sample.so", [self.entry], build_id=ID)
        self.check_fetched(self.ask(url=self.url, modules=[gone]), self.url)
        self.assertEqual(self.handler.asked, [self.path])

    def test_elfutils_own_server(self):
        """It listens on all addresses, so it has a network of its own, and the program that asks is in there with it."""
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        script = f"""
            ip link set lo up
            # A server asks others itself, if the variable names them.
            env -u DEBUGINFOD_URLS debuginfod -p {port} -d {self.folder}/database.sqlite -F {self.built} >{self.folder}/server 2>&1 &
            server=$!
            trap 'kill $server; wait $server' EXIT
            for i in $(seq 300); do
                [ "$(debuginfod-find debuginfo {ID} 2>/dev/null)" ] && break
                rm -rf {self.folder}/cache
                sleep 0.2
            done
            rm -rf {self.folder}/cache
            {options.places} debug={self.folder}
        """
        url = f"http://127.0.0.1:{port}"
        enter = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
        if subprocess.run([*enter, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
            self.skipTest("this system lets no program have a network of its own")
        wrapper = self.folder / "wrapper"
        wrapper.write_text("#!/bin/sh\nexec " + " ".join(enter) + f" sh -c '. {self.folder}/script'\n")
        (self.folder / "script").write_text(script)
        wrapper.chmod(0o755)
        environment = {**self.environment(url), "PATH": "/usr/sbin:/sbin:/usr/bin:/bin"}
        self.check_fetched(places.ask(wrapper, [self.module], environment=environment), url)

    def test_servers_that_have_something_else(self):
        whole = (self.built / "sample.debug").read_bytes()
        for content in (None, b"", b"<html>", whole[:len(whole) // 2], whole.replace(bytes.fromhex(ID), bytes(20))):
            with self.subTest(content and len(content)):
                self.handler.files[self.path] = content
                found = self.ask(url=self.url)
                answer = found.modules[0]
                self.assertNotEqual((answer.status, answer.reason), ("damaged", "exit code 1"))
                self.assertEqual([place.file for place in answer.places[self.entry]], [""])
                with contextlib.suppress(FileNotFoundError):
                    subprocess.run(["rm", "-rf", self.folder / "cache"], check=True)

    def test_a_server_that_does_not_answer(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            url = f"http://127.0.0.1:{closed.getsockname()[1]}"
            found = self.ask(url=url)
        self.assertEqual(found.modules[0].status, "no_debug_information")
        self.assertNotEqual(found.modules[0].reason, "")

    def test_the_limit_of_time(self):
        waits = threading.Event()
        self.addCleanup(waits.set)
        self.handler.files[self.path] = waits
        # A second module that misses something does not wait again.
        modules = [self.module] * 5
        found = self.ask("fetch-time=1", "processes=1", url=self.url, modules=modules)
        self.assertEqual({answer.status for answer in found.modules}, {"no_debug_information"})
        self.assertEqual(found.modules[0].reason, os.strerror(110))
        self.assertEqual(len(self.handler.asked), 1)
        self.assertEqual(found.messages.count("fetching"), 1)

    # ---- what befalls the process that reads

    @contextlib.contextmanager
    def waiting_reader(self, *words):
        """Yields a function that returns the answers, and the process that waits for the server."""
        waits = threading.Event()
        self.addCleanup(waits.set)
        self.handler.files[self.path] = waits
        other = places.Module(self.built / "whole.so", [self.entry], build_id=ID)
        result = []
        thread = threading.Thread(target=lambda: result.append(
            self.ask("processes=1", *words, url=self.url, modules=[self.module, other])))
        thread.start()
        try:
            while not self.handler.asked and thread.is_alive():
                time.sleep(0.02)
            reader, = [int(path.name) for path in Path("/proc").glob("[0-9]*") if self.is_reader(path)]

            def answers():
                thread.join()
                return result[0].modules
            yield answers, reader
        finally:
            thread.join()

    def is_reader(self, process):
        """Whether it is a `places` that is a child of a `places` of this test."""
        try:
            parent = re.search(r"^PPid:\s+(\d+)$", (process / "status").read_text(), re.MULTILINE)[1]
            grandparent = re.search(r"^PPid:\s+(\d+)$", Path(f"/proc/{parent}/status").read_text(), re.MULTILINE)[1]
            return int(grandparent) == os.getpid()
        except (OSError, TypeError):
            return False

    def test_a_reader_that_ends_costs_the_symbols_of_one_file(self):
        for number in (signal.SIGSEGV, signal.SIGKILL, signal.SIGBUS):
            with self.subTest(number):
                self.handler.asked.clear()
                with self.waiting_reader() as (answers, reader):
                    os.kill(reader, number)
                    one, other = answers()
                self.assertEqual((one.status, one.reason, one.places), ("damaged", signal.strsignal(number), {self.entry: []}))
                self.assertEqual((other.status, other.places[self.entry][0].file), ("ok", str(SOURCE)))

    def test_a_reader_that_does_not_go_on(self):
        with self.waiting_reader("file-time=1", "fetch-time=1") as (answers, reader):
            os.kill(reader, signal.SIGSTOP)
            one, other = answers()
        self.assertEqual((one.status, one.places), ("too_slow", {self.entry: []}))
        self.assertEqual(other.status, "ok")


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--places", required=True)
    parser.add_argument("--compiler", default="g++")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
