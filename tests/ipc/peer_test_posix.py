#!/usr/bin/env python3
"""Messages between processes: a peer in Python, in both roles, written from docs/messages-between-processes.md alone."""
import argparse
import os
import random
import socket
import struct
import subprocess
import tempfile
import time
import unittest

options = argparse.ArgumentParser(description=__doc__)
options.add_argument("--driver", required=True)
arguments, rest = options.parse_known_args()

MESSAGE, ALIVE, END, ARRIVED, HELLO, REFUSED = range(6)
LONG = 120  # seconds, only against hanging


class Peer:
    def __init__(self, connection, longest=1 << 20, silence=0):
        self.socket = connection
        self.socket.settimeout(LONG)
        self.longest, self.silence = longest, silence

    def put(self, kind, payload=b""):
        self.socket.sendall(struct.pack("<II", len(payload), kind) + payload)

    def put_hello(self):
        self.put(HELLO, b"qmsg" + struct.pack("<III", 1, self.longest, self.silence))

    def exactly(self, length):
        parts = b""
        while len(parts) < length:
            part = self.socket.recv(length - len(parts))
            if not part:
                raise EOFError
            parts += part
        return parts

    def get(self):
        while True:
            length, kind = struct.unpack("<II", self.exactly(8))
            payload = self.exactly(length)
            if kind != ALIVE:
                return kind, payload

    def get_hello(self):
        kind, payload = self.get()
        magic, version, longest, silence = struct.unpack("<4sIII", payload)
        assert (kind, magic, version) == (HELLO, b"qmsg", 1), (kind, payload)
        return longest, silence


class Messages(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.path = self.folder.name + "/socket"

    def tearDown(self):
        self.folder.cleanup()

    def serve(self, *words):
        server = subprocess.Popen([arguments.driver, "serve", "unix:" + self.path, *words], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, text=True)
        self.addCleanup(server.stdout.close)
        self.assertEqual(server.stdout.readline(), "ready\n")
        return server

    def connect(self, **limits):
        connection = socket.socket(socket.AF_UNIX)
        connection.connect(self.path)
        self.addCleanup(connection.close)
        peer = Peer(connection, **limits)
        peer.put_hello()
        self.assertEqual(peer.get_hello()[0], 16 << 20)
        return peer

    def end(self, server):
        server.stdin.close()
        self.assertEqual(server.wait(LONG), 0)

    def test_as_a_client(self):
        server = self.serve()
        peer = self.connect()
        self.assertEqual(server.stdout.readline(), f"peer {os.getuid()} {os.getpid()}\n")
        choice = random.Random(1)
        for _ in range(200):
            message = choice.randbytes(choice.choice([0, 1, 100, 70000, choice.randrange(300000)]))
            peer.put(MESSAGE, message)
            self.assertEqual(peer.get(), (MESSAGE, message))
        peer.put(END)
        self.assertEqual(peer.get(), (ARRIVED, b""))
        self.assertEqual(server.stdout.readline(), "closed\n")
        self.end(server)

    def test_many_frames_in_one_piece_and_in_small_ones(self):
        server = self.serve()
        peer = self.connect()
        messages = [bytes([i % 256]) * i for i in range(300)]
        peer.socket.sendall(b"".join(struct.pack("<II", len(m), MESSAGE) + m for m in messages))
        for message in messages:
            self.assertEqual(peer.get(), (MESSAGE, message))
        for message in messages[:40]:
            for byte in struct.pack("<II", len(message), MESSAGE) + message:
                peer.socket.sendall(bytes([byte]))
        for message in messages[:40]:
            self.assertEqual(peer.get(), (MESSAGE, message))
        peer.socket.close()
        server.stdout.readline()  # the peer
        self.assertEqual(server.stdout.readline(), "lost\n")
        self.end(server)

    def test_the_server_closes(self):
        server = self.serve()
        peer = self.connect()
        server.stdin.close()
        self.assertEqual(peer.get(), (END, b""))
        peer.put(ARRIVED)
        server.stdout.readline()
        self.assertEqual(server.stdout.readline(), "closed here\n")
        self.assertEqual(server.wait(LONG), 0)
        self.assertEqual(os.listdir(self.folder.name), [])

    def test_silence(self):
        server = self.serve("300")
        lively = self.connect()
        self.connect()  # says no more
        server.stdout.readline()
        server.stdout.readline()
        begin = time.monotonic()
        while time.monotonic() - begin < 1:
            lively.put(ALIVE)
            time.sleep(0.03)
        lively.put(MESSAGE, b"here")
        self.assertEqual(lively.get(), (MESSAGE, b"here"))
        self.assertEqual(server.stdout.readline(), "silent\n")
        lively.put(END)
        self.assertEqual(lively.get(), (ARRIVED, b""))
        self.end(server)

    def test_as_a_server(self):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(self.path)
        listener.listen()
        self.addCleanup(listener.close)
        client = subprocess.Popen([arguments.driver, "send", "unix:" + self.path, "300"], stdout=subprocess.PIPE,
                                  text=True)
        self.addCleanup(client.stdout.close)
        peer = Peer(listener.accept()[0])
        self.addCleanup(peer.socket.close)
        self.assertEqual(peer.get_hello(), (16 << 20, 15000))
        peer.put_hello()
        for _ in range(300):
            kind, payload = peer.get()
            self.assertEqual(kind, MESSAGE)
            peer.put(MESSAGE, payload)
        self.assertEqual(peer.get(), (END, b""))
        peer.put(ARRIVED)
        self.assertEqual(client.stdout.readline(), "same\n")
        self.assertEqual(client.wait(LONG), 0)

    def test_a_server_that_refuses(self):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(self.path)
        listener.listen()
        self.addCleanup(listener.close)
        for reason, text in ((1, "as many connections"), (2, "does not want it"), (77, "does not want it")):
            client = subprocess.Popen([arguments.driver, "send", "unix:" + self.path, "1"], stderr=subprocess.PIPE,
                                      text=True)
            peer = Peer(listener.accept()[0])
            peer.get_hello()
            peer.put(REFUSED, struct.pack("<I", reason))
            self.assertIn(text, client.stderr.read())
            client.stderr.close()
            self.assertEqual(client.wait(LONG), 1)
            peer.socket.close()


if __name__ == "__main__":
    unittest.main(argv=["peer_test_posix.py", *rest], verbosity=2)
