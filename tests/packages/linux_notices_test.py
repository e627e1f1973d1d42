#!/usr/bin/env python3
"""Compares the list of notices with what is in our files for Linux: the linker's maps say which members of libraries
were linked, and the compiler's lists of headers say what was compiled in.

    linux_notices_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --ninja PROGRAM
                          --compiler C++
"""

import re
import subprocess
import sys
import tarfile
import unittest

import linux
from notices_test import linked  # in this folder

import notices  # in packages

# Headers of libraries of the system, which the programs load. Nothing of them but declarations is compiled in.
LOADED = {"crypt.h", "dwarf.h", "elfutils", "gelf.h", "libelf.h", "libmnl", "openssl", "security", "sqlite3.h",
          "systemd", "zconf.h", "zlib.h", "zstd.h", "zstd_errors.h"}
HEADER = re.compile(r"^/usr/include/(?:x86_64-linux-gnu/)?(.*)")


class Notices(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.entries = notices.read(system="linux")

    def names(self, field):
        words = [word for entry in self.entries for word in entry[field]]
        self.assertEqual(len(words), len(set(words)), field)
        return set(words)

    def shipped(self):
        """Returns the names of the programs and libraries that ship."""
        with tarfile.open(linux.tar()) as archive:
            names = [entry.name for entry in archive.getmembers() if entry.isfile()]
        return {name.rpartition("/")[2] for name in names if "/bin/" in name or name.endswith(".so")}

    def maps(self):
        paths = sorted((linux.options.build / "maps").glob("*.map"))
        self.assertEqual({path.stem for path in paths}, self.shipped())
        return {path.stem: linked(path.read_text()) for path in paths}

    def test_what_is_linked(self):
        known, used = self.names("Archives"), set()
        for file, archives in self.maps().items():
            with self.subTest(file=file):
                self.assertIn("crti.o", archives)
                self.assertEqual(archives - known, set(), "linked, and not in the list")
            used |= archives & known
        self.assertEqual(known - used, set(), "in the list, and not linked")

    def test_what_is_compiled_in(self):
        """The files that the list names for headers are those that contain them."""
        text = subprocess.check_output([linux.options.ninja, "-C", linux.options.build, "-t", "deps"], text=True)
        known, users, own = self.names("Headers"), {}, 0
        for block in text.split("\n\n"):
            head, _, names = block.partition("\n")
            if not re.match(r"(qorcore|util)/", head) or "(VALID)" not in head:
                continue
            own += 1
            for name in map(str.strip, names.splitlines()):
                found = HEADER.match(name) or re.match(r"^(?:.*/)?include-toml/(.*)", name)
                if found:
                    first = found.group(1).split("/")[0]
                    if first in known:
                        users.setdefault(first, set()).add(self.file_of(head))
                    self.assertTrue(first in known | LOADED or self.is_of_c(found.group(0)),
                                    f"{name} is compiled into {head}, and not in the list")
        self.assertGreater(own, 200)
        self.assertEqual(known - set(users), set(), "in the list, and not compiled in")
        for entry in self.entries:
            if entry["In"] != ["all"]:
                for header in entry["Headers"]:
                    self.assertEqual(users[header], set(entry["In"]), entry["Name"])

    def file_of(self, name):
        """Returns the file that gets an object; all programs count as one."""
        module = re.match(r"qorcore/modules/(\w+)/", name)
        if module:
            return f"qor-{module.group(1)}.so"
        return "libqor.so" if name.startswith("qorcore/CMakeFiles/") else "a program"

    def is_of_c(self, path):
        """Whether a header belongs to the C library or to the kernel."""
        if not hasattr(self, "of_c"):
            listing = subprocess.check_output(["dpkg", "-L", "libc6-dev", "linux-libc-dev", "libcrypt-dev"], text=True)
            type(self).of_c = set(listing.splitlines())
        return path in self.of_c

    def test_the_files_exist(self):
        for entry in self.entries:
            everywhere = entry["In"] in (["all"], ["reference"])
            self.assertTrue(everywhere or set(entry["In"]) <= self.shipped(), entry["Name"])

    def test_scripts_in_the_reference(self):
        """Those that name an owner are in the list. What Doxygen made from our headers names none."""
        of_others = set()
        with tarfile.open(linux.tar()) as archive:
            for entry in archive.getmembers():
                name = entry.name.rpartition("/reference/")[2]
                if entry.name.endswith(".js") and re.search(rb"copyright", archive.extractfile(entry).read(), re.I):
                    of_others.add(name)
        self.assertEqual(of_others, self.names("Files"))

    def test_the_document_has_all_texts(self):
        with tarfile.open(linux.tar()) as archive:
            name, = (name for name in archive.getnames() if name.endswith("/THIRD-PARTY-NOTICES"))
            document = archive.extractfile(name).read().decode()
        self.assertIn("In:       all programs and libraries\n", document)
        for entry in self.entries:
            self.assertIn(f"\n{entry['Name']}\n", document)
            for name in entry["Text"]:
                text = (notices.FOLDER / name).read_text()
                self.assertGreater(len(text), 300, name)
                self.assertIn(text.rstrip(), document)
        self.assertNotIn("mingw", document)

    def test_readme_names_them(self):
        readme = (linux.SOURCE / "README.md").read_text()
        for entry in self.entries:
            name = {"GCC's run-time: libstdc++ and libgcc": "its C++ library", "Boost": "Boost.Unordered",
                    "the GNU C Library: its start-up code": "start-up code of the C library",
                    "Doxygen's scripts, with jQuery": "| Doxygen |"}.get(entry["Name"], entry["Name"])
            self.assertIn(name, readme)


if __name__ == "__main__":
    sys.exit(linux.main())
