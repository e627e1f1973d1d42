#!/usr/bin/env python3
"""The life of the packages in a fresh Debian: installed in an older revision, used, upgraded, used with all modules,
purged.

    life_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --ninja PROGRAM
                 --compiler C++
"""

import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import linux
import room

LEAKED = 4242
PROGRAM = f"""
#include <stdlib.h>
static void* volatile kept;
__attribute__((noinline)) static void forget(void) {{ kept = malloc({LEAKED}); kept = 0; }}
int main(void) {{ forget(); void* volatile block = malloc(10); free(block); return 0; }}
"""

# The trace of a process is switched from another one. The console shows the key of the listener; it is that which the
# account's tool shows.
CONTROL = """
mkdir -p "$HOME"
password=$(qor-debug-user --generate add ann 2>/tmp/said)
qortool --quiet timer-check --qor-debug-listen=PORT >/dev/null 2>/tmp/listener &
peer=$!
fingerprint=
until fingerprint=$(qor-debug-user fingerprint 2>/dev/null); do kill -0 $peer || { cat /tmp/listener; exit 1; }; done
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    printf 'ann\\n%s\\nshow-all\\n' "$password" |
        qortool --quiet debug-control 127.0.0.1 PORT >/tmp/shown 2>/tmp/warned || true
    grep -q system.debug-control /tmp/shown && break
    sleep 1
done
kill -0 $peer
kill $peer
cat /tmp/shown /tmp/warned
grep -q "fingerprint is $fingerprint" /tmp/warned
"""


class Life(unittest.TestCase):
    suite = "bookworm"

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name).resolve()
        try:
            cls.room = room.Room(cls.suite, linux.options.build / "debians", cls.folder / "room")
        except room.NoRoom as reason:
            raise unittest.SkipTest(str(reason)) from None
        cls.places = [path for name, path in linux.debian().items() if not name.endswith("-dbgsym")]

    def run_there(self, script, code=0, text=""):
        found, said = self.room.run(script, text)
        self.assertEqual(found, code, f"{script}\n{said}")
        return said

    def installed(self):
        return set(self.run_there("dpkg-query --show --showformat='${Package}\\n'").split())

    def version(self, name):
        return self.run_there(f"dpkg-query --show --showformat='${{Version}}' {name}")

    def make_older(self, name):
        """Makes a package of the revision before ours: other contents, and a file that is gone today."""
        path = self.folder / f"older-{name}"
        subprocess.run(["dpkg-deb", "--raw-extract", linux.debian(name), path], check=True)
        control = path / "DEBIAN/control"
        text = control.read_text()
        version = re.search(r"^Version: (.*)", text, re.M).group(1)
        control.write_text(text.replace(version, f"{version}~older"))
        documents = path / f"usr/share/doc/{name}"
        (documents / "gone-today").write_text("as it was\n")
        changed = sorted(path.glob("usr/**/*.msg"))[0] if name == "libqor" else documents / "copyright"
        changed.write_text(changed.read_text().replace("e", "E"))
        made = self.room.folder / f"packages/older-{name}.deb"
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Znone", "--build", path, made], check=True,
                       stdout=subprocess.DEVNULL)
        return f"{version}~older"

    def check_missing(self, command, module):
        """Without its module, an action fails, and says which package has it."""
        said = self.run_there(f"{command} </dev/null", 1)
        self.assertRegex(said, rf"/usr/\S*/{module}\.so' is missing\..*lib{module}", command)

    def find_leak(self):
        said = self.run_there("mkdir -p /tmp/home; qor-record -o /tmp/leak -- /packages/leaky; qortool mtrace "
                              "/tmp/leak.mtrace; qor-heap sites /tmp/leak.mtrace")
        self.assertRegex(said, rf"\b(0x)?0*({LEAKED}|{LEAKED:x})\b")
        return said

    def test_life(self):
        before = self.room.files()
        for path in self.places:
            shutil.copy(path, self.room.folder / "packages")
        source = self.folder / "leaky.c"
        source.write_text(PROGRAM)
        leaky = self.room.folder / "packages/leaky"
        subprocess.run([linux.options.compiler, "-x", "c", "-g", "-O1", source, "-o", leaky], check=True)
        older = [self.make_older(name) for name in ("libqor", "qortool")][0]

        # The tools alone, on a host without OpenSSL and the others.
        start = time.monotonic()
        self.run_there("apt-get -q update")
        empty = self.installed()
        self.run_there("apt-get -q -y --no-install-recommends install /packages/older-*.deb")
        self.assertIn("(Debian package: libdw1)", self.find_leak())
        print(f"From an empty Debian ({self.suite}) to a found leak: {time.monotonic() - start:.0f} s", file=sys.stderr)
        self.assertEqual(self.installed() - empty, {"libqor", "qortool"})
        self.assertEqual(self.version("libqor"), older)
        self.assertIn("Sunday", self.run_there("qortool --quiet dow 28/3/2021"))
        digest = self.run_there("touch /tmp/e; qortool --quiet md5sum /tmp/e")
        self.assertIn("D41D8CD98F00B204E9800998ECF8427E", digest.upper())
        self.run_there("set -e; qortool sysinfo; qortool path-list; qor-heap --help; qor-check /usr/bin/qortool")
        self.check_missing("qortool netlist", "qor-network")
        self.check_missing("qortool debug-control localhost 1", "qor-openssl")
        self.check_missing("qortool logon root secret", "qor-pam")

        # Today's packages, all of them.
        self.run_there("rm /packages/older-*; apt-get -q -y --no-install-recommends install /packages/*.deb libdw1")
        self.assertEqual(self.version("libqor"), older.removesuffix("~older"))
        self.assertEqual(self.run_there("find /usr/share/doc -name gone-today"), "")
        ours = " ".join(name for name in linux.debian() if not name.endswith("-dbgsym"))
        self.assertEqual(self.run_there(f"dpkg --verify {ours}; dpkg --audit"), "")
        self.assertIn("leaky.c:4", self.find_leak())
        self.assertIn("lo", self.run_there("qortool --quiet netlist"))
        self.assertIn("Wochentag", self.run_there("QOR_LANGUAGE=de qortool help", 1))
        self.run_there("qortool --quiet pwcrypt secret")
        self.run_there("echo joe:x:4444:4444::/:/bin/sh >>/etc/passwd")
        self.run_there("""echo "joe:$(perl -e 'print crypt("secret", "\\$6\\$abcdefgh\\$")'):19000::::::" """
                       ">>/etc/shadow")
        self.assertIn("joe", self.run_there("qortool --quiet logon joe secret"))
        self.run_there("qortool --quiet logon joe wrong", 1)
        self.run_there("sed -i /^joe:/d /etc/passwd /etc/shadow; [ -s /etc/shadow ] || rm /etc/shadow")
        port = str(random.randint(20000, 32000))
        self.assertIn("system.debug-control", self.run_there(CONTROL.replace("PORT", port)))

        # All programs have found the library at once. One that has not says so in the system's log.
        self.assertEqual([line for line in self.room.log if "libqor.so" in line], [])
        self.run_there("mkdir -p /tmp/a/bin; cp /usr/bin/qortool /tmp/a/bin; /tmp/a/bin/qortool dow 28/3/2021", 100)
        self.assertTrue([line for line in self.room.log if "FAILED dlopen() of libqor.so" in line], self.room.log)

        # Nothing is left of them.
        # As if it were recommended.
        self.run_there("apt-mark auto $(dpkg-query --show --showformat='${Package}\\n' 'libdw1*')")
        self.run_there(f"apt-get -q -y purge {ours} && apt-get -q -y --purge autoremove")
        self.assertNotIn("qor", self.run_there("dpkg-query --show"))
        left = {each for each in self.room.files() - before if not each.startswith("etc/") or not each.endswith("-")}
        self.assertEqual(left, set())


@unittest.skipUnless(linux.WHOLE, "this runs in ./test all")
class LifeInDebian13(Life):
    suite = "trixie"


if __name__ == "__main__":
    sys.exit(linux.main())
