#!/usr/bin/env python3
"""Compares the list of notices with what is in our files for Windows: the linker's maps say which members of libraries
were linked, the compiler's lists of headers say what was compiled in, and the package says what ships as others made
it.

    notices_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --ninja PROGRAM
"""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import packed

import notices  # in packages


# The folders with the headers of others, and among them those of the compiler and of Windows. The compiler names a
# header by its link in the build or, where that is shorter, by the file that the link leads to.
OTHERS = re.compile(r"(?:(?:^|/)(?:headers|include-toml|[a-z]+-windows/include)|^/usr/include)/(.*)")
SYSTEM = re.compile(r"^/usr/(?:share/mingw-w64|x86_64-w64-mingw32|lib/gcc/x86_64-w64-mingw32/[^/]+)/"
                    r"include(?:-fixed)?/(.*)")


def linked(text):
    """Returns the names of the archives and start-up objects of others that a map of the linker has taken something
    from. Our own archives are named from the folder of the build. The objects of g++ for code at any address count as
    the others."""
    members, _, rest = text.partition("\nDiscarded input sections")
    archives = {Path(found).name for found in re.findall(r"^(\S+\.a)\([^)\n]*\)$", members, re.M)
                if not re.match(r"(?:qorcore|util)/", found)}
    objects = {Path(found).name for found in re.findall(r"^LOAD (/\S+\.o)$", rest, re.M)}
    return archives | {re.sub(r"^(crtbegin|crtend)S", r"\1", name) for name in objects}


class Notices(packed.Unpacked):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.entries = notices.read(system="windows")

    def all(self, field):
        return [word for entry in self.entries for word in entry[field]]

    def names(self, field):
        """Returns the words of the field, each of which stands once in the list."""
        words = self.all(field)
        self.assertEqual(len(words), len(set(words)), field)
        return set(words)

    def maps(self):
        paths = sorted((packed.options.build / "maps").glob("*.map"))
        self.assertEqual({path.stem for path in paths}, {path.name for path in self.ours()} | {"path-entry.exe"})
        return {path.stem: linked(path.read_text()) for path in paths}

    def test_what_is_linked(self):
        known, used = self.names("Archives"), set()
        for file, archives in self.maps().items():
            with self.subTest(file=file):
                self.assertIn("libkernel32.a", archives)
                self.assertEqual(archives - known, set(), "linked, and not in the list")
            used |= archives & known
        self.assertEqual(known - used, set(), "in the list, and not linked")

    def test_where_it_is_linked(self):
        """The files that the list names for a library are those that contain it."""
        archives = self.maps()
        for entry in self.entries:
            if entry["Archives"] and entry["In"] != ["all"]:
                files = {file for file, each in archives.items() if each & set(entry["Archives"])}
                self.assertEqual(files, set(entry["In"]), entry["Name"])

    def test_what_is_compiled_in(self):
        known, used, own = self.names("Headers"), set(), 0
        text = subprocess.check_output([packed.options.ninja, "-C", packed.options.build, "-t", "deps"], text=True)
        for block in text.split("\n\n"):
            head, _, names = block.partition("\n")
            # Tests have objects elsewhere. An object that is out of date belongs to a source that is gone.
            if not re.match(r"(qorcore|util|packages)/", head) or "(VALID)" not in head:
                continue
            own += 1
            for name in map(str.strip, names.splitlines()):
                others, system = OTHERS.search(name), SYSTEM.search(name)
                if others or system:
                    first = (others or system).group(1).split("/")[0]
                    used |= {first} & known
                    # What is left are the headers of Windows and of C.
                    self.assertTrue(first in known or system, f"{name} is compiled into {head}, and not in the list")
                else:
                    path = (packed.options.build / name).resolve()
                    self.assertTrue({packed.SOURCE, packed.options.build} & set(path.parents), f"{name} in {head}")
        self.assertGreater(own, 200)
        self.assertEqual(known - used, set(), "in the list, and not compiled in")

    def test_what_ships_as_others_made_it(self):
        ours = {path.relative_to(self.root).as_posix() for path in self.ours()}
        programs = {path.relative_to(self.root).as_posix() for path in self.root.rglob("*")
                    if path.suffix in (".exe", ".dll")}
        # The installer makes its uninstaller.
        self.assertEqual(self.names("Files"), programs - ours | {"uninstall.exe"})

    def test_the_document_has_all_texts(self):
        document = (self.root / "THIRD-PARTY-NOTICES.txt").read_text()
        for entry in self.entries:
            self.assertIn(f"\n{entry['Name']}\n", document)
            for name in entry["Text"]:
                text = (self.root / "licences" / name).read_text()
                self.assertGreater(len(text), 300, name)
                self.assertIn(text.rstrip(), document)
        self.assertEqual({path.name for path in (self.root / "licences").iterdir()}, set(notices.texts(self.entries)))

    def test_readme_names_them(self):
        readme = (packed.SOURCE / "README.md").read_text()
        for entry in self.entries:
            name = {"GCC's run-time: libstdc++ and libgcc": "its C++ library", "Boost": "Boost.Unordered",
                    "Zstandard": "libzstd"}.get(entry["Name"], entry["Name"])
            self.assertIn(name, readme)


class Faults(unittest.TestCase):
    def test_a_list_with_a_fault(self):
        good = "Name: a\nUse: b\nLicence: c\nText: d\nLinux: all\n"
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = Path(folder.name, "list")
        path.write_text(good)
        self.assertEqual(notices.read(path)[0]["Text"], ["d"])
        for wrong in good.replace("Use", "Uses"), good.replace("Text: d\n", ""), good + "Name: a\n", \
                good.replace("Linux: all\n", ""):
            path.write_text(wrong)
            with self.assertRaises(notices.Fault):
                notices.read(path)


if __name__ == "__main__":
    sys.exit(packed.main("ninja"))
