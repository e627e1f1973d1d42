#!/usr/bin/env python3
"""Looks into the packages for Debian: names, versions, dependencies, contents, and what lintian finds.

    debian_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --ninja PROGRAM
                   --compiler C++
"""

import hashlib
import importlib.util
import json
import re
import shlex
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

import linux

HEAVY = {"libqor-network": "libmnl0", "libqor-openssl": "libssl3", "libqor-pam": "libpam0g",
         "libqor-store": "libsqlite3-0", "libqor-systemd": "libsystemd0"}
BINARIES = {"qortool", "libqor", *HEAVY}


def contents(package):
    """Returns the paths of the files in a package."""
    listing = subprocess.check_output(["dpkg-deb", "--contents", package], text=True)
    return {line.split(None, 5)[5].split(" -> ")[0] for line in listing.splitlines() if not line.startswith("d")}


class Packages(linux.InFolder):
    def test_names_and_versions(self):
        debug = {f"{each}-dbgsym" for each in BINARIES}
        self.assertEqual(set(linux.debian()), {*BINARIES, *debug, "libqor-dev", "qor-doc"})
        first = (linux.SOURCE / "packages/debian/changelog").read_text().split("\n", 1)[0]
        version = re.match(r"qor \((.*?)\) ", first).group(1)
        self.assertTrue(version.startswith(linux.options.version + "-"))
        for name, path in linux.debian().items():
            self.assertEqual(linux.field(path, "Version"), version, name)

    def test_a_host_without_heavy_libraries(self):
        """What the tools and the library cannot do without is small and in every Debian."""
        for name in "libqor", "qortool":
            needs = {each.split()[0] for each in linux.field(linux.debian(name), "Depends").split(", ")}
            self.assertLessEqual(needs, {"libc6", "libqor", "libgcc-s1"}, name)
        self.assertEqual(linux.field(linux.debian("qor-doc"), "Depends"), "")

    def test_dependencies(self):
        version = linux.field(linux.debian("libqor"), "Version")
        for name in {*BINARIES, "libqor-dev"} - {"libqor"}:
            self.assertIn(f"libqor (= {version})", linux.field(linux.debian(name), "Depends"))
        for name, library in HEAVY.items():
            needs = {each.split()[0] for each in linux.field(linux.debian(name), "Depends").split(", ")}
            self.assertIn(library, needs, name)
        self.assertIn("libqor-config", linux.field(linux.debian("libqor"), "Provides"))
        # A message names the package of each module; qor-config is in libqor.
        modules = {path.parent.name for path in linux.SOURCE.glob("qorcore/modules/*/module.cpp")}
        self.assertEqual({f"libqor-{each}" for each in modules}, {*HEAVY, "libqor-config"})

    def test_several_processors(self):
        """Packages of two processors can be installed together if all files in the same place are the same. The headers
        are not: one of them names the folder of libraries."""
        for name in (*BINARIES - {"qortool"}, "libqor-dev"):
            alike = linux.field(linux.debian(name), "Multi-Arch") == "same"
            self.assertEqual(alike, name != "libqor-dev", name)
            self.assertEqual(alike, not any("/include/" in path for path in contents(linux.debian(name))), name)

    def test_contents(self):
        place = {}
        for name, path in linux.debian().items():
            for each in contents(path):
                self.assertNotIn(each, place, f"in {name} and {place.get(each)}")
                place[each] = name
        where = {path.rpartition("/")[2]: name for path, name in place.items() if "/doc/" not in path}
        for file, package in {"qortool": "qortool", "qor-record": "qortool", "qor-heap": "qortool",
                              "qor-debug-user": "qortool", "qor-check": "qortool", "libqor-record.so": "qortool",
                              "qortool.de.msg": "qortool", "qor-heap.fr.msg": "qortool", "libqor.so": "libqor",
                              "qor-config.so": "libqor", "qorcore.de.msg": "libqor", "qor-pam.so": "libqor-pam",
                              "qor.h": "libqor-dev", "qorConfig.cmake": "libqor-dev", "qor.pc": "libqor-dev",
                              **{f"qor-{each[7:]}.so": each for each in HEAVY}}.items():
            self.assertEqual(where.get(file), package, file)
        for path in "docs/library.md", "reference/index.html":
            self.assertEqual(place[f"./usr/share/doc/qor/{path}"], "qor-doc")
        self.assertEqual(place["./usr/share/doc-base/qor-doc.qor-reference"], "qor-doc")
        # Each program has a page and completions, each format a page.
        programs = {path.rpartition("/")[2] for path in place if path.startswith("./usr/bin/")}
        for each in programs:
            for file in f"man1/{each}.1.gz", f"completions/{each}", f"_{each}", f"vendor_completions.d/{each}.fish":
                found = [name for path, name in place.items() if path.endswith(f"/{file}")]
                self.assertEqual(found, ["qortool"], file)
        self.assertEqual({path.rpartition("/")[2] for path in place if "/man/man5/" in path},
                         {f"{path.name[:-3]}.gz" for path in linux.SOURCE.glob("manual/pages/*.5.in")})
        if linux.WHOLE:
            self.assertIn("./usr/share/zsh/vendor-completions/_qortool", place)
        # The library is private: it lies where no loader looks.
        for path in place:
            if path.endswith(".so"):
                self.assertRegex(path, r"^\./usr/lib/([^/]+/)?qor/[^/]+$")
        for name in linux.debian():
            if not name.endswith("-dbgsym"):
                self.assertEqual(place[f"./usr/share/doc/{name}/copyright"], name)
                notices = f"./usr/share/doc/{name}/THIRD-PARTY-NOTICES"
                self.assertTrue({notices, f"{notices}.gz"} & set(place), name)

    def test_the_licence_stands_in_one_place(self):
        licence = (linux.SOURCE / "LICENCE").read_text()
        subprocess.run(["dpkg-deb", "--extract", linux.debian("libqor"), self.folder], check=True)
        text = (self.folder / "usr/share/doc/libqor/copyright").read_text()
        self.assertIn("".join(f" {line}\n" for line in licence.splitlines()), text)
        self.assertNotIn("@", text.replace("@qor.example", ""))

    def test_debug_information(self):
        """It belongs to the files of its package, by their identifiers."""
        for name in BINARIES:
            plain, debug = self.folder / name, self.folder / f"{name}-dbgsym"
            subprocess.run(["dpkg-deb", "--extract", linux.debian(name), plain], check=True)
            subprocess.run(["dpkg-deb", "--extract", linux.debian(f"{name}-dbgsym"), debug], check=True)
            binaries = [path for path in [*plain.glob("usr/bin/*"), *plain.glob("usr/lib/**/*.so")]]
            self.assertTrue(binaries)
            for path in binaries:
                notes = subprocess.check_output(["readelf", "-nSW", path], text=True)
                mark = re.search(r"Build ID: ([0-9a-f]{2})([0-9a-f]+)", notes)
                self.assertNotIn(".debug_info", notes)
                found = debug / "usr/lib/debug/.build-id" / mark.group(1) / f"{mark.group(2)}.debug"
                self.assertIn(".debug_info", subprocess.check_output(["readelf", "-SW", found], text=True), path.name)
                if linux.WHOLE:
                    subprocess.run(["objcopy", "--decompress-debug-sections", found], check=True)
                    for each in path, found:
                        self.assertNotIn(bytes(linux.options.build.parent), each.read_bytes(), each.name)

    @unittest.skipUnless(linux.WHOLE, "these packages have the options for the compiler of this build")
    def test_hardening(self):
        for name in BINARIES:
            subprocess.run(["dpkg-deb", "--extract", linux.debian(name), self.folder], check=True)
        for path in [*self.folder.glob("usr/bin/*"), *self.folder.glob("usr/lib/**/*.so")]:
            with self.subTest(file=path.name):
                header = subprocess.check_output(["readelf", "-hldW", path], text=True)
                self.assertIn("DYN", header)
                self.assertIn("GNU_RELRO", header)
                self.assertRegex(header, r"BIND_NOW|Flags:.* NOW")
                self.assertNotRegex(header, r"GNU_STACK.*RWE")

    def test_lintian(self):
        changes, = linux.options.packages.glob("*.changes")
        done = subprocess.run(["lintian", "--allow-root", "--no-cfg", "--color", "never", "-I", changes], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600)
        lines = done.stdout.splitlines()
        faults = [line for line in lines if line.startswith(("E:", "W:"))]
        if not linux.WHOLE:
            # The build of the tests has its libraries in `lib`, not in a folder of its processor.
            faults = [line for line in faults if not re.search(r": (arch-dependent-file-not-in-arch-specific-directory|"
                                                               r"pkg-config-unavailable-for-cross-compilation) ", line)]
        self.assertEqual(faults, [])
        # Anything else than a list of findings is a failure of lintian itself.
        self.assertTrue(all(re.match(r"[EWIN]: ", line) for line in lines if line), done.stdout)


class Made(linux.InFolder):
    def test_the_same_build_gives_the_same_packages(self):
        """Another day, another folder, files of other times, other settings of the user."""
        if linux.WHOLE:
            # Those that were compiled are compared by hand, because that takes long.
            before = self.folder / "before"
            done = linux.pack_debian(self.folder / "first", before)
            self.assertEqual(done.returncode, 0, done.stdout)
        else:
            before = linux.options.packages
        done = linux.pack_debian(self.folder / "another place", self.folder / "out", TZ="Asia/Tokyo", LC_ALL="C",
                                 TMPDIR=str(self.folder), DEB_BUILD_OPTIONS="nodoc parallel=1")
        self.assertEqual(done.returncode, 0, done.stdout)
        packages = sorted(before.glob("*.deb"))
        self.assertEqual(len(packages), len(linux.debian()))
        for path in packages:
            with self.subTest(package=path.name):
                self.assertEqual(*(hashlib.sha256(each.read_bytes()).hexdigest()
                                   for each in (path, self.folder / "out" / path.name)))

    def test_names_of_sources(self):
        """Debug information does not name the folder of the build, even one with a blank, where dpkg-buildflags leaves
        its map of names out."""
        source = self.folder / "a place" / "qor"
        place = linux.SOURCE / "packages/debian/pack.py"
        spec = importlib.util.spec_from_file_location("pack_for_debian", place)
        pack = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(pack)
        pack.copy_tree(source)
        pack.copy_rules(source / "debian")
        done = subprocess.run(["debian/rules", "override_dh_auto_configure"], cwd=source, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=600)
        self.assertEqual(done.returncode, 0, done.stdout)
        path, = source.glob("obj-*/compile_commands.json")
        commands = [shlex.split(entry["command"]) for entry in json.loads(path.read_text())]
        self.assertGreater(len(commands), 200)
        for words in commands:
            self.assertIn(f"-ffile-prefix-map={source}/=/qor/", words)

    def test_a_time_that_is_none(self):
        done = linux.pack_debian(self.folder / "work", self.folder / "out", SOURCE_DATE_EPOCH="yesterday")
        self.assertEqual((done.returncode, done.stdout),
                         (1, "pack.py: SOURCE_DATE_EPOCH: 'yesterday' is not a number of seconds up to 4294967295\n"))

    def test_times(self):
        """No file is newer than SOURCE_DATE_EPOCH."""
        for path in linux.debian().values():
            listing = subprocess.check_output(["dpkg-deb", "--contents", path], text=True, env={"TZ": "UTC"})
            self.assertLessEqual({line.split()[3] for line in listing.splitlines()}, {"2023-11-14"}, path.name)

    def test_a_changelog_of_another_version(self):
        tree = self.folder / "tree"
        shutil.copytree(linux.SOURCE / "packages", tree / "packages")
        header = Path("qorcore/include/qor/system/Version.h")
        (tree / header).parent.mkdir(parents=True)
        shutil.copy(linux.SOURCE / header, tree / header)
        changelog = tree / "packages/debian/changelog"
        changelog.write_text(changelog.read_text().replace(linux.options.version, "0.1"))
        words = ["--work", self.folder / "work", "--out", self.folder / "out"]
        done = subprocess.run([sys.executable, tree / "packages/debian/pack.py", *words], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, rf"^pack\.py: .*/changelog: the first entry is 'qor \(0\.1-.*', and the version "
                                      rf"of the tree is {re.escape(linux.options.version)}\n$")


if __name__ == "__main__":
    sys.exit(linux.main())
