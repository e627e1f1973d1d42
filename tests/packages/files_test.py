#!/usr/bin/env python3
"""Looks into the packages for Windows: which files there are, and the manifest, the version and the debug information
of each program and library, read by pefile and addr2line.

    files_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --addr2line PROGRAM --nm PROGRAM
"""

import hashlib
import os
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml
import zipfile
import zlib
from pathlib import Path

import packed

import pack  # in packages/windows
import pefile

LEAST_OWN = 8


def resources(path):
    """Returns the manifest's text with its number, and the properties of the version."""
    with pefile.PE(str(path)) as file:
        manifests = [(number.id, file.get_data(number.directory.entries[0].data.struct.OffsetToData,
                                               number.directory.entries[0].data.struct.Size))
                     for kind in file.DIRECTORY_ENTRY_RESOURCE.entries
                     if kind.id == pefile.RESOURCE_TYPE["RT_MANIFEST"] for number in kind.directory.entries]
        fixed = file.VS_FIXEDFILEINFO[0]
        numbers = [(fixed.FileVersionMS >> 16, fixed.FileVersionMS & 0xffff, fixed.FileVersionLS >> 16),
                   (fixed.ProductVersionMS >> 16, fixed.ProductVersionMS & 0xffff, fixed.ProductVersionLS >> 16)]
        texts = {name.decode(): value.decode() for part in file.FileInfo[0] if part.Key == b"StringFileInfo"
                 for table in part.StringTable for name, value in table.entries.items()}
    return manifests, numbers, fixed.FileType, texts


def settings(text):
    """Returns what a manifest says, by the names of the elements."""
    found = {}
    for element in xml.fromstring(text).iter():
        name = element.tag.rpartition("}")[2]
        found[name] = element.attrib or (element.text or "").strip()
    return found


class Files(packed.Unpacked):
    def test_the_zip_has_what_the_list_says(self):
        names = {path.relative_to(self.root).as_posix() for path in self.root.rglob("*") if path.is_file()}
        self.assertEqual(names, pack.expected_files())
        self.assertIn("include/qor/qor.h", names)
        self.assertIn("bin/qor/qortool.de.msg", names)

    def test_all_programs_are_known(self):
        self.assertGreaterEqual(len(self.ours()), LEAST_OWN)
        others = {path.name for path in self.root.rglob("*") if path.suffix in (".exe", ".dll")} - {
            path.name for path in self.ours()}
        self.assertEqual(others, {"zlib1.dll", "libzstd.dll"})

    def own(self):
        yield from self.ours()
        yield packed.options.build / "installer/path-entry.exe"

    def test_each_has_the_manifest(self):
        for path in self.own():
            with self.subTest(file=path.name):
                (number, text), = resources(path)[0]
                # The system looks for the manifest of a program under 1, and for that of a library under 2.
                self.assertEqual(number, 1 if path.suffix == ".exe" else 2)
                said = settings(text)
                self.assertEqual(said["longPathAware"], "true")
                self.assertEqual(said["activeCodePage"], "UTF-8")
                self.assertEqual(said["requestedExecutionLevel"], {"level": "asInvoker", "uiAccess": "false"})
                self.assertEqual(said["supportedOS"], {"Id": "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"})

    def test_each_has_the_version(self):
        wanted = tuple(map(int, packed.options.version.split(".")))
        described = set()
        for path in self.own():
            with self.subTest(file=path.name):
                _, numbers, kind, texts = resources(path)
                self.assertEqual(numbers, [wanted, wanted])
                self.assertEqual(kind, 1 if path.suffix == ".exe" else 2)
                self.assertEqual((texts["FileVersion"], texts["ProductVersion"]), (packed.options.version,) * 2)
                self.assertEqual((texts["OriginalFilename"], texts["ProductName"]), (path.name, "qor"))
                described.add(texts["FileDescription"])
        self.assertEqual(len(described), len(list(self.own())))

    def test_the_installer_has_a_version(self):
        _, numbers, _, texts = resources(packed.package("-setup.exe"))
        self.assertEqual(numbers[0], tuple(map(int, packed.options.version.split("."))))
        self.assertEqual(texts["ProductVersion"], packed.options.version)

    def test_the_installer_asks_for_no_rights(self):
        (_, text), = resources(packed.package("-setup.exe"))[0]
        self.assertEqual(settings(text)["requestedExecutionLevel"]["level"], "asInvoker")

    def test_the_version_is_that_of_the_tree(self):
        header = (packed.SOURCE / "qorcore/include/qor/system/Version.h").read_text()
        numbers = re.findall(r"^#define QOR_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)$", header, re.M)
        self.assertEqual(".".join(numbers), packed.options.version)


class Debug(packed.Unpacked):
    """The debug information lies in files of their own, to which the programs lead."""
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        cls.debug = packed.unpack("-debug.zip", folder.name)

    def test_each_file_leads_to_its_debug_information(self):
        paths = self.ours()
        self.assertEqual({f"{path.relative_to(self.root)}.debug" for path in paths},
                         {str(path.relative_to(self.debug)) for path in self.debug.rglob("*") if path.is_file()})
        for path in paths:
            with self.subTest(file=path.name), pefile.PE(str(path)) as file:
                sections = {section.Name.rstrip(b"\0"): section for section in file.sections}
                # A name longer than 8 characters stands elsewhere, so the section is found by what is in it.
                links = [section.get_data() for section in file.sections if b".debug\0" in section.get_data()[:60]]
                name, _, rest = links[-1].partition(b"\0")
                self.assertEqual(name.decode(), path.name + ".debug")
                bytes_of_debug = (self.debug / path.relative_to(self.root).parent / name.decode()).read_bytes()
                offset = (len(name) + 4) & ~3
                self.assertEqual(int.from_bytes(links[-1][offset:offset + 4], "little"), zlib.crc32(bytes_of_debug))
                self.assertEqual(file.FILE_HEADER.NumberOfSymbols, 0)
                self.assertNotIn(b".debug_info", sections)

    def test_the_identifier_of_a_build_is_in_both(self):
        known = set()
        for path in self.ours():
            with self.subTest(file=path.name):
                # The reader of debug information at its beginning: its mark, and 16 bytes.
                marks = [re.search(rb"RSDS(.{16})", where.read_bytes(), re.S)
                         for where in (path, self.debug / f"{path.relative_to(self.root)}.debug")]
                self.assertTrue(marks[0])
                known.add(marks[0].group(1))
        self.assertEqual(len(known), len(self.ours()))

    def test_symbols_can_be_had(self):
        """A function of libqor by its name in the debug information, and its place in the sources."""
        path = self.debug / "bin/libqor.dll.debug"
        listing = subprocess.check_output([packed.options.nm, "-C", path], text=True)
        address = re.search(r"^([0-9a-f]+) [tT] qor::glue::qorFileOpen\(", listing, re.M).group(1)
        said = subprocess.check_output([packed.options.addr2line, "-C", "-f", "-e", path, address], text=True)
        function, place = said.splitlines()
        self.assertIn("qorFileOpen", function)
        # A compiler cache may have made the name relative to the folder of the build.
        self.assertRegex(os.path.normpath(place), r"^/qor/qorcore/src/file/\w+\.cpp:\d+")


class Reproducible(unittest.TestCase):
    def test_the_same_build_gives_the_same_packages(self):
        """Another day, another folder, and files of other times."""
        with tempfile.TemporaryDirectory(prefix="another place.") as folder:
            build = Path(folder) / "b"
            # The rules of the installation name the build's folder, so this one leads there. Its files are touched.
            build.symlink_to(packed.options.build)
            for path in packed.options.build.glob("bin/qor/*.msg"):
                os.utime(path)
            out = Path(folder) / "out"
            before = packed.options.build
            packed.options.build = build
            try:
                done = packed.pack(out, TZ="Asia/Tokyo", LC_ALL="C", TMPDIR=folder)
            finally:
                packed.options.build = before
            self.assertEqual(done.returncode, 0, done.stdout)
            for path in packed.options.packages.iterdir():
                with self.subTest(package=path.name):
                    self.assertEqual(*(hashlib.sha256(each.read_bytes()).hexdigest()
                                       for each in (path, out / path.name)))

    def test_entries_have_the_time_and_no_rights(self):
        for kind in ".zip", "-debug.zip":
            with zipfile.ZipFile(packed.package(kind)) as archive:
                names = archive.namelist()
                self.assertEqual(names, sorted(names))
                self.assertEqual({entry.date_time for entry in archive.infolist()}, {(2023, 11, 14, 22, 13, 20)})
                self.assertEqual({entry.external_attr for entry in archive.infolist()}, {0o600 << 16})

    def test_no_file_names_the_folder_of_the_build(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            for kind in ".zip", "-debug.zip":
                for path in packed.unpack(kind, folder).rglob("*"):
                    if path.is_file():
                        self.assertNotIn(str(packed.SOURCE).encode() + b"/", path.read_bytes(), path.name)


class Refused(unittest.TestCase):
    """Packing refuses a build that does not fit the list."""
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def test_a_file_too_many_and_a_file_too_few(self):
        expected = pack.expected_files()
        pack.compare(expected)
        with self.assertRaisesRegex(pack.Fault, r"^bin/new\.exe is not in .*files$"):
            pack.compare(expected | {"bin/new.exe"})
        with self.assertRaisesRegex(pack.Fault, "^bin/qortool.exe is missing$"):
            pack.compare(expected - {"bin/qortool.exe"})

    def test_no_build(self):
        before, packed.options.build = packed.options.build, self.folder
        try:
            done = packed.pack(self.folder / "out")
        finally:
            packed.options.build = before
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, "^pack.py: ")

    def test_a_time_with_a_fault(self):
        for text in "yesterday", "-1", "", "4354819200":
            with self.subTest(text=text):
                done = packed.pack(self.folder / "out", SOURCE_DATE_EPOCH=text)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stdout, f"^pack.py: SOURCE_DATE_EPOCH: '{text}' is not ")


class Signed(unittest.TestCase):
    """The command of QOR_SIGN gets each program once, and the packages contain what it made."""
    MARK = b"signed here"
    # Blanks, quotes and what is a variable for makensis or for a shell arrive as they are.
    KEY = "--key=it's $HOME ${VERSION}"

    def signer(self, folder, fails_after="none"):
        """Returns the signer's log and the command. It fails after a number of files."""
        log, command = Path(folder) / "log", Path(folder) / "a signer"
        log.touch()
        command.write_text("#!/bin/sh\n"
                           f'[ "$(wc -l <"{log}")" != {fails_after} ] || {{ echo "no key for this"; exit 3; }}\n'
                           f'printf "%s\\t%s\\n" "$1" "$2" >>"{log}"\nprintf "{self.MARK.decode()}" >>"$2"\n')
        command.chmod(command.stat().st_mode | stat.S_IXUSR)
        return log, f'"{command}" "{self.KEY}"'

    def programs(self):
        return sorted(name for name in pack.expected_files() if name.endswith((".exe", ".dll")))

    def test_the_order(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            log, command = self.signer(folder)
            out = Path(folder) / "out"
            done = packed.pack(out, QOR_SIGN=command)
            self.assertEqual(done.returncode, 0, done.stdout)
            words = [line.split("\t") for line in log.read_text().splitlines()]
            self.assertEqual({first for first, _ in words}, {self.KEY})
            files = [Path(path) for _, path in words]
            wanted = self.programs()
            self.assertEqual([f"{path.parent.name}/{path.name}" for path in files[:len(wanted)]],
                             ["/".join(name.split("/")[-2:]) for name in wanted])
            # The uninstaller has a name of the program that makes it.
            self.assertEqual(files[len(wanted)].name, "path-entry.exe")
            self.assertEqual(len(files), len(wanted) + 3)
            self.assertNotIn(".", files[-2].name)
            installer = packed.package("-setup.exe").name
            self.assertEqual(files[-1].name, installer)
            self.assertTrue((out / installer).read_bytes().endswith(self.MARK))
            with zipfile.ZipFile(out / packed.package(".zip").name) as archive:
                for name in archive.namelist():
                    is_program = name.endswith((".exe", ".dll"))
                    self.assertEqual(archive.read(name).endswith(self.MARK), is_program, name)

    def test_a_signer_that_fails(self):
        """For a program, the uninstaller or the installer."""
        count = len(self.programs())
        for number in 1, count + 1, count + 2:
            with self.subTest(signed=number), tempfile.TemporaryDirectory(prefix="qor.") as folder:
                log, command = self.signer(folder, number)
                done = packed.pack(Path(folder) / "out", QOR_SIGN=command)
                self.assertEqual(done.returncode, 1)
                self.assertIn("no key for this", done.stdout)
                self.assertEqual(len(log.read_text().splitlines()), number)
                self.assertFalse((Path(folder) / "out").exists())

    def test_a_command_with_a_fault(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            done = packed.pack(Path(folder) / "out", QOR_SIGN="signer 'without an end")
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stdout, "^pack.py: QOR_SIGN: No closing quotation")

    def test_a_signer_that_is_missing(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            done = packed.pack(Path(folder) / "out", QOR_SIGN=str(Path(folder) / "nothing"))
            self.assertEqual(done.returncode, 1)
            self.assertIn("No such file", done.stdout)


if __name__ == "__main__":
    sys.exit(packed.main("addr2line", "nm"))
