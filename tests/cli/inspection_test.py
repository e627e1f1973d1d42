#!/usr/bin/env python3
"""Compares whole runs of `sysinfo` and `lookup` with system programs that report the same.

usage: inspection_test.py --tool PATH

Files of the system are replaced in name spaces that only the run sees; where the host forbids that, those tests skip.
"""

import argparse
import ctypes.util
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

tool = None
EVERYWHERE = os.defpath + ":/sbin:/usr/sbin"

# A name server in the name space of the run: it knows every name, but no address for any.
NAME_SERVER = """
import os, socket, subprocess, sys, threading
subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 53))
def serve():
    while True:
        query, sender = server.recvfrom(4096)
        end = query.index(b"\\0", 12) + 5
        server.sendto(query[:2] + b"\\x81\\x80\\0\\1\\0\\0\\0\\0\\0\\0" + query[12:end], sender)
threading.Thread(target=serve, daemon=True).start()
sys.exit(subprocess.run(sys.argv[1:]).returncode)
"""


def output(*words, **more):
    environment = {**tool.environment(), "PATH": EVERYWHERE, **more.pop("env", {})}
    return subprocess.run(words, capture_output=True, text=True, timeout=250, env=environment, **more)


def may(*name_spaces):
    return output("unshare", *name_spaces, "true").returncode == 0


class Inspection(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def run_tool(self, *words, before=(), **more):
        return output(*before, *tool.command, "--quiet", *words, **more)

    def report(self, *before, **more):
        """Returns the labelled lines of the report."""
        done = self.run_tool("sysinfo", before=before, **more)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.text = done.stdout
        return {line[:29].strip(): line[29:] for line in done.stdout.splitlines() if line[:29].strip().endswith(":")}

    def file(self, text):
        path = self.folder / f"file{len(list(self.folder.iterdir()))}"
        path.write_text(text, encoding="utf-8")
        return path

    def with_files(self, replaced, *name_spaces):
        """Returns the words to put before a command so that it sees other content in files of the system."""
        if not may("-r", "-m", *name_spaces):
            self.skipTest("this host lets nobody have name spaces")
        script = ""
        for path, text in replaced.items():
            if not Path(path).exists():
                self.skipTest(f"there is no {path} here")
            script += f"mount --bind {shlex.quote(str(self.file(text)))} {shlex.quote(str(Path(path).resolve()))} && "
        return ["unshare", "-r", "-m", *name_spaces, "sh", "-c", script + 'exec "$@"', "sh"]

    # ---- sysinfo

    def test_kernel_like_uname(self):
        self.assertEqual(self.report()["Platform string:"], output("uname", "-srvm").stdout.strip())

    def test_processors_like_nproc(self):
        self.assertEqual(self.report()["Logical CPU count:"], output("nproc").stdout.strip())

    def test_processors_are_those_of_the_affinity(self):
        allowed = min(os.sched_getaffinity(0))
        self.assertEqual(self.report("taskset", "-c", str(allowed))["Logical CPU count:"], "1")

    def test_processor_like_lscpu(self):
        listed = dict(re.findall(r"^([^:]+):\s*(.*)$", output("lscpu").stdout, re.M))
        if "Stepping" not in listed:
            self.skipTest("lscpu does not tell a stepping here")
        report = self.report()
        self.assertEqual(report["CPU Type:"], listed["Model name"])
        head, _, extensions = report["CPU Type (extended):"].partition(":")
        self.assertEqual(head, f"{listed['Vendor ID']} family {listed['CPU family']} model {listed['Model']} "
                               f"stepping {listed['Stepping']}")
        flags = set(listed["Flags"].split())
        known = {"ssse3", "sse4_1", "sse4_2", "avx", "f16c", "fma", "avx2", "avx_vnni", "avx512f", "avx512dq", "avx512bw",
                 "avx512cd", "avx512vl", "avx512ifma", "avx512vbmi", "avx512_vbmi2", "avx512_vnni", "avx512_bitalg",
                 "avx512_vpopcntdq", "avx512_bf16", "avx512_fp16", "amx_tile", "amx_int8", "amx_bf16"}
        self.assertEqual(set(extensions.split()), flags & known)

    def test_virtual_machine_like_systemd(self):
        if not shutil.which("systemd-detect-virt"):
            self.skipTest("there is no systemd-detect-virt here")
        kind = output("systemd-detect-virt", "--vm").stdout.strip()
        self.report()
        self.assertIn("Host is bare metal\n" if kind == "none" else "Host is a virtual machine\n", self.text)

    def test_container_like_systemd(self):
        if not shutil.which("systemd-detect-virt"):
            self.skipTest("there is no systemd-detect-virt here")
        kind = output("systemd-detect-virt", "--container").stdout.strip()
        enhanced = self.report()["Enhanced platform string:"]
        if kind == "none":
            self.assertNotIn("container", enhanced)
        else:
            self.assertIn(f", {kind} container", enhanced)

    def test_memory_like_free(self):
        report = self.report()
        total, used, free = (float(report[f"Memory: {name}:"].split()[0]) for name in ("Total", "Used", "Free"))
        self.assertAlmostEqual(total, used + free, delta=0.02)
        listed = output("free", "-b").stdout.splitlines()[1].split()
        limit = int(listed[1]) / 1048576
        # A control group around this test may reduce the total; free memory changes all the time.
        self.assertLessEqual(total, limit + 0.01)
        if total > limit - 0.01:
            self.assertAlmostEqual(free, int(listed[6]) / 1048576, delta=limit / 10)

    def test_memory_as_the_kernel_tells_it(self):
        for kibibytes, available, lines in [(8388608, 1048576, ["8192.00 MB", "7168.00 MB", "1024.00 MB"]),
                                            (1536, 0, ["1.50 MB", "1.50 MB", "0.00 MB"])]:
            text = f"MemTotal: {kibibytes} kB\nMemFree: 1 kB\nMemAvailable: {available} kB\n"
            report = self.report(*self.with_files({"/proc/meminfo": text}))
            self.assertEqual([report[f"Memory: {name}:"] for name in ("Total", "Used", "Free")], lines)

    def test_limit_of_a_control_group(self):
        mounts = Path("/proc/self/mountinfo").read_text()
        first = re.search(r"^\S+ \S+ \S+ / (\S+) .* - cgroup \S+ \S*\bmemory\b", mounts, re.M)
        second = re.search(r"^\S+ \S+ \S+ / (\S+) .* - cgroup2 ", mounts, re.M)
        if first:
            top, limit = Path(first[1]), "memory.limit_in_bytes"
        elif second and "memory" in Path(second[1], "cgroup.subtree_control").read_text():
            top, limit = Path(second[1]), "memory.max"
        else:
            self.skipTest("this host has no control groups of memory")
        group = top / f"qor-test-{os.getpid()}"
        try:
            group.mkdir()
        except OSError as error:
            self.skipTest(f"this host lets nobody make control groups: {error}")
        try:
            (group / limit).write_text(str(512 << 20))
            report = self.report("sh", "-c", f'echo $$ > {group}/cgroup.procs && exec "$@"', "sh")
            self.assertEqual(report["Memory: Total:"], "512.00 MB")
            self.assertGreater(float(report["Memory: Free:"].split()[0]), 256)
        finally:
            group.rmdir()

    def test_distribution(self):
        text = 'NAME="Some System"\nVERSION_ID=7.1\nPRETTY_NAME="Some System 7.1 (Name)"\n'
        report = self.report(*self.with_files({"/etc/os-release": text}))
        self.assertEqual(report["System Type:"], "Some System")
        self.assertEqual(report["System Version:"], "7.1")
        self.assertEqual(report["System Description:"], "Some System 7.1 (Name)")
        self.assertTrue(report["Enhanced platform string:"].startswith("Some System 7.1 (Name)"))

    def test_time_zone_in_minutes_east(self):
        for zone, minutes in [("XXX-5:30", 330), ("XXX3", -180), ("UTC", 0)]:
            self.report(env={"TZ": zone})
            self.assertIn(f"\nCurrent timezone offset = {minutes}\n\n", self.text)

    def test_languages_from_the_environment(self):
        self.report(env={"LANGUAGE": "de:fr", "LC_ALL": "C.UTF-8"})
        self.assertIn("\nActive catalog languages:\nde\nfr\nen\n\nCurrent", self.text)

    def test_developers_see_sizes(self):
        ending = ("\nsizeof(qorAtomic)        = 4\nsizeof(qorFastMutex)     = 8\nsizeof(qorComponent)     = 16\n\n")
        plain = self.run_tool("sysinfo").stdout
        self.assertNotIn("sizeof", plain)
        for words in (["--developer"], ["--developer", "--developer"]):
            self.assertTrue(self.run_tool("sysinfo", *words).stdout.endswith(ending))

    # ---- lookup

    def check_lookup(self, name, before=()):
        """Compares with getent, which lists an address once per kind of socket. With -A it also lists addresses that
        this host cannot reach."""
        listed = output(*before, "getent", "-A", "ahosts", name)
        self.assertEqual(listed.returncode, 0, listed.stderr)
        expected = dict.fromkeys(line.split()[0] for line in listed.stdout.splitlines())
        done = self.run_tool("lookup", name, before=before)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.split(), list(expected))
        return done.stdout.split()

    def check_fails(self, name, text, before=(), **more):
        done = self.run_tool("lookup", name, before=before, **more)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", f"Lookup FAILED : {text}\n"))

    def test_addresses_like_getent(self):
        for name in ["localhost", "192.0.2.7", "127.1", "::1", "2001:db8:0:0:0:0:0:5", "::ffff:192.0.2.1"]:
            with self.subTest(name):
                self.check_lookup(name)

    def test_hosts_with_several_addresses(self):
        before = self.with_files({"/etc/hosts": "192.0.2.1 many\n2001:db8::1 many\n192.0.2.1 many\n192.0.2.2 other many\n"})
        self.assertEqual(sorted(self.check_lookup("many", before)), ["192.0.2.1", "192.0.2.2", "2001:db8::1"])
        loud = output(*before, *tool.command, "lookup", "other")
        self.assertIn("\nLooking up [other] ...\nLookup returned 1 addresses\n192.0.2.2\n", loud.stdout)

    def test_scope_of_link_local_addresses(self):
        done = self.run_tool("lookup", "fe80::1%lo")
        self.assertEqual(done.stdout, "fe80::1%lo\n")

    def test_international_names(self):
        if not ctypes.util.find_library("idn2"):
            self.skipTest("the C library has no libidn2 here")
        before = self.with_files({"/etc/hosts": "192.0.2.9 xn--mnchen-3ya.example\n"})
        self.assertEqual(self.run_tool("lookup", "münchen.example", before=before).stdout, "192.0.2.9\n")
        self.check_fails("\u2488com", "'\u2488com' cannot be looked up: it is not a valid internationalized name.")

    def test_without_libidn2(self):
        loaded = output("sh", "-c", "/sbin/ldconfig -p | sed -n 's/.*libidn2.so.0 .*=> //p'").stdout.split()
        if not loaded:
            self.skipTest("there is no libidn2 here to take away")
        before = self.with_files({loaded[0]: ""})
        self.check_fails("münchen.example", "'münchen.example' cannot be looked up: it is an internationalized name, for which"
                                            " the system needs the library libidn2, and that is missing.", before)

    def test_no_network(self):
        before = self.with_files({"/etc/resolv.conf": "nameserver 192.0.2.53\n"}, "-n")
        self.check_fails("qor.example", "'qor.example' cannot be looked up: this host has no network.", before)

    def test_no_answer(self):
        before = self.with_files({"/etc/resolv.conf": "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"}, "-n")
        made = "ip link set lo up && ip link add qor0 type veth peer name qor1 && ip addr add 192.0.2.1/24 dev qor0 && " \
               "ip link set qor0 up && exec \"$@\""
        before += ["sh", "-c", made, "sh"]
        if output(*before, "true").returncode != 0:
            self.skipTest("this host has no virtual Ethernet")
        self.check_fails("qor.example", "No name server answered for 'qor.example'; try again later.", before)

    def test_no_address(self):
        before = self.with_files({"/etc/resolv.conf": "nameserver 127.0.0.1\n"}, "-n")
        before += [sys.executable, "-c", NAME_SERVER]
        self.check_fails("qor.example", "The host 'qor.example' has no address.", before)

    def test_no_such_host(self):
        before = self.with_files({"/etc/nsswitch.conf": "hosts: files\n"})
        for name in ["nowhere.example", "no such host", "%s%n"]:
            self.check_fails(name, f"There is no host '{name}'.", before)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    add_options(parser)
    options = parser.parse_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=sys.argv[:1], verbosity=1)
