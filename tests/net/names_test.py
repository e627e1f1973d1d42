#!/usr/bin/env python3
"""Compares names of hosts with those of Python's socket module, and the addresses of this host with those of `ip`:
names_test.py --driver PROGRAM

Files of the system are replaced in name spaces that only the run sees; where the host forbids that, those tests skip.
"""

import argparse
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import Driver, decode, failed  # noqa: E402  # in tests/support
from name_space import name_space  # noqa: E402

options = None
EVERYWHERE = os.defpath + ":/sbin:/usr/sbin"

HOSTS = """
192.0.2.1 canonical.example alias.example short
2001:db8::1 six.example
192.0.2.2 other.example
192.0.2.66 evil\x01name.example
192.0.2.67 \x1b[31mred
fe80::7 link.example
"""

# The same questions for the C library, through Python, in the same name space.
ORACLE = """
import json, socket, sys
answers = {}
for name in sys.argv[1:]:
    try:
        if name.startswith("="):
            answers[name] = socket.getnameinfo((name[1:], 0), socket.NI_NAMEREQD)[0]
        else:
            answers[name] = socket.getaddrinfo(name, None, type=socket.SOCK_STREAM, flags=socket.AI_CANONNAME)[0][3]
    except OSError as error:
        answers[name] = None
print(json.dumps(answers))
"""

# Interfaces that show what matters, in a network of the test's own; each command may be impossible here.
INTERFACES = """
ip link set lo up
ip link add qor0 type dummy && ip link set qor0 up
ip addr add 192.0.2.1/24 dev qor0
ip addr add 192.0.2.2/24 dev qor0 label qor0:1
ip addr add 169.254.7.7/16 dev qor0 scope link
ip addr add 2001:db8::1/64 dev qor0 nodad
ip addr add fe80::7/64 dev qor0 nodad
ip link add qor1 type dummy
ip addr add 198.51.100.1/32 dev qor1
"""


class Names(unittest.TestCase):
    def setUp(self):
        space = name_space()
        if space is None:
            self.skipTest("this host forbids name spaces")
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        binds = []
        for path, text in {"/etc/hosts": HOSTS, "/etc/nsswitch.conf": "hosts: files\n"}.items():
            own = Path(folder.name) / Path(path).name
            own.write_text(text)
            if not Path(path).exists():
                self.skipTest(f"there is no {path} here to replace")
            binds.append(f"mount --bind {own} {path}")
        self.before = [*space, "sh", "-c", " && ".join([*binds, 'exec "$@"']), "sh"]

    def ask(self, *questions):
        with Driver([*self.before, options.driver], {"LC_ALL": "C"}) as driver:
            return [driver.ask(*question) for question in questions]

    def oracle(self, *names):
        done = subprocess.run([*self.before, sys.executable, "-c", ORACLE, *names], capture_output=True, check=True)
        return json.loads(done.stdout)

    def test_canonical_names(self):
        names = ["canonical.example", "alias.example", "short", "six.example", "other.example"]
        expected = self.oracle(*names)
        for name, answer in zip(names, self.ask(*[("name", name) for name in names])):
            with self.subTest(name):
                self.assertFalse(failed(answer), answer)
                self.assertEqual(decode(answer[0]).decode(), expected[name])
        self.assertEqual(expected["short"], "canonical.example")

    def test_names_of_addresses(self):
        addresses = ["192.0.2.1", "2001:db8::1", "192.0.2.2"]
        expected = self.oracle(*["=" + each for each in addresses])
        for operation in "reverse", "name":
            for address, answer in zip(addresses, self.ask(*[(operation, each) for each in addresses])):
                with self.subTest(address):
                    self.assertFalse(failed(answer), answer)
                    self.assertEqual(decode(answer[0]).decode(), expected["=" + address])

    def test_own_name(self):
        before = self.before
        self.before = [*before, "unshare", "-u", "sh", "-c", 'hostname short && exec "$@"', "sh"]
        if subprocess.run([*self.before, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("this host forbids another name")
        answer, = self.ask(("name", "-"))
        self.assertEqual([decode(word) for word in answer], [b"canonical.example"])

    def test_failures(self):
        wanted = {("name", "nobody.example"): (60, "There is no host 'nobody.example'."),
                  ("name", ""): (60, "There is no host ''."),
                  ("reverse", "203.0.113.9"): (260, "The address '203.0.113.9' has no name."),
                  ("name", "203.0.113.9"): (260, "The address '203.0.113.9' has no name."),
                  ("reverse", "2001:db8::9"): (260, "The address '2001:db8::9' has no name.")}
        self.assertEqual(self.ask(*wanted), list(wanted.values()))

    def test_names_that_are_none_do_not_reach_the_caller(self):
        odd = "cannot be looked up: the answer is not the name of a host."
        for address in "192.0.2.66", "192.0.2.67":
            self.assertEqual(self.ask(("reverse", address)), [(64, f"'{address}' {odd}")])


class Addresses(unittest.TestCase):
    def compare(self, before):
        with Driver([*before, options.driver], {"LC_ALL": "C", "PATH": EVERYWHERE}) as driver:
            answer = driver.ask("addresses")
        self.assertFalse(failed(answer), answer)
        words = [decode(word).decode() for word in answer]
        found = [tuple(words[i:i + 4]) for i in range(0, len(words), 4)]
        listed = subprocess.run([*before, "ip", "-j", "addr"], capture_output=True, check=True,
                                env={**os.environ, "PATH": EVERYWHERE})
        expected = []
        for link in json.loads(listed.stdout):
            for each in link.get("addr_info", []):
                if each["family"] not in ("inet", "inet6"):
                    continue
                link_local = each["family"] == "inet6" and each["local"].startswith("fe80:")
                scope = {"host": 1, "link": 2}.get(each["scope"], 3)
                expected.append((each["local"] + (f"%{link['ifname']}" if link_local else ""), str(each["prefixlen"]),
                                 str(link["ifindex"]), str(scope)))
        self.assertEqual(sorted(found), sorted(expected))
        return found

    def test_of_this_host(self):
        if not shutil.which("ip", path=EVERYWHERE):
            self.skipTest("there is no ip here")
        self.compare([])

    def test_of_an_own_network(self):
        before = ["unshare", "-r", "-n", "sh", "-c", "{" + INTERFACES + '} >&2 2>/dev/null; exec "$@"', "sh"]
        if subprocess.run([*before, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("this host forbids networks of one's own")
        found = self.compare(before)
        self.assertIn(("127.0.0.1", "8", "1", "1"), found)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
