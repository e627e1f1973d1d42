#!/usr/bin/python3
"""An independent client of debug control, written from docs/debug-control.md only.

usage: stranger.py HOST PORT USER KNOWN_HOSTS COMMAND...

Standard input holds passwords, one a line: they are tried until one is accepted. Each refusal prints a line "refused"
on standard output. Then the commands are carried out, and the lists are printed one name a line:

    all, enabled          the trace codes of the process; those that are on
    on:NAME, off:NAME     switches the code with that name
    none                  switches all codes off
    stay:COUNT            only keeps the connection until this number of heartbeats has come

A request that the listener refuses prints "cannot". If KNOWN_HOSTS has no key for the host and port, it is added after
the login. If the session ends early, the exit code is 1, with the reason on standard error.
"""

import base64
import hashlib
import hmac
import secrets
import select
import socket
import struct
import sys
import time
from pathlib import Path

from OpenSSL import SSL, crypto

PROTOCOL = b"qor-debug/1"
HEADER = struct.Struct(">IHHI")  # length of the payload, type, zero, request
LOGIN_FIRST, LOGIN_LAST, ALL, ENABLED, SWITCH, NONE, HEARTBEAT, REFUSAL = 1, 2, 3, 4, 5, 6, 0x10, 0xFF
ANSWER = 0x80
CREDENTIALS = 1  # the reason of a refusal after which another login may begin
MOST_PAYLOAD = 65536
HANDSHAKE, QUIET, DEAD = 5, 5, 15  # seconds


class Ended(Exception):
    """The connection has ended, with the reason."""


class Refused(Exception):
    """The listener's answer to one request; `reason` is its number."""

    def __init__(self, reason):
        super().__init__(f"refused: {reason}")
        self.reason = reason


class Channel:
    """TLS with frames on it. It sends and receives heartbeats while waiting for other frames."""

    def __init__(self, host, port):
        context = SSL.Context(SSL.TLS_METHOD)
        context.set_min_proto_version(SSL.TLS1_3_VERSION)
        context.set_alpn_protos([PROTOCOL])
        try:
            self.socket = socket.create_connection((host, port), HANDSHAKE)
        except OSError as error:
            raise Ended(f"no connection: {error}") from None
        self.socket.setblocking(False)
        self.tls = SSL.Connection(context, self.socket)
        self.tls.set_connect_state()
        self.request = self.heartbeats = 0
        self.received = b""
        end = time.monotonic() + HANDSHAKE
        self.carry_out(lambda: end, self.tls.do_handshake)
        if self.tls.get_alpn_proto_negotiated() != PROTOCOL:
            raise Ended("the other side speaks another protocol")
        self.sent = self.heard = time.monotonic()

    def carry_out(self, look_at_clock, operation, *words):
        """Calls `operation` until it succeeds. `look_at_clock` returns when it wants to be called again; after the
        limit the other side is dead."""
        while True:
            try:
                return operation(*words)
            except SSL.WantReadError:
                directions = ([self.socket], [])
            except SSL.WantWriteError:
                directions = ([], [self.socket])
            except SSL.ZeroReturnError:
                raise Ended("the other side ended the connection") from None
            except (SSL.Error, OSError) as error:
                raise Ended(f"connection lost: {error}") from None
            wait = look_at_clock() - time.monotonic()
            if wait <= 0:
                raise Ended("the other side is dead")
            select.select(*directions, [], wait)

    def stay_alive(self):
        if time.monotonic() >= self.sent + QUIET:
            self.send(HEARTBEAT, 0)
        return min(self.heard + DEAD, self.sent + QUIET)

    def send(self, kind, request, payload=b""):
        self.sent = time.monotonic()
        self.carry_out(lambda: self.heard + DEAD, self.tls.sendall,
                       HEADER.pack(len(payload), kind, 0, request) + payload)

    def receive(self):
        """Returns the next frame: type, request, payload."""
        while True:
            length = 0
            if len(self.received) >= HEADER.size:
                length, kind, zero, request = HEADER.unpack_from(self.received)
                if length > MOST_PAYLOAD or zero:
                    raise Ended("that is no frame")
            if len(self.received) >= HEADER.size + length:
                payload = self.received[HEADER.size:HEADER.size + length]
                self.received = self.received[HEADER.size + length:]
                self.heartbeats += kind == HEARTBEAT
                return kind, request, payload
            self.received += self.carry_out(self.stay_alive, self.tls.recv, 65536)
            self.heard = time.monotonic()

    def ask(self, kind, payload=b""):
        """Sends a request and returns the payload of the answer."""
        self.request += 1
        self.send(kind, self.request, payload)
        answer = HEARTBEAT
        while answer == HEARTBEAT:
            answer, request, payload = self.receive()
        if request != self.request:
            raise Ended("that answers another request")
        if answer == REFUSAL:
            raise Refused(*struct.unpack(">I", payload))
        if answer != kind | ANSWER:
            raise Ended("that is no answer to this request")
        return payload

    def stay(self, heartbeats):
        heartbeats += self.heartbeats
        while self.heartbeats < heartbeats:
            if self.receive()[0] != HEARTBEAT:
                raise Ended("nobody asked for that")

    def fingerprint(self):
        key = self.tls.get_peer_certificate().get_pubkey()
        return hashlib.sha256(crypto.dump_publickey(crypto.FILETYPE_ASN1, key)).hexdigest()

    def end(self):
        self.tls.shutdown()
        self.socket.close()


def attributes(message):
    return dict(part.split("=", 1) for part in message.decode().split(","))


def login(channel, user, password):
    header = "p=tls-exporter,,"
    name = user.replace("=", "=3D").replace(",", "=2C")
    nonce = base64.b64encode(secrets.token_bytes(18)).decode()
    bare = f"n={name},r={nonce}"
    first = channel.ask(LOGIN_FIRST, (header + bare).encode())
    asked = attributes(first)
    iterations = int(asked["i"])
    if not asked["r"].startswith(nonce) or asked["r"] == nonce or not 4096 <= iterations <= 2_000_000:
        raise Ended("that is no way to ask for a login")

    binding = channel.tls.export_keying_material(b"EXPORTER-Channel-Binding", 32)
    without_proof = f"c={base64.b64encode(header.encode() + binding).decode()},r={asked['r']}"
    salted = hashlib.pbkdf2_hmac("sha256", password.encode(), base64.b64decode(asked["s"]), iterations)
    key = hmac.digest(salted, b"Client Key", "sha256")
    said = b",".join([bare.encode(), first, without_proof.encode()])
    signature = hmac.digest(hashlib.sha256(key).digest(), said, "sha256")
    proof = bytes(a ^ b for a, b in zip(key, signature))
    last = channel.ask(LOGIN_LAST, f"{without_proof},p={base64.b64encode(proof).decode()}".encode())
    expected = hmac.digest(hmac.digest(salted, b"Server Key", "sha256"), said, "sha256")
    if not hmac.compare_digest(base64.b64decode(attributes(last)["v"]), expected):
        raise Ended("the other side does not know the account")


def log_in(channel, user, passwords):
    for password in passwords:
        try:
            return login(channel, user, password)
        except Refused as refusal:
            if refusal.reason != CREDENTIALS:
                raise
            print("refused", flush=True)
    raise Ended("no password is left")


def noted_key(known, host, port):
    """Returns the key that the file contains for the listener, or None."""
    lines = known.read_text().splitlines() if known.exists() else []
    for words in (line.split() for line in lines if line and not line.startswith("#")):
        if len(words) != 4 or words[2] != "sha256":
            raise Ended("a line of the known hosts cannot be read")
        if words[:2] == [host, port]:
            return words[3]
    return None


def listed(channel, kind):
    names, begin = [], 0
    while True:
        page = channel.ask(kind, struct.pack(">I", begin))
        begin, = struct.unpack_from(">I", page)
        at = 4
        while at < len(page):
            length, = struct.unpack_from(">H", page, at)
            names.append(page[at + 2:at + 2 + length].decode())
            at += 2 + length
        if not begin:
            return names


def carry_out(channel, command):
    word, _, rest = command.partition(":")
    if word in ("all", "enabled"):
        for name in listed(channel, ALL if word == "all" else ENABLED):
            print(name)
    elif word in ("on", "off"):
        channel.ask(SWITCH, bytes([word == "on"]) + rest.encode())
    elif word == "none":
        channel.ask(NONE)
    elif word == "stay":
        channel.stay(int(rest))
    else:
        sys.exit(__doc__)


def main(host, port, user, known_hosts, *commands):
    known = Path(known_hosts)
    channel = Channel(host, int(port))
    key = channel.fingerprint()
    noted = noted_key(known, host, port)
    if noted not in (None, key):
        raise Ended("that is another key than the one noted")
    log_in(channel, user, sys.stdin.read().splitlines())
    if noted is None:
        with known.open("a") as file:
            file.write(f"{host} {port} sha256 {key}\n")
    for command in commands:
        try:
            carry_out(channel, command)
        except Refused:
            print("cannot")
        sys.stdout.flush()
    channel.end()


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except Ended as why:
        sys.exit(str(why))
