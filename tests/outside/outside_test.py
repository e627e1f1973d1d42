#!/usr/bin/env python3
"""Projects outside of the tree, against an installed framework: with CMake, Meson and make, a module and its program as
docs/modules.md shows them, and projects that contain the framework.

    outside_test.py --version VERSION --compiler C++ [--cmake PROGRAM] [--option WORD]... INSTALLATION [TEST...]

INSTALLATION is one of
    --build FOLDER               what `cmake --install` installs from this build
    --packages FOLDER            what the packages for Debian there contain
    --prefix FOLDER              what is installed there, for instance /usr; nothing is written into it
    --zip FILE --runner PROGRAM  the zip for Windows, and what starts its programs; the toolchain file is that of
                                 docs/windows.md
"""

import argparse
import fcntl
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import zipfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
HERE = Path(__file__).resolve().parent
sys.path.append(str(SOURCE / "tests/support"))
from tool import Tool  # noqa: E402  # in tests/support

STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror"]

options = None


def run(*words, **more):
    """Returns the exit code and all output."""
    done = subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=1200, **more)
    return done.returncode, done.stdout


def run_program(program, *words, **variables):
    tool = Tool(program, options.runner)
    done = subprocess.run([*tool.command, *words], env=tool.environment() | variables, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=120)
    return done.returncode, done.stdout.decode().replace("\r\n", "\n")


class Outside(unittest.TestCase):
    """Has an installation, `installed`, and an empty folder, `folder`, for each test."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        root = cls.root = Path(folder.name).resolve()
        cls.installed = root / "a place"
        if options.zip:
            with zipfile.ZipFile(options.zip) as archive:
                archive.extractall(cls.installed)
            cls.installed /= f"qor-{options.version}"
            page = (SOURCE / "docs/windows.md").read_text()
            cls.toolchain = root / "mingw.cmake"
            cls.toolchain.write_text(re.search(r"`mingw\.cmake`[^`]*?:\n\n```cmake\n(.*?)```", page, re.S).group(1))
        elif options.prefix:
            cls.installed = options.prefix
        elif options.packages:
            packages = [each for each in options.packages.glob("*.deb") if "-dbgsym_" not in each.name]
            assert packages, f"there are no packages in {options.packages}"
            cls.installed = root / "usr"
            for each in packages:
                subprocess.run(["dpkg-deb", "--extract", each, root], check=True)
            # They are made for the host's own /usr, where this file names a folder without blanks.
            for path in cls.installed.glob("lib/**/qor.pc"):
                path.write_text(path.read_text().replace("prefix=/usr\n", f"prefix={cls.installed}\n"))
        else:
            subprocess.run([options.cmake, "--install", options.build, "--prefix", cls.installed], check=True,
                           stdout=subprocess.DEVNULL)
        # The private folder, wherever the folder of libraries is.
        found = sorted({path.resolve() for pattern in ("lib*/pkgconfig/qor.pc", "lib*/*/pkgconfig/qor.pc")
                        for path in cls.installed.glob(pattern)})
        cls.pc_folder = found[0].parent if found else None
        if options.zip:
            cls.library = cls.installed / "bin/libqor.dll"
        else:
            assert len(found) == 1, f"one qor.pc in {cls.installed}: {found}"
            cls.library = cls.pc_folder.parent / "qor/libqor.so"
        assert cls.library.exists(), cls.library

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()

    def configure(self, source, **more):
        build = self.folder / "build"
        words = [options.cmake, "-G", "Ninja", "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.installed}",
                 *(f"-D{name}={value}" for name, value in more.items())]
        words.append(f"-DCMAKE_TOOLCHAIN_FILE={self.toolchain}" if options.zip
                     else f"-DCMAKE_CXX_COMPILER={options.compiler}")
        return build, *run(*words)

    def check_sorted(self, program):
        """The program works, speaks another language, and ends with 100 with a library that is too old for it."""
        self.assertEqual(run_program(program, "pear", "apple", "pear"),
                         (0, "apple\npear\nThis is not supported here.\n"))
        code, text = run_program(program, "a", QOR_LANGUAGE="de")
        self.assertEqual((code, text.splitlines()[0]), (0, "a"))
        self.assertNotIn("This is not supported here", text)
        if not options.zip:
            self.check_explained(program, 0, "The library has all that the program needs.")
            self.check_old_library(program)

    def check_explained(self, program, code, *lines):
        """qor-check says the same as the program's own binding."""
        got, text = run_program(self.installed / "bin/qor-check", program)
        self.assertEqual(got, code, text)
        for line in (f"Program: {program}", f"    built with version {options.version}; needs a table of ", *lines):
            self.assertIn(line, text)
        return text

    def check_old_library(self, program):
        """A library whose table is one row shorter is nearer than the installed one."""
        old = self.root / "old.so"
        if not old.exists():
            code, text = run(options.compiler, "-std=c++20", "-fPIC", "-shared", f"-I{self.installed}/include",
                             *options.option, SOURCE / "tests/glue/libraries/short_table.cpp", "-o", old)
            self.assertEqual(code, 0, text)
        beside = program.parent / "libqor.so"
        kept = self.folder / "kept"
        if beside.exists():
            beside.rename(kept)
        shutil.copy(old, beside)
        try:
            self.assertEqual(run_program(program, "a"), (100, ""))
            self.check_explained(program, 1, f"{beside}: used", "The library is older than the program")
        finally:
            beside.unlink()
            if kept.exists():
                kept.rename(beside)


class Programs(Outside):
    def build_with_cmake(self):
        build, code, text = self.configure(HERE / "program", CMAKE_CXX_FLAGS=" ".join([*STRICT, *options.option]))
        self.assertEqual(code, 0, text)
        code, text = run(options.cmake, "--build", build)
        self.assertEqual(code, 0, text)
        return build

    def test_cmake(self):
        build = self.build_with_cmake()
        program = build / ("copied/sorted_copy.exe" if options.zip else "sorted")
        self.check_sorted(program)
        if options.prefix:
            return
        # Without the library, the binding fails.
        library = build / "copied/libqor.dll" if options.zip else self.library
        library.rename(self.folder / "away")
        try:
            self.assertEqual(run_program(program, "a"), (100, ""))
            if not options.zip:
                self.check_explained(program, 1, f"{library}: missing", "No usable libqor was found")
        finally:
            (self.folder / "away").rename(library)

    @unittest.skipIf(os.name != "posix", "the other form is the usual one on Windows")
    def test_cmake_with_a_copy_of_the_library(self):
        if options.zip:
            self.skipTest("test_cmake runs the program with a copy: there is no other kind on Windows")
        build = self.build_with_cmake()
        moved = self.folder / "elsewhere"
        (build / "copied").rename(moved)
        self.assertFalse((moved / "qor/libqor.so").exists())
        self.check_sorted(moved / "sorted_copy")
        text = self.check_explained(moved / "sorted_copy", 0, f"Library: {moved}/libqor.so", "qor-network: works")
        self.assertNotIn(str(self.installed), text)

    def test_meson(self):
        self.need("meson")
        code, text = run("meson", "setup", self.folder / "build", HERE / "program", env=self.environment())
        self.assertEqual(code, 0, text)
        code, text = run("meson", "compile", "-C", self.folder / "build", env=self.environment())
        self.assertEqual(code, 0, text)
        self.check_sorted(self.folder / "build/sorted")

    def test_make(self):
        self.need("make")
        code, text = run("make", "-f", HERE / "program/Makefile", f"SOURCE={HERE}/program/", cwd=self.folder,
                         env=self.environment())
        self.assertEqual(code, 0, text)
        self.check_sorted(self.folder / "sorted")

    def need(self, program):
        if options.zip:
            self.skipTest("pkg-config knows nothing of the packages for Windows")
        for each in (program, "pkg-config"):
            self.assertIsNotNone(shutil.which(each), f"{each} is not installed")

    def environment(self):
        return os.environ | {"PKG_CONFIG_PATH": str(self.pc_folder), "CXX": options.compiler,
                             "CXXFLAGS": " ".join(options.option)}

    def test_installed_programs_bind_at_once(self):
        """The system's log stays empty."""
        if options.zip:
            self.skipTest("Windows has no such log")
        recorder = self.folder / "fake_syslog.so"
        code, text = run(options.compiler, "-std=c++20", "-fPIC", "-shared", SOURCE / "tests/glue/fake_syslog.cpp",
                         "-o", recorder)
        self.assertEqual(code, 0, text)
        log = self.folder / "log"
        environment = {"PATH": os.defpath, "LD_PRELOAD": str(recorder), "FAKE_SYSLOG": str(log)}
        for words in (["qortool", "--quiet", "dow", "1/1/2000"], ["qor-heap", "--help"], ["qor-debug-user", "help"]):
            code, text = run(self.installed / "bin" / words[0], *words[1:], env=environment)
            self.assertNotEqual(code, 100, words)
            self.assertNotEqual(text, "", words)
            self.assertFalse(log.exists(), words)
        code, text = run(self.installed / "bin/qor-check")
        self.assertEqual(code, 0, text)
        self.assertIn(f"{self.library}: used", text)

    def test_a_moved_installation(self):
        if options.zip or options.prefix:
            self.skipTest("only an installation of this test's own may be moved")
        moved = self.folder / "moved"
        shutil.copytree(self.installed, moved, symlinks=True)
        library = moved / self.library.relative_to(self.installed)
        code, text = run(moved / "bin/qor-check")
        self.assertEqual(code, 0, text)
        self.assertIn(f"{library}: used", text)
        code, text = run(moved / "bin/qor-record", "-o", self.folder / "log", "--", "true")
        self.assertEqual(code, 0, text)
        self.assertTrue((self.folder / "log.mtrace").exists())
        code, text = run(moved / "bin/qortool", "--quiet", "path-list")
        self.assertEqual(code, 0, text)
        self.assertRegex(text, rf"qor-catalogs += {re.escape(str(library.parent))}\n")
        code, text = run(moved / "bin/qortool", "help", env={"QOR_LANGUAGE": "de"})
        self.assertIn("Aktion", text)

    def test_a_module_that_is_missing(self):
        """Names its package; the rest works."""
        if options.zip or options.prefix:
            self.skipTest("only an installation of this test's own may lose a module")
        module = self.library.with_name("qor-network.so")
        kept = self.folder / module.name
        shutil.move(module, kept)
        try:
            code, text = run(self.installed / "bin/qortool", "--quiet", "netlist", env={})
            self.assertEqual(code, 1)
            self.assertIn(f"The module '{module}' is missing. Install its package (on Debian libqor-network), or", text)
            code, text = run(self.installed / "bin/qor-check")
            self.assertEqual(code, 0)
            self.assertIn("    qor-network: missing; on Debian, its package is libqor-network\n", text)
            self.assertEqual(run(self.installed / "bin/qortool", "--quiet", "dow", "1/1/2000", env={})[0], 0)
            _, code, text = self.configure(HERE / "program")
            self.assertNotEqual(code, 0)
            self.assertIn("libqor-network", re.sub(r"\s+", "", text))
        finally:
            shutil.move(kept, module)

    def asks_for(self, what, then=""):
        """Configures a project that asks for the framework. Returns the exit code and the output in one line."""
        source = self.folder / "asks"
        shutil.rmtree(source, ignore_errors=True)
        shutil.rmtree(self.folder / "build", ignore_errors=True)
        source.mkdir()
        (source / "empty.cpp").write_text("int main() {}\n")
        (source / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(asks LANGUAGES CXX)\n"
                                               f"find_package(qor {what} REQUIRED)\n{then}")
        code, text = self.configure(source)[1:]
        return code, re.sub(r"\s+", " ", text)

    def test_versions(self):
        """Those of the same major number up to the installed one fit."""
        major = options.version.split(".")[0]
        for version, fits in ((options.version, True), (f"{major}.1", True), (f"{major}.999", False),
                              (f"{int(major) - 1}.0", False), (f"{int(major) + 1}.0", False)):
            with self.subTest(version=version):
                code, text = self.asks_for(version)
                self.assertEqual(code == 0, fits, text)
                if not fits:
                    self.assertIn(f"version: {options.version}", text)

    def test_components_that_do_not_exist(self):
        """All are named, but those that the project can do without."""
        code, text = self.asks_for(f"{options.version} COMPONENTS crystal network glass OPTIONAL_COMPONENTS water")
        self.assertNotEqual(code, 0)
        for name in "crystal", "glass":
            self.assertIn(f'qor has no component "{name}"', text)
        self.assertNotIn("water", text)
        code, text = self.asks_for(f"{options.version} OPTIONAL_COMPONENTS water")
        self.assertEqual(code, 0, text)

    def test_words_of_qor_add_program_that_are_wrong(self):
        for words, told in (("a LIBRARY empty.cpp", "LIBRARY cannot be empty.cpp here"),
                            ("a empty.cpp LIBRARY", "LIBRARY needs a value: RUN_PATH, COPY or NONE"),
                            ("a LIBRARY COPY", "a program needs at least one source")):
            with self.subTest(words):
                code, text = self.asks_for(options.version, f"qor_add_program({words})\n")
                self.assertNotEqual(code, 0)
                self.assertIn(f"qor_add_program(a): {told}", text)

    # ---- copies of the library for programs in one folder

    def copies(self, folder):
        return {path.relative_to(folder): path.read_bytes() for path in folder.rglob("*") if path.is_file()}

    def expected_copies(self):
        found = {Path(self.library.name): self.library.read_bytes()}
        resources = self.library.parent / "qor" if options.zip else self.library.parent
        for path in resources.rglob("*"):
            if path.is_file() and path.name not in ("libqor.so", "libqor-record.so"):
                found["qor" / path.relative_to(resources)] = path.read_bytes()
        return found

    def test_many_programs_in_one_folder(self):
        """Their build makes the copies, one program at a time, and makes them again for another library."""
        names = [f"one_of_many{i}" for i in range(8)]
        code, text = self.asks_for(options.version, "".join(f"qor_add_program({name} LIBRARY COPY empty.cpp)\n"
                                                            for name in names))
        self.assertEqual(code, 0, text)
        build = self.folder / "build"
        words = [options.cmake, "--build", build, "--parallel", "16"]
        with open(build / "qor-copy.lock", "w") as lock:
            fcntl.lockf(lock, fcntl.LOCK_EX)
            waiting = f":{os.fstat(lock.fileno()).st_ino} "
            building = subprocess.Popen([str(word) for word in words], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL)
            end = time.monotonic() + 300
            while not re.search(f"-> .*{waiting}", Path("/proc/locks").read_text()):
                self.assertIsNone(building.poll(), "the build did not wait for the lock")
                self.assertLess(time.monotonic(), end)
                time.sleep(0.02)
            self.assertFalse((build / self.library.name).exists())
        self.assertEqual(building.wait(timeout=300), 0)
        inside = [path for path in build.iterdir() if path.name in (self.library.name, "qor")]
        self.assertEqual(len(inside), 2)
        together = self.folder / "together"
        together.mkdir()
        for each in inside:
            each.rename(together / each.name)
        self.assertEqual(self.copies(together), self.expected_copies())
        if options.prefix:
            return
        kept = self.folder / "kept"
        shutil.copy2(self.library, kept)
        try:
            with self.library.open("ab") as library:
                library.write(b"another library")
            code, text = run(*words)
            self.assertEqual(code, 0, text)
            self.assertEqual((build / self.library.name).read_bytes(), self.library.read_bytes())
        finally:
            shutil.copy2(kept, self.library)

    # ---- the components of an installation

    def test_components_of_an_installation(self):
        """Each is installed by itself, and together they are all."""
        if not options.build:
            self.skipTest("this takes a build")
        modules = [f"module-{path.stem[4:]}" for path in self.library.parent.glob("qor-*.so")]
        self.assertIn("module-network", modules)
        place = {}
        for component in ["bin", "lib", "dev", "doc", "man", "completions", *modules]:
            prefix = self.folder / component
            code, text = run(options.cmake, "--install", options.build, "--prefix", prefix, "--component", component)
            self.assertEqual(code, 0, text)
            files = {path.relative_to(prefix).as_posix() for path in prefix.rglob("*") if not path.is_dir()}
            self.assertTrue(files, component)
            for file in files:
                self.assertNotIn(file, place, f"in {component} and {place.get(file)}")
                place[file] = component
        installed = {path.relative_to(self.installed).as_posix() for path in self.installed.rglob("*")
                     if not path.is_dir()}
        self.assertEqual(set(place), installed)
        folder = self.library.parent.relative_to(self.installed).as_posix()
        for file, component in ((f"{folder}/libqor.so", "lib"), (f"{folder}/qorcore.de.msg", "lib"),
                                (f"{folder}/libqor-record.so", "bin"), (f"{folder}/qor-network.so", "module-network"),
                                ("bin/qortool", "bin"), ("bin/qor-check", "bin"), ("include/qor/qor.h", "dev")):
            self.assertEqual(place.get(file), component, file)


class Module(Outside):
    """The recipe of docs/modules.md."""

    def setUp(self):
        super().setUp()
        self.modules = self.folder / "modules"
        self.modules.mkdir()
        text = (SOURCE / "docs/modules.md").read_text()
        recipe = re.search(r"^## A module and its program\n(.*?)^## ", text, re.M | re.S).group(1)
        # Each file is named in the sentence before it.
        for name, content in re.findall(r"`([\w.-]+\.(?:cpp|h|msg))`[^`]*?:\n\n```\w*\n(.*?)```", recipe, re.S):
            (self.folder / name).write_text(content)
        self.assertEqual(sorted(each.name for each in self.folder.iterdir() if each.is_file()),
                         ["greet.cpp", "greeter.cpp", "greeter.h", "vendor-greeter.de.msg"])
        commands = re.sub(r"```.*?```", "", recipe, flags=re.S)
        block = re.search(r"(?:^    .*\n)+", commands, re.M).group()
        self.steps = re.findall(r"^    \$ (.*)\n((?:(?!    \$ )    .*\n)*)", block, re.M)

    def run_step(self, command):
        """Runs a command of the recipe as it stands, or as it is for Windows. In a prefix of others, the program lies
        elsewhere and is led to the library."""
        command = command.replace("$PWD", str(self.folder))
        words = command.split()
        if options.prefix:
            words = [re.sub("^DIR/bin(?=/)", str(self.folder), word) for word in words]
        words = [word.replace("DIR", str(self.installed)) for word in words]
        variables = {}
        while "=" in words[0]:
            name, value = words.pop(0).split("=")
            variables[name] = value
        if words[0] == "g++":
            words[0] = options.compiler
            if options.runner:
                words = [word.replace(".so", ".dll") for word in words if word != "-fPIC"] + ["-static"]
                if "-shared" not in words:
                    words[words.index("-o") + 1] += ".exe"
            if options.prefix and "-shared" not in words:
                words.append(f"-Wl,-rpath,{self.library.parent}")
            words[1:1] = [*STRICT, *options.option]
            environment = None
        elif words[0] == "cp":
            environment = None
        else:
            tool = Tool(words[0] + (".exe" if options.runner else ""), options.runner)
            words = [*tool.command, *(self.other(word) for word in words[1:])]
            environment = tool.environment() | variables
        done = subprocess.run(words, cwd=self.folder, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=600)
        return done.returncode, done.stdout.decode().replace("\r\n", "\n")

    def other(self, path):
        return "Z:" + path.replace("/", "\\") if options.runner else path

    def test_the_recipe(self):
        self.assertEqual(len(self.steps), 5)
        for command, output in self.steps:
            with self.subTest(command=command):
                self.assertEqual(self.run_step(command), (0, re.sub("^    ", "", output, flags=re.M)))
        if not options.zip:
            program = (self.folder if options.prefix else self.installed / "bin") / "greet"
            self.check_old_library(program)

    def test_a_name_that_is_none_does_not_compile(self):
        source = self.folder / "greeter.cpp"
        good = source.read_text()
        compiling = self.steps[0][0]
        for wrong, other, told in (('"vendor-greeter", "1.0.0"', '"vendor/greeter", "1.0.0"', "no_name_for_a_module"),
                                   ('"vendor-greeter", "1.0.0"', '"vendor-greeter", "first"', "no_version"),
                                   ('&start, "vendor.greeter.polite"', '&start, "greeter"', "no_name_for_a_component")):
            source.write_text(good.replace(wrong, other))
            self.assertNotEqual(source.read_text(), good)
            code, said = self.run_step(compiling)
            self.assertNotEqual(code, 0)
            self.assertIn(told, said)


class Parent(Outside):
    """A project that contains the framework. Whatever it does is told to CMake alone; in the whole form of the test, it
    is built, which takes minutes."""

    UNCHANGED = "standard=[] output=[] options=[] flags=[-O3 -DNDEBUG]"

    def configure_parent(self, **more):
        build, code, text = self.configure(HERE / "parent", QOR_SOURCE=SOURCE, CMAKE_BUILD_TYPE="Release", **more)
        self.assertEqual(code, 0, text)
        return build, text

    def planned(self, build, target):
        """The commands that make a target."""
        code, text = run("ninja", "-C", build, "-t", "commands", target)
        self.assertEqual(code, 0, text)
        return text

    def check_copied(self, build):
        """The program with a copy is linked again, and so copies again, when the library or a module is built."""
        code, text = run("ninja", "-C", build, "-t", "query", "copied")
        self.assertEqual(code, 0, text)
        for name in "libqor", "qor-network":
            self.assertRegex(text, rf"\b{name}\.(so|dll)\n")
        self.assertIn("qorCopy.cmake", self.planned(build, "copied"))

    def test_for_windows(self):
        """Its programs contain the run-time, too, which is no part of that system."""
        if not options.zip:
            self.skipTest("this takes the compiler for Windows")
        build, text = self.configure_parent(QOR_SQLITE="OFF", QOR_OPENSSL="OFF")
        self.assertIn(self.UNCHANGED, text)
        linking, = [line for line in self.planned(build, "sorted.exe").splitlines() if "-o sorted.exe" in line]
        self.assertIn(" -static ", linking)
        self.assertIn("qorCopy.cmake", linking)

    def for_linux(self):
        if options.zip:
            self.skipTest("a project for Windows uses the same files of CMake")

    def check_parent(self):
        build, text = self.configure_parent(CMAKE_INSTALL_PREFIX="/usr", CMAKE_INSTALL_LIBDIR="lib/of-a-kind")
        # Nothing has leaked into the project, and nothing of the framework is built or installed unasked.
        self.assertIn(self.UNCHANGED, text)
        plan = self.planned(build, "all")
        self.assertIn("-o sorted ", plan)
        self.assertIn("libqor.so", plan)
        for wrong in ("qortool", "qor-heap", "unit_tests", "gtest"):
            self.assertNotIn(f"bin/{wrong}", plan)
        own = [line for line in plan.splitlines() if "own.cpp.o -c" in line]
        self.assertEqual(len(own), 1)
        self.assertNotIn("-std=", own[0])
        self.assertNotIn("qorcore", own[0])
        code, text = run("ninja", "-C", build, "own")
        self.assertEqual(code, 0, text)
        root = self.folder / "root"
        code, text = run(options.cmake, "--install", build, "--prefix", root)
        self.assertEqual(code, 0, text)
        self.assertEqual([str(path.relative_to(root)) for path in root.rglob("*") if path.is_file()], ["bin/own"])
        return build

    def test_as_a_folder(self):
        self.for_linux()
        build = self.check_parent()
        self.check_copied(build)
        # What is installed in /usr stays there. The run path leads through no folder that is for development.
        made, = build.rglob("qor.pc")
        for words, expected in (["--libs"], "-Wl,-rpath,/usr/lib/of-a-kind/qor"), (["--cflags"], ""):
            code, text = run("pkg-config", *words, made)
            self.assertEqual((code, text.strip()), (0, expected))
        if not os.environ.get("QOR_TEST_WHOLE"):
            return
        code, text = run(options.cmake, "--build", build)
        self.assertEqual(code, 0, text)
        self.check_sorted(build / "sorted")

    def test_fetched_and_installed_to_another_folder_of_libraries(self):
        """Programs, headers, CMake and pkg-config agree on it."""
        self.for_linux()
        build, text = self.configure_parent(FETCHED="ON", CMAKE_INSTALL_LIBDIR="lib64/odd", QOR_INSTALL="ON",
                                            CMAKE_UNITY_BUILD="ON")
        self.assertIn(self.UNCHANGED, text)
        made, = build.rglob("qor.pc")
        own = made.parent
        self.assertIn('#define QOR_LIBRARY_FOLDER "../lib64/odd/qor"', (own / "library_folder.h").read_text())
        plan = self.planned(build, "sorted")
        self.assertRegex(plan, r'-DQOR_LIBRARY_FOLDER=\S*"../lib64/odd/qor')
        self.assertIn("sorted.dir/Unity/", plan)
        self.assertNotIn("qorcore_objects.dir/Unity/", plan)
        self.assertIn("lib64/odd/qor", (own / "qorConfig.cmake").read_text())
        self.assertIn("prefix=${pcfiledir}/../../..\n", made.read_text())
        code, text = run("pkg-config", "--libs", "--cflags", made)
        self.assertEqual(code, 0, text)

    def test_a_generator_with_several_configurations(self):
        self.for_linux()
        code, text = run(options.cmake, "-G", "Ninja Multi-Config", "-S", HERE / "parent", "-B", self.folder / "build",
                         f"-DQOR_SOURCE={SOURCE}", f"-DCMAKE_CXX_COMPILER={options.compiler}")
        self.assertNotEqual(code, 0)
        self.assertIn("qor takes a generator with one configuration", text)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--version", required=True)
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--build", type=Path)
    parser.add_argument("--prefix", type=Path)
    parser.add_argument("--packages", type=Path)
    parser.add_argument("--zip")
    parser.add_argument("--runner", help="what starts the programs, where they are another system's")
    parser.add_argument("--option", action="append", default=[], help="for the compiler")
    options, rest = parser.parse_known_args()
    if sum(each is not None for each in (options.build, options.packages, options.prefix, options.zip)) != 1:
        parser.error("one of --build, --packages, --prefix and --zip is needed")
    for name in ("build", "packages", "prefix"):
        if getattr(options, name):
            setattr(options, name, getattr(options, name).resolve())
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
