#!/usr/bin/env python3
"""Records programs, together with other observers of the same run: the C library's own tracing of malloc, and a library that
counts the calls.

    oracles_test.py --bin FOLDER --record PROGRAM --tool QORTOOL

Both are preloaded behind the recorder, so that they see what it passes on: the same blocks at the same addresses. The
C library's tracing begins later, and tells nothing of threads in the right order; the programs here have one thread.
"""

import argparse
import collections
import re
import struct
import subprocess
import sys
import unittest

import recorded_runs
from recorded_runs import MARKER

PYTHON = """
import collections, json, re
tables = [collections.Counter(re.findall("[a-z]+", json.dumps(list(range(i))) + str(i) * 20)) for i in range(300)]
class node: pass
for i in range(2000):
    one, other = node(), node()
    one.other, other.one = other, one
print(len(tables))
"""

SQL = ("create table t(a, b text); create index i on t(b);"
       "with recursive n(x) as (select 1 union all select x + 1 from n where x < 3000) insert into t select x, x || 'text' from n;"
       "select count(*), sum(length(b)) from t where b like '%7%' group by a % 7;")

SOURCE = """
#include <map>
#include <string>
#include <vector>
template <int N> struct each : each<N - 1> { std::map<int, std::vector<std::string>> member; };
template <> struct each<0> {};
int main() { each<30> all; all.member[1].push_back("text"); return static_cast<int>(all.member.size()) - 1; }
"""


class Programs(recorded_runs.RecordedRuns):
    """Each gives the command of a program."""

    def python(self):
        return ["python3", "-S", "-c", PYTHON]

    def sqlite(self):
        return ["sqlite3", ":memory:", SQL]

    def compiler(self):
        (self.folder / "source.cpp").write_text(SOURCE)
        cc1plus = subprocess.run(["g++", "-print-prog-name=cc1plus"], check=True, capture_output=True, text=True).stdout.strip()
        search = subprocess.run(["g++", "-print-multiarch"], check=True, capture_output=True, text=True).stdout.strip()
        return [cc1plus, "-quiet", "-O1", *(["-imultiarch", search] if search else []), "-D_GNU_SOURCE", "source.cpp", "-o",
                "/dev/null"]

    def git(self):
        def git(*words):
            subprocess.run(["git", *words], cwd=self.folder / "tree", env=self.environment, check=True, capture_output=True)
        (self.folder / "tree").mkdir()
        git("init", "-q")
        git("config", "user.name", "Ann")
        git("config", "user.email", "ann@example.org")
        for i in range(8):
            (self.folder / "tree" / f"file{i % 3}").write_text("".join(f"line {j} of {i}\n" for j in range(i * 20)))
            git("add", ".")
            git("commit", "-q", "-m", f"commit {i}")
        return ["git", "-C", "tree", "--no-pager", "log", "-p", "--stat"]

    def samples(self):
        """The programs of scripts/record-samples that have one process."""
        (self.folder / "tiny.c").write_text("int twice(int x) { return 2 * x; }\nint main(void) { return twice(0); }\n")
        (self.folder / "build.ninja").write_text("rule copy\n  command = cp $in $out\n" + "".join(
            f"build out/{i}: copy tiny.c\n" for i in range(1, 41)))
        cc1 = subprocess.run(["gcc", "-print-prog-name=cc1"], check=True, capture_output=True, text=True).stdout.strip()
        return [["perl", "-e", 'my %h; $h{$_ % 7} .= "x" x $_ for 1..50; print map { "$_\n" } sort keys %h'],
                [cc1, "-quiet", "-fsyntax-only", "tiny.c"], ["ls", "-l", "/"], ["ninja", "-n"]]

    def planted(self):
        self.environment["PLANTED"] = "vector"
        return [self.options.bin / "planted_leaks"]


class TracingOfTheCLibrary(Programs):
    def check(self, command):
        self.record(*self.with_libraries("c_library_tracing.so", "libc_malloc_debug.so.0", TRACED=self.folder / "traced"),
                    *command)
        # The marker parts what that tracing has seen from what came before.
        ours = self.folder / "log.mtrace"
        lines = ours.read_text(errors="surrogateescape").splitlines(keepends=True)
        place = next(i for i, line in enumerate(lines) if re.search(rf" \+ 0x[0-9a-f]+ {MARKER:#x}$", line))
        (self.folder / "later").write_text("= Start\n" + "".join(lines[place:]), errors="surrogateescape")
        (traced,) = self.folder.glob("traced.*")
        theirs, _ = self.by_script(traced)
        self.assertEqual(sum(size == MARKER for _, size in theirs), 1)
        self.assert_same(self.by_script("later")[0], theirs)
        leaks = set(self.by_both("log.mtrace"))
        self.assertEqual([leak for leak in theirs if leak not in leaks], [])
        return theirs

    def test_planted(self):
        self.assertEqual({size for _, size in self.check(self.planted())} & {24, 4096}, {24, 4096})

    def test_samples(self):
        for command in self.samples():
            with self.subTest(command):
                for log in self.folder.glob("traced.*"):
                    log.unlink()
                self.check(command)

    def test_python(self):
        self.assertGreater(len(self.check(self.python())), 10)

    def test_sqlite(self):
        self.check(self.sqlite())

    def test_compiler(self):
        self.assertGreater(len(self.check(self.compiler())), 1000)

    def test_git(self):
        self.assertGreater(len(self.check(self.git())), 10)


class Counts(Programs):
    def check(self, command):
        """[(allocations, reallocations, releases)] of all processes."""
        self.record(*self.with_libraries("counting.so", COUNTING=self.folder / "counts"), *command)
        counted, replaced = collections.Counter(), collections.Counter()
        for path in self.folder.glob("counts.*"):
            counts = struct.unpack("=3Q", path.read_bytes())
            _, process, number = path.name.split(".")
            counted[counts] += 1
            # Nothing is left of a child that is forked to execute another program.
            replaced[counts] += path.with_name(f"counts.{process}.{int(number) + 1}").exists()
        recorded = collections.Counter()
        for name in self.logs():
            recorded[self.counts(self.recording(name))] += 1
        self.assertEqual(recorded - counted, collections.Counter())
        self.assertEqual(counted - recorded - replaced, collections.Counter())
        return list(recorded.elements())

    def test_planted(self):
        self.check(self.planted())

    def test_every_function(self):
        self.check([self.options.bin / "every_function"])

    def test_python(self):
        (counts,) = self.check(self.python())
        self.assertGreater(min(counts), 100)

    def test_compiler(self):
        self.check(self.compiler())

    def test_sqlite(self):
        self.check(self.sqlite())

    def test_children(self):
        """A shell that forks, and starts programs."""
        self.assertGreater(len(self.check(["bash", "-c", "x=$(echo 1; ls /); (echo $x | cat; true); ls / > /dev/null; exit 0"])), 3)

    def test_threads(self):
        self.check([self.options.bin / "allocation_loop", "200000", "4"])


def main():
    rest = recorded_runs.parse(argparse.ArgumentParser())
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
