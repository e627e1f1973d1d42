#!/usr/bin/env python3
"""Unpacks the tar, uses it where it lies and elsewhere, installs, renews and removes it by install.sh.

    tar_test.py --build FOLDER --packages FOLDER --version VERSION --cmake PROGRAM --ninja PROGRAM
                --compiler C++
"""

import os
import subprocess
import sys
import tarfile
import unittest

import linux

MODULES = ("config", "network", "openssl", "pam", "store", "systemd")


def files_in(folder):
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_symlink() or path.is_file()}


def folders_in(folder):
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_dir()}


class Tar(linux.InFolder):
    def setUp(self):
        super().setUp()
        with tarfile.open(linux.tar()) as archive:
            archive.extractall(self.folder)
        self.tree, = self.folder.iterdir()

    def run_program(self, *words, code=0, **variables):
        done = subprocess.run(list(map(str, words)), env={**os.environ, "LC_ALL": "C", **variables},
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=120, cwd=self.folder)
        self.assertEqual(done.returncode, code, done.stdout)
        return done.stdout

    def install(self, *words, tree=None, **more):
        return self.run_program("sh", (tree or self.tree) / "install.sh", *words, **more)

    def uses(self, folder):
        """Runs programs of a folder: each finds the library, and the library its modules and catalogs."""
        tool = folder / "bin/qortool"
        self.assertIn("Sunday", self.run_program(tool, "--quiet", "dow", "28/3/2021"))
        self.assertIn("lo", self.run_program(tool, "--quiet", "netlist"))
        self.assertIn("Wochentag", self.run_program(tool, "help", code=1, QOR_LANGUAGE="de"))
        self.run_program(folder / "bin/qor-heap", "--help")

    def test_contents(self):
        names = files_in(self.tree)
        for name in ("install.sh", "include/qor/qor.h", "share/doc/qor/README.md", "share/doc/qor/docs/library.md",
                     "share/doc/qor/LICENCE", "share/doc/qor/THIRD-PARTY-NOTICES",
                     "share/doc/qor/reference/index.html"):
            self.assertIn(name, names)
        programs = {"qortool", "qor-check", "qor-debug-user", "qor-heap", "qor-record"}
        self.assertEqual({path.name for path in (self.tree / "bin").iterdir()}, programs)
        for each in programs:
            for name in (f"man/man1/{each}.1", f"bash-completion/completions/{each}", f"zsh/site-functions/_{each}",
                         f"fish/vendor_completions.d/{each}.fish"):
                self.assertIn(f"share/{name}", names)
        libraries = {name.rpartition("/")[2] for name in names if name.endswith(".so")}
        self.assertEqual(libraries, {"libqor.so", "libqor-record.so", *(f"qor-{each}.so" for each in MODULES)})
        for path in (self.tree / "bin").iterdir():
            listing = self.run_program("readelf", "-SW", path)
            self.assertNotIn(".debug_info", listing, path.name)
            self.assertNotIn(".symtab", listing, path.name)

    def test_it_runs_where_it_lies(self):
        self.uses(self.tree)
        moved = self.folder / "a place with blanks"
        self.tree.rename(moved)
        self.uses(moved)

    def test_installed_and_removed(self):
        prefix = self.folder / "some where/installed"
        text = self.install("--prefix", prefix)
        self.assertIn(f"qor is installed in {prefix}.\n", text)
        self.assertIn(f"The programs are in {prefix}/bin, which is not in PATH.\n", text)
        self.assertEqual(files_in(prefix) - {"share/qor/installed"}, files_in(self.tree) - {"install.sh"})
        self.uses(prefix)
        # What others have put there stays, and so does a folder that they use.
        (prefix / "bin/other").write_text("")
        self.assertEqual(self.install("--uninstall", "--prefix", prefix), f"qor is removed from {prefix}.\n")
        self.assertEqual(files_in(prefix), {"bin/other"})
        self.assertEqual(folders_in(prefix), {"bin"})

    def test_into_folders_of_others(self):
        """Folders that were there stay, even if they are empty."""
        prefix = self.folder / "prefix"
        for name in ("bin", "lib", "share/man"):
            (prefix / name).mkdir(parents=True)
        self.install(f"--prefix={prefix}")
        self.install("--uninstall", f"--prefix={prefix}")
        self.assertEqual((files_in(prefix), folders_in(prefix)), (set(), {"bin", "lib", "share", "share/man"}))

    def test_a_relative_prefix(self):
        self.install("--prefix", "here", PATH=f"{self.folder}/here/bin:{os.environ['PATH']}")
        self.uses(self.folder / "here")

    def test_the_home_of_a_user(self):
        home = self.folder / "home"
        words = ["env", f"HOME={home}", "sh", self.tree / "install.sh"]
        if os.geteuid() == 0:
            home.mkdir()
            os.chown(home, 65534, 65534)
            self.folder.chmod(0o755)
            words = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *words]
        self.run_program(*words)
        self.uses(home / ".local")
        self.run_program(*words, "--uninstall")
        self.assertEqual(files_in(home), set())

    @unittest.skipUnless(os.geteuid() == 0, "this takes root")
    def test_what_root_installs(self):
        """It belongs to root, and everybody can use it, whoever has unpacked the tar."""
        for path in [self.tree, *self.tree.rglob("*")]:
            os.chown(path, 65534, 65534)
            path.chmod(path.stat().st_mode & 0o700)
        prefix = self.folder / "prefix"
        self.run_program("sh", "-c", f"umask 077; {self.tree}/install.sh --prefix {prefix}")
        for path in [prefix, *prefix.rglob("*")]:
            found = path.stat()
            self.assertEqual((found.st_uid, found.st_gid), (0, 0), path)
            expected = 0o755 if path.is_dir() or path.parent.name == "bin" else 0o644
            self.assertEqual(found.st_mode & 0o7777, expected, path)

    def test_a_newer_one(self):
        """It replaces the older one: files that it does not have any more are gone."""
        prefix = self.folder / "prefix"
        old = self.tree / "share/old"
        old.mkdir(parents=True)
        (old / "file").write_text("")
        (self.tree / "bin/qor-old").write_text("")
        self.install("--prefix", prefix)
        self.assertTrue((prefix / "share/old/file").is_file())
        (self.tree / "bin/qor-old").unlink()
        (old / "file").unlink()
        old.rmdir()
        running = subprocess.Popen([prefix / "bin/qortool", "--quiet", "timer-check"], stdout=subprocess.DEVNULL)
        self.addCleanup(running.wait)
        self.addCleanup(running.kill)
        before = (prefix / "bin/qortool").stat().st_ino
        self.install("--prefix", prefix)
        self.assertNotEqual((prefix / "bin/qortool").stat().st_ino, before)
        self.assertIsNone(running.poll())
        self.assertEqual(files_in(prefix) - {"share/qor/installed"}, files_in(self.tree) - {"install.sh"})
        self.assertNotIn("share/old", folders_in(prefix))
        self.install("--uninstall", "--prefix", prefix)
        self.assertFalse(prefix.exists())

    def test_what_is_missing(self):
        """A module whose library is missing is named, with the library; everything else is installed and works."""
        self.assertEqual(self.install("--check"), "Nothing is missing on this host.\n")
        module, = self.tree.glob("lib*/**/qor-store.so")
        contents = module.read_bytes()
        self.assertIn(b"libsqlite3.so.0", contents)
        module.write_bytes(contents.replace(b"libsqlite3.so.0", b"libsqlite9.so.0"))
        text = "qor-store.so needs libsqlite9.so.0, which is missing here.\nEverything else works.\n"
        self.assertEqual(self.install("--check"), text)
        self.assertIn(text, self.install("--prefix", self.folder / "prefix"))
        self.uses(self.folder / "prefix")

    def test_what_to_install(self):
        """The Debian package of a library that the loader does not find, here of all of them."""
        tools = self.folder / "tools"
        tools.mkdir()
        (tools / "ldd").write_text("#!/bin/sh\ncase $1 in */qor-openssl.so) printf '\\tlibcrypto.so.3 => not found"
                                   "\\n\\tlibc.so.6 => /lib/libc.so.6 (0x7)\\n' ;; esac\n")
        (tools / "ldconfig").write_text("#!/bin/sh\necho '\tlibz.so.1 (libc6) => /lib/libz.so.1'\n")
        for each in tools.iterdir():
            each.chmod(0o755)
        self.assertEqual(self.install("--check", PATH=f"{tools}:{os.environ['PATH']}"),
                         "qor-openssl.so needs libcrypto.so.3, which is missing here. "
                         "In Debian the package is libssl3.\n"
                         "What reads logs that zstd has compressed needs libzstd.so.1, which is missing here. "
                         "In Debian the package is libzstd1.\n"
                         "What reads functions and lines of addresses needs libdw.so.1, which is missing here. "
                         "In Debian the package is libdw1.\nEverything else works.\n")

    def test_each_library_has_a_package(self):
        """Those that the modules need, and those that are loaded."""
        script = (self.tree / "install.sh").read_text()
        for path in [*self.tree.glob("bin/*"), *self.tree.glob("lib*/**/*.so")]:
            for line in self.run_program("readelf", "-dW", path).splitlines():
                if "(NEEDED)" in line:
                    name = line.split("[")[1].rstrip("]")
                    if name not in ("libc.so.6", "libm.so.6", "ld-linux-x86-64.so.2"):
                        self.assertTrue(any(each in script for each in (name, name.rsplit(".", 1)[0] + ".*")), name)

    def test_a_host_where_nothing_runs(self):
        (self.tree / "bin/qortool").write_text("#!/bin/sh\necho 'no such loader' >&2\nexit 127\n")
        prefix = self.folder / "prefix"
        self.assertEqual(self.install("--prefix", prefix, code=1),
                         "The programs do not run on this host:\nno such loader\n")
        self.assertFalse(prefix.exists())

    def test_what_is_refused(self):
        usage = "usage: install.sh [--prefix FOLDER] [--uninstall | --check]\n"
        for words in (("--prefix",), ("--prefix", ""), ("--prefix=",), ("--remove",), ("somewhere",)):
            with self.subTest(words=words):
                self.assertEqual(self.install(*words, code=1), usage)
        self.assertEqual(self.install("--help"), usage)
        self.assertEqual(self.install("--uninstall", "--prefix", self.folder, code=1),
                         f"There is no qor in {self.folder} that this script has installed.\n")
        self.assertIn("is the folder of this script", self.install("--prefix", self.tree, code=1))
        (self.folder / "file").write_text("")
        self.assertIn("cannot be written", self.install("--prefix", self.folder / "file", code=1))


class Reproducible(linux.InFolder):
    def test_the_same_build_gives_the_same_tar(self):
        """Another day, another folder, and files of other times."""
        for path in linux.options.build.glob("bin/qor/*.msg"):
            os.utime(path)
        done = linux.pack_tar(self.folder / "out", TZ="Asia/Tokyo", LC_ALL="C", TMPDIR=str(self.folder))
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertEqual((self.folder / "out" / linux.tar().name).read_bytes(), linux.tar().read_bytes())

    def test_entries(self):
        with tarfile.open(linux.tar()) as archive:
            entries = archive.getmembers()
        names = [entry.name for entry in entries]
        self.assertEqual(len(names), len(set(names)))
        self.assertEqual({(entry.uname, entry.gname, entry.uid, entry.gid, entry.mtime) for entry in entries},
                         {("root", "root", 0, 0, linux.TIME)})
        for entry in entries:
            program = entry.isdir() or "/bin/" in entry.name or entry.name.endswith("/install.sh")
            self.assertEqual(entry.mode, 0o755 if program else 0o644, entry.name)

    def test_faults(self):
        done = linux.pack_tar(self.folder, build=self.folder)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, "^pack.py: ")
        done = linux.pack_tar(self.folder, SOURCE_DATE_EPOCH="yesterday")
        self.assertEqual((done.returncode, done.stdout),
                         (1, "pack.py: SOURCE_DATE_EPOCH: 'yesterday' is not a number of seconds up to 4294967295\n"))


if __name__ == "__main__":
    sys.exit(linux.main())
