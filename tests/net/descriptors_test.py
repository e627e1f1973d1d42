#!/usr/bin/env python3
"""Compares texts of services with a plain second reading of their grammar, made of Python's ipaddress, socket and re:
descriptors_test.py --driver PROGRAM [--count N]

A text is made at random from pieces that matter. What is valid must be read alike, and be written so that it is read
again as the same; what is not must be refused.
"""

import argparse
import ipaddress
import random
import re
import socket
import sys
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support

options = None

PIECES = ["a", "host", "example.org", "xn--mnchen-3ya", "münchen", ".", "..", "-", "_", ":", "::", "[", "]", "%", "1",
          "0", "80", "65535", "65536", "00080", "127.0.0.1", "127.1", "1.2.3.4", "256.1.1.1", "01.2.3.4", "0x7f", "0x",
          "[::1]", "[::]", "[fe80::1%1]", "[fe80::1%lo]", "[2001:db8::1%lo]", "[::ffff:1.2.3.4]", "::1", "fe80::1",
          "1:2:3:4:5:6:7:8", "[1:2:3:4:5:6:7::]", "tcp://", "TCP://", "unix:", "Unix:", "pipe:", "udp://", "://", "/",
          "//", "\\", " ", "http", "https", "www", "ssh", "no-such-service", "@", "*", "+", "\n", "\x7f", "é", "?", "#",
          "a" * 63, "a" * 64, "b." * 60, "/run/x.sock", "p" * 100]
NONE, TCP, UNIX, PIPE = range(4)


class Invalid(Exception):
    pass


def check(holds):
    if not holds:
        raise Invalid


def ipv6(text):
    """Returns the canonical text with its scope, and the number of the scope."""
    address, percent, scope = text.partition("%")
    try:
        parsed = ipaddress.IPv6Address(address)
    except ValueError:
        raise Invalid from None
    number = 0
    link_local = parsed.is_link_local or parsed.packed[0] == 0xff and parsed.packed[1] & 15 in (1, 2)
    if percent:
        if re.fullmatch(r"[0-9]+", scope):
            number = int(scope)
            check(number < 2 ** 32)
        else:
            check(scope and link_local)
            try:
                number = socket.if_nametoindex(scope)
            except OSError:
                raise Invalid from None
    name = str(number)
    if link_local:
        try:
            name = socket.if_indextoname(number)
        except OSError:
            pass
    # The C library's form, which knows embedded addresses.
    canonical = socket.inet_ntop(socket.AF_INET6, parsed.packed)
    return canonical + (f"%{name}" if number else ""), number


def host(text):
    """Returns the host and its family."""
    if re.fullmatch(r"[0-9]+(\.[0-9]+){3}", text, re.ASCII):
        try:
            return str(ipaddress.IPv4Address(text)), 4
        except ValueError:
            raise Invalid from None
    check(all(re.fullmatch(r"[A-Za-z0-9._-]", c) or ord(c) >= 0xa1 for c in text))
    check(len(text.encode()) <= 253)
    labels = text.split(".")
    if len(labels) > 1 and labels[-1] == "":
        labels.pop()
    for label in labels:
        check(label and not (label.isascii() and len(label) > 63))
    check(not re.fullmatch(r"[0-9]+|0[xX][0-9a-fA-F]*", labels[-1]))
    return text, 0


def port(text):
    """Returns the name of the service and its port."""
    if re.fullmatch(r"[0-9]+", text):
        check(int(text) < 65536)
        return "", int(text)
    check(re.fullmatch(r"[A-Za-z0-9._+*-]{1,63}", text))
    try:
        return text, socket.getservbyname(text, "tcp")
    except OSError:
        raise Invalid from None


def read(text, default_host, default_port):
    """Returns (kind, host, family, scope, service, port, path)."""
    check(text)
    lower = text.lower()
    if lower.startswith("unix:"):
        check(0 < len(text[5:].encode()) <= 107)
        return UNIX, "", 0, 0, "", 0, text[5:]
    if lower.startswith("pipe:"):
        check(0 < len(text[5:].encode()) <= 247 and not re.search(r"[\x00-\x1f\x7f\\/]", text[5:]))
        return PIPE, "", 0, 0, "", 0, text[5:]
    if lower.startswith("tcp://"):
        text = text[6:]
    check(text)
    if found := re.fullmatch(r"\[([^\]]*)\](?::(.*))?", text, re.DOTALL):
        name, scope = ipv6(found[1])
        family, rest = 6, found[2]
    else:
        found = re.fullmatch(r"([^:]*)(?::([^:]*))?", text, re.DOTALL)
        check(found)
        scope, rest = 0, found[2]
        if found[1]:
            name, family = host(found[1])
        elif default_host is None:
            name, family = "", 0
        elif ":" in default_host:
            (name, scope), family = ipv6(default_host.strip("[]")), 6
        else:
            name, family = host(default_host)
    if rest is None:
        check(default_port is not None)
        return TCP, name, family, scope, "", default_port, ""
    return TCP, name, family, scope, *port(rest), ""


class Descriptors(unittest.TestCase):
    def compare(self, driver, text, default_host=None, default_port=None):
        try:
            expected = read(text, default_host, default_port)
        except Invalid:
            expected = None
        answer = driver.ask("parse", text, default_host or "-", "-" if default_port is None else str(default_port))
        if expected is None:
            self.assertTrue(failed(answer), (text, answer))
            self.assertIn(answer[0], range(261, 267), text)
            self.assertIn(f"'{text}'", answer[1])
            return False
        self.assertFalse(failed(answer), (text, answer, expected))
        kind, name, family, scope, service, number, path, written, again = [decode(word).decode() for word in answer]
        self.assertEqual((int(kind), name, int(family), int(scope), service, int(number), path), expected, text)
        self.assertEqual(again, "same", (text, written))
        # What was written needs no defaults.
        self.assertEqual(read(written, None, None), expected, (text, written))
        return True

    def test_pieces(self):
        chance = random.Random(1)
        valid = 0
        with Driver(options.command) as driver:
            for _ in range(options.count):
                text = "".join(chance.choices(PIECES, k=chance.randint(1, 5)))
                with self.subTest(text=text):
                    valid += self.compare(driver, text, chance.choice([None, None, "b.example", "::1", "[fe80::1%1]"]),
                                          chance.choice([None, None, 0, 443]))
        self.assertGreater(valid, options.count // 50)

    def test_forms(self):
        hosts = ["", "a", "example.org.", "192.0.2.1", "[::1]", "[fe80::1%lo]", "unix", "PIPE", "münchen.example"]
        with Driver(options.command) as driver:
            for scheme in ["", "tcp://", "tCp://"]:
                for each in hosts:
                    for service in ["", ":0", ":65535", ":http", ":70000", ":x y"]:
                        with self.subTest(scheme=scheme, host=each, service=service):
                            self.compare(driver, scheme + each + service, None, 80)
                            self.compare(driver, scheme + each + service)

    def test_services_of_the_table(self):
        names = sorted({line.split()[0] for line in Path("/etc/services").read_text().splitlines()
                        if re.match(r"\S+\s+[0-9]+/tcp", line)}) if Path("/etc/services").exists() else []
        with Driver(options.command) as driver:
            for name in names:
                with self.subTest(name):
                    self.assertTrue(self.compare(driver, f"example.org:{name}"))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--count", type=int, default=20_000)
    options, rest = parser.parse_known_args()
    options.command = [options.driver]
    unittest.main(argv=[__file__, *rest])
