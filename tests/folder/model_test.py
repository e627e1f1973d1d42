#!/usr/bin/env python3
"""Compares the operations of folders with those of Python's os, shutil and tempfile, in whole runs.

    model_test.py --driver PROGRAM [--runner PROGRAM] [--count N] [--seed N]

Two trees begin empty. Random operations change one of them through the framework and the other through Python, and must
have the same results; after each of them, the trees must be the same.
"""

import argparse
import os
import random
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from line_driver import KINDS, Driver, decode, failed  # noqa: E402  # in tests/support

options = None


def command():
    return [*([options.runner] if options.runner else []), options.driver]


def snapshot(tree):
    """Returns everything in a tree, with the targets of links and the contents of files."""
    found = {}
    for folder, names, files in os.walk(tree):
        for name in names + files:
            path = os.path.join(folder, name)
            short = os.path.relpath(path, tree)
            if os.path.islink(path):
                found[short] = ("link", os.readlink(path))
            elif os.path.isdir(path):
                found[short] = ("folder",)
            else:
                found[short] = ("file", Path(path).read_bytes())
    return found


def rename_only_new(old, new):
    if os.path.lexists(new):
        raise FileExistsError(new)
    os.rename(old, new)


# The operations as Python has them. Each raises OSError where the framework must fail, too.
MODEL = {
    "create": os.mkdir,
    "create-path": lambda path: os.makedirs(path, exist_ok=True),
    "delete-tree": shutil.rmtree,
    "delete": os.unlink,
}


class Model(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.driver = Driver(command()).__enter__()
        self.addCleanup(self.driver.__exit__)

    def random_path(self, some):
        names = ["a", "b", "größe", "with blank", "c"]
        return "/".join(some.choice(names) for _ in range(some.choice([1, 1, 2, 2, 3, 4])))

    def one_step(self, some, ours, theirs):
        """Applies one operation to both trees. Returns its name and both results."""
        path = self.random_path(some)
        what = some.choice(["create", "create-path", "create-path", "file", "link", "delete-tree", "delete", "rename",
                            "rename", "replace"])
        if what == "link" and options.runner:
            what = "file"
        if what in ("file", "link"):
            # Not operations of this family: both trees get the same.
            target = some.choice(["a", "nowhere"])
            for tree in (ours, theirs):
                try:
                    if what == "file":
                        (tree / path).write_bytes(path.encode())
                    else:
                        os.symlink(target, tree / path)
                except OSError:
                    pass
            return None
        if what in ("rename", "replace"):
            other = self.random_path(some)
            answer = self.driver.ask("rename", ours / path, ours / other, int(what == "replace"))
            rename = os.replace if what == "replace" else rename_only_new
            model = lambda: rename(theirs / path, theirs / other)  # noqa: E731
        else:
            other = None
            answer = self.driver.ask(what, ours / path)
            model = lambda: MODEL[what](theirs / path)  # noqa: E731
        try:
            model()
            return (what, path, other), answer, None
        except OSError as error:
            return (what, path, other), answer, error

    def test_random_operations(self):
        done = refused = 0
        for seed in range(options.seed, options.seed + options.count):
            some = random.Random(seed)
            ours, theirs = self.folder / f"ours{seed}", self.folder / f"theirs{seed}"
            ours.mkdir()
            theirs.mkdir()
            for step in range(60):
                result = self.one_step(some, ours, theirs)
                if result is not None:
                    what, answer, error = result
                    with self.subTest(seed=seed, step=step, what=what):
                        if options.runner and what[0] in ("rename", "replace"):
                            # Windows replaces no folder at all, and POSIX an empty one.
                            if failed(answer) and error is None:
                                shutil.rmtree(theirs)
                                shutil.copytree(ours, theirs, symlinks=True)
                                continue
                        self.assertEqual(failed(answer), error is not None, (answer, error))
                        if failed(answer):
                            self.assertIn(what[1].split("/")[0], answer[1])
                    done += error is None
                    refused += error is not None
                self.assertEqual(snapshot(ours), snapshot(theirs), (seed, step))
        # Neither success nor failure is rare.
        self.assertGreater(done, 10 * options.count)
        self.assertGreater(refused, 10 * options.count)

    def test_contents_and_information(self):
        (self.folder / "folder").mkdir()
        (self.folder / "file").write_bytes(b"x" * 100_001)
        os.utime(self.folder / "file", ns=(1_234_567_890_123_456_789, 1_600_000_000_987_654_321))
        if not options.runner:
            os.symlink("file", self.folder / "link")
            os.symlink("nowhere", self.folder / "dangling")
            os.mkfifo(self.folder / "pipe", 0o640)
            (self.folder / os.fsdecode(b"\xff\xfe no text")).write_bytes(b"?")
            os.link(self.folder / "file", self.folder / "second name")
        entries = {}
        for word in self.driver.ask("list", self.folder):
            name, kind, size, modified = word.split(",")
            entries[decode(name)] = (KINDS[int(kind)], int(size), int(modified))
        expected = {}
        for entry in os.scandir(os.fsencode(self.folder)):
            status = entry.stat(follow_symlinks=False)
            expected[entry.name] = (self.kind(status.st_mode), self.size(status), status.st_mtime_ns // 100 * 100)
        self.assertEqual(entries, expected)
        for name in expected:
            path = os.path.join(os.fsencode(self.folder), name)
            for follow in (0, 1):
                with self.subTest(name=name, follow=follow):
                    # Before the operation, because reading a link counts as an access.
                    try:
                        status = os.stat(path, follow_symlinks=bool(follow))
                    except OSError:
                        status = None
                    answer = self.driver.ask("info", path, follow)
                    if status is None:
                        self.assertTrue(failed(answer))
                        continue
                    rights, size, links, allocated, owner, group, index, kind = answer[:8]
                    modified, accessed, changed = answer[8:11]
                    self.assertEqual(KINDS[int(kind)], self.kind(status.st_mode))
                    self.assertEqual(int(size), self.size(status))
                    if options.runner:
                        continue
                    self.assertEqual(int(links), status.st_nlink)
                    self.assertEqual(int(modified), status.st_mtime_ns)
                    self.assertEqual(int(accessed), status.st_atime_ns)
                    self.assertEqual(int(changed), status.st_ctime_ns)
                    self.assertEqual(int(rights), stat.S_IMODE(status.st_mode))
                    self.assertEqual(int(allocated), status.st_blocks * 512)
                    self.assertEqual([int(owner), int(group)], [status.st_uid, status.st_gid])
                    self.assertEqual(int(index), status.st_ino)
                    self.assertEqual(decode(answer[11]).decode(), self.owner(status))
                    self.assertEqual(decode(answer[13]), os.readlink(path) if stat.S_ISLNK(status.st_mode) else b"")

    @staticmethod
    def owner(status):
        import pwd
        return pwd.getpwuid(status.st_uid).pw_name

    @staticmethod
    def kind(mode):
        kinds = {stat.S_IFREG: "file", stat.S_IFDIR: "folder", stat.S_IFLNK: "link", stat.S_IFIFO: "pipe"}
        return kinds[stat.S_IFMT(mode)]

    @staticmethod
    def size(status):
        return status.st_size if stat.S_ISREG(status.st_mode) or stat.S_ISLNK(status.st_mode) else 0

    def test_unique_folders_are_private(self):
        made = {decode(self.driver.ask("unique", self.folder, "p-")[0]) for _ in range(50)}
        self.assertEqual(len(made), 50)
        example = tempfile.mkdtemp(prefix="p-", dir=self.folder)
        for path in made:
            path = os.fsdecode(path)
            self.assertTrue(os.path.isdir(path) or options.runner)
            if not options.runner:
                self.assertEqual(os.path.dirname(path), str(self.folder))
                self.assertTrue(os.path.basename(path).startswith("p-"))
                self.assertEqual(os.stat(path).st_mode, os.stat(example).st_mode)

    def test_the_temporary_folder_is_pythons(self):
        if options.runner:
            self.skipTest("the temporary folder of Windows is not the one of this Python")
        self.assertEqual(os.fsdecode(decode(self.driver.ask("temporary")[0])), tempfile.gettempdir())
        with Driver(command(), {"TMPDIR": str(self.folder)}) as other:
            self.assertEqual(os.fsdecode(decode(other.ask("temporary")[0])), str(self.folder))
        with Driver(command(), {"TMPDIR": str(self.folder / "missing")}) as other:
            number, text = other.ask("temporary")
            self.assertEqual(text, f"Cannot use '{self.folder / 'missing'}' as the folder for temporary files: "
                                   "No such file or directory.")

    def test_the_removable_disks_are_a_list(self):
        self.assertFalse(failed(self.driver.ask("disks")))

    def test_a_full_and_a_read_only_file_system(self):
        """In a name space of its own, where a file system of two pages and a read-only one can be mounted."""
        if options.runner or subprocess.run(["unshare", "-rm", "true"], stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no name space here")
        for name in ("full", "read-only"):
            (self.folder / name).mkdir()
        (self.folder / "read-only/below").mkdir()
        script = ('mount -t tmpfs -o nr_inodes=3 none "$1/full" && mount --bind "$1/read-only" "$1/read-only" && '
                  'mount -o remount,bind,ro "$1/read-only" && exec "$2"')
        with Driver(["unshare", "-rm", "sh", "-c", script, "sh", self.folder, options.driver]) as driver:
            self.assertFalse(failed(driver.ask("create-path", self.folder / "full/a/b")))
            number, text = driver.ask("create-path", self.folder / "full/a/b/c/d")
            self.assertTrue(text.endswith(": No space left on device."), text)
            self.assertTrue(text.startswith(f"Cannot create the folder '{self.folder}/full/a/b"), text)
            number, text = driver.ask("delete-tree", self.folder / "full")
            self.assertEqual(text, f"Cannot delete '{self.folder}/full': a file system is mounted there.")
            self.assertFalse(failed(driver.ask("delete-tree", self.folder / "full/a")))
            number, text = driver.ask("delete-tree", self.folder)
            self.assertTrue(text.endswith(": a file system is mounted there."), text)
            for words in (["create", "read-only/new"], ["delete-tree", "read-only/below"],
                          ["rename", "read-only/below", "read-only/new"]):
                paths = [self.folder / word for word in words[1:]]
                answer = driver.ask(words[0], *paths, *([0] if words[0] == "rename" else []))
                self.assertTrue(failed(answer), answer)
                self.assertTrue(answer[1].endswith(": Read-only file system."), answer)
                self.assertIn(str(paths[0]), answer[1])
            self.assertFalse(failed(driver.ask("create-path", self.folder / "read-only/below")))
        self.assertTrue((self.folder / "read-only/below").is_dir())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--runner")
    parser.add_argument("--count", type=int, default=40)
    parser.add_argument("--seed", type=int, default=1)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])
