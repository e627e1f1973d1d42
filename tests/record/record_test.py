#!/usr/bin/env python3
"""Records programs with qor-record and looks at what qortool finds in the logs.

    record_test.py --bin FOLDER --source FOLDER [--instrumented]

FOLDER holds qor-record, qortool, the example `leaky` and `troubles`; the other is that of the tree. --instrumented: they are built
with a sanitizer, and cannot be recorded.
"""

import argparse
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

options = None

LINE = re.compile(r"= Start|@ \S+ ([+>] 0x[0-9a-f]+ (0x[0-9a-f]+|0)|[-<] 0x[0-9a-f]+)")
LEAK = re.compile(r"LEAK at 0x[0-9a-f]+ size (\d+) type (\d+) caller \[(.*)\] type_name \[(.*)\] file \[(.*)\] line (\d+)")


def line_of(text):
    """Returns the number of the only line of the example that contains `text`."""
    source = (options.source / "examples/leaky/leaky.cpp").read_text().splitlines()
    numbers = [number for number, line in enumerate(source, 1) if text in line]
    assert len(numbers) == 1, (text, numbers)
    return numbers[0]


def lines_of_size(lines, size):
    """Returns the codes of the log lines with this size."""
    return [line.split()[2] for line in lines if line.endswith(f" {size:#x}")]


class Recorded(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.environment = {"PATH": os.environ["PATH"], "LC_ALL": "C"}

    def enterContext(self, manager):
        """Same as enterContext() of Python 3.11."""
        result = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return result

    def record(self, *words, prefix=("-o", "log")):
        return subprocess.run([options.bin / "qor-record", *prefix, "--", *map(str, words)], cwd=self.folder, env=self.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def refused(self, reason, *words):
        done = self.record(*words)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        self.assertIn(reason, done.stderr)
        self.assertEqual(list(self.folder.glob("log*")), [])

    def trouble(self, name, code=0):
        """Records one kind of trouble and returns the lines of its log."""
        done = self.record(options.bin / "troubles", name)
        self.assertEqual(done.returncode, code, done.stderr)
        self.messages = done.stderr
        return self.lines("log.mtrace")

    def lines(self, name):
        text = (self.folder / name).read_text()
        self.assertTrue(text.endswith("\n"))
        lines = text.splitlines()
        for line in lines:
            self.assertTrue(LINE.fullmatch(line), line)
        return lines

    def build(self, name, source, *words):
        path = self.folder / name
        (self.folder / f"{name}.cpp").write_text(source)
        subprocess.run(["c++", "-g", "-o", path, self.folder / f"{name}.cpp", *words], check=True)
        return path

    def children(self):
        return sorted(path.name for path in self.folder.glob("log.mtrace.*"))

    def report(self, action, *logs):
        done = subprocess.run([options.bin / "qortool", "--quiet", action, *logs], cwd=self.folder,
                              env=self.environment, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("WARNING", done.stderr)
        return done.stdout

    def leaks(self, report):
        """Returns {size: number of leaks} for the sizes that the program uses as marks."""
        sizes = [int(match[1]) for match in LEAK.finditer(report)]
        return {size: sizes.count(size) for size in sorted(set(sizes)) if 71000 <= size <= 73999 and size != 72704}


class Programs(Recorded):
    def test_the_leaks_of_the_example(self):
        done = self.record(options.bin / "leaky")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout, "sum of means: 14.0\npage 1 of 3\npage 2 of 3\npage 3 of 3\n")
        self.assertRegex(done.stderr, r"\Arecord: log\.mtrace: \d+ allocations and releases; distinct stacks: \d+\n"
                                      r"record: log\.memcheck: \d+ lines of the framework\n"
                                      r"record: now type: qortool mtrace log\.mtrace log\.memcheck\n\Z")
        source = "examples/leaky/leaky"
        reading = (792, "examples.leaky.reading", source, line_of("new (source, __LINE__) reading"))
        expected = sorted([
            reading,
            reading,
            (4096, "", source, line_of("qor_do_malloc(0, page_size")),
            (15000, "", source, line_of("qor_do_realloc(line")),
            (8 << 20, "", source, line_of("(void)qor_do_huge_alloc")),
        ])
        alone = self.report("memcheck", "log.memcheck")
        found = [(int(m[1]), m[4], m[5], int(m[6])) for m in LEAK.finditer(alone)]
        self.assertEqual(sorted(found), expected)
        self.assertEqual(alone.count("BAD FREE"), 1, alone)
        joined = self.report("mtrace", "log.mtrace", "log.memcheck")
        found = [(int(m[1]), m[4], m[5], int(m[6])) for m in LEAK.finditer(joined) if m[5]]
        self.assertEqual(sorted(found), expected)
        self.assertRegex(joined, r"LEAK at \S+ size 300 type 0 caller \[\S*/leaky:\S+\] type_name \[\] file \[\] line 0\n")
        self.assertNotIn("BAD FREE", joined)

    def test_a_program_that_is_found_along_the_path_names_the_log(self):
        done = self.record("true", prefix=())
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stderr, r"\Arecord: true\.mtrace: \d+ allocations and releases; distinct stacks: \d+\n"
                                      r"record: now type: qortool mtrace true\.mtrace\n\Z")
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["true.mtrace", "true.stacks"])

    def test_streams_and_code_are_the_programs(self):
        done = self.record("sh", "-c", "echo out; echo err >&2; exit 5")
        self.assertEqual((done.returncode, done.stdout), (5, "out\n"))
        self.assertTrue(done.stderr.startswith("err\nrecord: "), done.stderr)

    def test_a_program_that_is_linked_to_another_malloc(self):
        """Its operator new would return blocks that the C library's free does not know."""
        library = self.folder / "libjemalloc.so.2"
        source = self.folder / "pool.cpp"
        source.write_text("#include <cstddef>\n"
                          "alignas(16) static char pool[1 << 20];\n"
                          "static std::size_t used;\n"
                          "static void* take(std::size_t size) { void* p = pool + used; used += size + 15 & ~15ul; return p; }\n"
                          "void* operator new(std::size_t size) { return take(size); }\n"
                          'extern "C" void* malloc(std::size_t size) noexcept { return take(size); }\n'
                          'extern "C" void free(void*) noexcept {}\n')
        program = self.folder / "program.cpp"
        program.write_text("#include <list>\n"
                           "int main() { std::list<int> list{1, 2, 3}; list.clear(); ::operator delete(new char[71001]);\n"
                           "             static char* volatile kept; kept = new char[71002]; return kept == nullptr; }\n")
        subprocess.run(["c++", "-fPIC", "-shared", "-Wl,-soname," + library.name, "-o", library, source], check=True)
        # First in the order of the libraries, and needed even if nothing refers to it.
        subprocess.run(["c++", "-o", self.folder / "program", program, "-Wl,--no-as-needed", library,
                        "-Wl,-rpath," + str(self.folder)], check=True)
        done = self.record(self.folder / "program")
        self.assertEqual(done.returncode, 0, done.stderr)
        report = self.report("mtrace", "log.mtrace")
        self.assertEqual(self.leaks(report), {71002: 1})
        self.assertNotIn("BAD FREE", report)

    def test_paths_with_blanks_and_umlauts(self):
        """The system splits the list of preloaded libraries at blanks and colons."""
        self.folder /= "ein größerer Ordner"
        self.folder.mkdir()
        for name in ("die Programme", "with:colon"):
            with self.subTest(name):
                programs = self.folder / name
                programs.mkdir()
                for each in ("qor-record", "libqor-record.so"):
                    shutil.copy(options.bin / each, programs)
                done = subprocess.run([programs / "qor-record", "-o", "ein Lög", "sh", "-c", "exec true"], cwd=self.folder,
                                      env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn("record: ein Lög.mtrace: ", done.stderr)
                self.assertIn("qortool mtrace 'ein Lög.mtrace'\n", done.stderr)
                self.assertTrue(self.lines("ein Lög.mtrace"))

    def test_a_folder_that_cannot_be_written(self):
        done = self.record("true", prefix=("-o", "nowhere/log"))
        self.assertEqual((done.returncode, done.stderr), (1, "record: nowhere/log: no such folder\n"))

    def test_what_cannot_be_recorded(self):
        self.refused("no such program", "./nothing")
        static = self.folder / "static"
        source = self.folder / "static.c"
        source.write_text("int main(void) { return 0; }\n")
        subprocess.run(["cc", "-static", "-o", static, source], check=True)
        self.refused("is statically linked", static)
        script = self.folder / "script"
        script.write_text(f"#!{static}\n")
        script.chmod(0o755)
        self.refused("is statically linked", script)
        subprocess.run(["cc", "-fsanitize=address", "-o", self.folder / "checked", source], check=True)
        self.refused("is built with a sanitizer", self.folder / "checked")

    @unittest.skipUnless(os.geteuid() == 0, "only root can give a file away")
    def test_what_has_the_rights_of_another_cannot_be_recorded(self):
        foreign = self.folder / "foreign"
        shutil.copy("/bin/true", foreign)
        os.chown(foreign, 65534, -1)
        foreign.chmod(0o4755)
        self.refused("is set-user-id", foreign)


class Troubles(Recorded):
    def test_forks(self):
        self.trouble("fork_twice")
        self.assertEqual(len(re.findall(r"^record: log\.mtrace\.\d+: \d+ allocations and releases of .*/troubles; distinct stacks: \d+$",
                                        self.messages, re.M)), 2, self.messages)
        reports = [self.report("mtrace", name) for name in ("log.mtrace", *self.children())]
        for report in reports:
            self.assertNotIn("BAD FREE", report)
        parent, *others = map(self.leaks, reports)
        self.assertEqual(parent, {71001: 1, 71002: 1})
        self.assertCountEqual(others, [{71002: 1, 72001: 1}, {71002: 1, 73001: 1}])
        self.trouble("leave_at_once", 7)
        self.assertEqual(self.children(), [], "those of an earlier run are gone")

    def test_a_child_that_only_starts_a_program(self):
        """It leaves nothing of itself; the program has a log of its own."""
        self.trouble("fork_and_execute")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})
        child, = self.children()
        self.assertNotIn("/troubles:", (self.folder / child).read_text())
        self.assertRegex(self.messages, r"(?m)^record: log\.mtrace\.\d+: \d+ allocations and releases of /usr/bin/true; distinct stacks: \d+$")

    def test_no_children(self):
        for name in ("fork_twice", "fork_and_execute"):
            done = self.record(options.bin / "troubles", name, prefix=("--no-children", "-o", "log"))
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertEqual(self.children(), [])
            self.assertNotIn("log.mtrace.", done.stderr)

    def test_a_process_that_leaves_at_once(self):
        self.trouble("leave_at_once", 7)
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})

    def test_a_block_that_is_freed_twice(self):
        """The C library ends the process before it writes the line of the second release; the earlier lines are in the
        log."""
        lines = self.trouble("free_twice", 134)
        self.assertIn("double free", self.messages)
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71002: 1})
        self.assertRegex(lines[-1], r" - 0x[0-9a-f]+$")

    def test_blocks_that_fail_to_grow(self):
        """The blocks stay unchanged. The C library also traces failed calls, but the log contains only what has
        happened."""
        lines = self.trouble("fail_to_grow")
        report = self.report("mtrace", "log.mtrace")
        self.assertEqual(self.leaks(report), {71001: 1, 71002: 1})
        self.assertNotIn("BAD FREE", report)
        child, = self.children()
        report_of_child = self.report("mtrace", child)
        self.assertEqual(self.leaks(report_of_child), {71001: 1, 71002: 1})
        self.assertNotIn("BAD FREE", report_of_child)
        # A realloc that fails takes its "<" back.
        self.assertEqual(lines_of_size(lines, 71001), ["+", ">"])
        self.assertEqual([lines_of_size(lines, size) for size in (71003, 71004, 71005, 71002)],
                         [["+"], [">", ">"], [">", ">"], [">"]])
        # The C library's own reading of the log.
        script = subprocess.run(["mtrace", "log.mtrace"], cwd=self.folder, capture_output=True, text=True)
        leaks = re.findall(r"^0x([0-9a-f]+) +0x([0-9a-f]+)  at ", script.stdout, re.M)
        found = re.findall(r"^LEAK at 0x([0-9a-f]+) size (\d+) ", report, re.M)
        self.assertCountEqual([(int(address, 16), int(size, 16)) for address, size in leaks],
                              [(int(address, 16), int(size)) for address, size in found])
        self.assertNotIn("was never alloc'd", script.stdout)

    def test_what_the_c_library_traces_of_blocks_that_fail_to_grow(self):
        """The recorder leaves out the line of the failed call; a replay of it would give the block the wanted size."""
        log = self.folder / "traced"
        environment = {**self.environment, "MALLOC_TRACE": str(log)}
        done = subprocess.run([options.bin / "troubles", "trace_itself"], env={**environment, "LD_PRELOAD": "libc_malloc_debug.so.0"})
        self.assertEqual(done.returncode, 0)
        # Here a caller is a path, and may contain blanks.
        codes = [re.search(r" ([-+<>!]) 0x", line)[1] for line in log.read_text().splitlines() if line.startswith("@ ")]
        self.assertEqual(codes, ["+", "!"])

    def test_a_process_that_is_killed(self):
        self.trouble("be_killed", 137)
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 2000})

    def test_descriptors_that_are_closed(self):
        self.trouble("close_everything")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1})

    def test_descriptors_that_become_the_programs(self):
        self.trouble("reuse_descriptors")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})
        self.assertEqual((self.folder / "mine").read_bytes(), b"")

    def test_a_limit_of_the_program_is_none_of_the_log(self):
        self.assertEqual(len(self.trouble("meet_a_limit")), 4002)

    def test_a_log_that_may_grow_no_further(self):
        """The program goes on, and what there is ends with a whole line."""
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (20_000, resource.RLIM_INFINITY))
        done = subprocess.run([options.bin / "qor-record", "-o", "log", options.bin / "troubles", "leave_many"], cwd=self.folder,
                              env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True, preexec_fn=limit)
        self.assertEqual(done.returncode, 7, done.stderr)
        self.assertEqual(done.stderr.count("record: the log log.mtrace ends here: File too large\n"), 1, done.stderr)
        self.lines("log.mtrace")
        self.assertGreater((self.folder / "log.mtrace").stat().st_size, 19_900)

    def test_a_full_disk(self):
        """As /dev/full, but as a disk: a file system of its own."""
        disk = self.folder / "disk"
        disk.mkdir()
        done = subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                               'mount -t tmpfs -o size=64k none disk && "$@"; code=$?; cp disk/log.mtrace .; exit $code', "sh",
                               options.bin / "qor-record", "-o", "disk/log", options.bin / "troubles", "leave_many"],
                              cwd=self.folder, env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)
        self.assertEqual(done.returncode, 7, done.stderr)
        self.assertEqual(done.stderr.count("record: the log disk/log.mtrace ends here: No space left on device\n"), 1, done.stderr)
        self.lines("log.mtrace")

    def test_a_process_that_renames_itself(self):
        lines = self.trouble("rename_itself")
        report = self.report("mtrace", "log.mtrace")
        self.assertEqual(self.leaks(report), {71002: 1})
        self.assertNotIn("BAD FREE", report)
        self.assertFalse(any(line.startswith("@ a") for line in lines), lines)

    def test_forks_between_threads(self):
        self.trouble("fork_between_threads")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {})
        children = self.children()
        self.assertEqual(len(children), 20)
        for name in children:
            self.lines(name)
            report = self.report("mtrace", name)
            self.assertEqual(self.leaks(report).get(72001), 1, report)
            self.assertNotIn("BAD FREE", report)

    def test_a_program_in_the_place_of_another(self):
        """The name of the log is the last one's; the first one's log is beside it."""
        self.trouble("become_another", 7)
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})
        before, = self.children()
        self.assertEqual(self.leaks(self.report("mtrace", before)), {71001: 1})
        self.assertIn(f"record: {before}: ", self.messages)
        self.assertIn("which was replaced by another program", self.messages)

    def skip_if(self, code, name):
        done = subprocess.run([options.bin / "troubles", name], cwd=self.folder, capture_output=True)
        if done.returncode == code:
            self.skipTest("this host does not allow it")

    def test_a_process_that_may_call_nothing(self):
        self.trouble("be_confined")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1})

    def test_a_program_out_of_reach(self):
        self.skip_if(77, "execute_confined")
        self.trouble("execute_confined", 7)
        child, = self.children()
        self.assertEqual(self.leaks(self.report("mtrace", child)), {71001: 1})

    def test_dropped_rights(self):
        self.skip_if(77, "drop_rights")
        (self.folder / "empty").rmdir()
        self.trouble("drop_rights")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1})
        child, = self.children()
        self.assertEqual(self.leaks(self.report("mtrace", child)), {71001: 1, 71002: 1, 72001: 1})

    def test_limits(self):
        self.trouble("live_within_limits")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})
        child, = self.children()
        self.assertEqual(self.leaks(self.report("mtrace", child)), {71001: 1, 72001: 1})

    def test_programs_that_are_started_in_other_ways(self):
        self.trouble("start_programs")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1})
        reports = [self.report("mtrace", name) for name in self.children()]
        self.assertCountEqual(map(self.leaks, reports), [{}, {}, {71001: 1, 72001: 1}])
        self.assertNotIn("BAD FREE", "".join(reports))

    def test_a_thousand_threads(self):
        self.trouble("start_many_threads")
        report = self.report("mtrace", "log.mtrace")
        self.assertEqual(self.leaks(report), {71001: 1000})
        self.assertNotIn("BAD FREE", report)

    def test_exceptions(self):
        self.trouble("throw_exceptions")
        report = self.report("mtrace", "log.mtrace")
        self.assertEqual(self.leaks(report), {71001: 1})
        self.assertNotIn("BAD FREE", report)

    def test_a_program_that_traces_itself(self):
        self.trouble("trace_as_well")
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1, 71003: 1})

    def test_a_process_that_aborts(self):
        self.trouble("abort_here", 134)
        self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})

    def test_a_recorder_that_dies_first(self):
        """The program goes on to its end."""
        done = self.record(options.bin / "troubles", "lose_recorder")
        self.assertEqual(done.returncode, 0, done.stderr)


def numbers_and_texts(data):
    """Entries of a file of stacks, read as docs/heap-logs.md says: (N, numbers, texts)."""
    shapes = {1: (4, 2), 2: (3, 2), 3: (1, 0), 4: (1, 0), 5: (3, 0), 6: (1, 0), 7: (1, 1), 8: (1, 0), 9: (1, 1), 10: (1, 0)}
    assert data[:8] == b"QORSTK\x01\n", data[:8]
    at = 8

    def number():
        nonlocal at
        value = shift = 0
        while True:
            byte = data[at]
            at += 1
            value |= (byte & 0x7f) << shift
            shift += 7
            if byte < 0x80:
                return value

    def text():
        nonlocal at
        size = number()
        at += size
        return data[at - size:at]

    while at < len(data):
        kind = number()
        if kind >= 16:
            yield kind, [], []
            continue
        counts = shapes[kind]
        numbers = [number() for _ in range(counts[0])]
        yield kind, numbers, [text() for _ in range(counts[1])]


class StacksFile:
    def __init__(self, data):
        self.modules, self.nodes, self.stacks, self.threads, self.loads, self.times = [None], [(0, 0, 0)], [], [], [], []
        self.inherited = 0
        thread = 0
        for kind, numbers, texts in numbers_and_texts(data):
            if kind >= 16:
                self.stacks.append(kind - 16)
                self.threads.append(thread)
            elif kind == 1:
                self.process, self.program = numbers[0], texts[0].decode()
            elif kind == 2:
                self.modules.append((*numbers, texts[0].decode(), texts[1].hex()))
                self.loads.append((len(self.modules) - 1, "came"))
            elif kind in (3, 4):
                self.loads.append((numbers[0], "went" if kind == 3 else "came"))
            elif kind == 5:
                self.nodes.append(tuple(numbers))
            elif kind == 6:
                thread = numbers[0]
            elif kind == 8:
                self.times.append(numbers[0])
            elif kind == 10:
                self.inherited = numbers[0]

    def frames(self, stack):
        """From the innermost on: the path of the module and the address in it."""
        result = []
        while stack != 0:
            stack, module, address = self.nodes[stack]
            result.append((self.modules[module][3] if module else "", address))
        return result


class Stacks(Recorded):
    def recorded(self, program, *prefix, log="log"):
        done = self.record(program, prefix=(*prefix, "-o", "log"))
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = [line.split() for line in self.lines(f"{log}.mtrace") if line.startswith("@ ") and line.split()[2] in "+>"]
        stacks = StacksFile((self.folder / f"{log}.stacks").read_bytes())
        self.assertEqual(len(stacks.stacks), len(lines))
        return lines, stacks

    def functions(self, program, frames):
        addresses = [hex(address - 1) for path, address in frames if path == str(program)]
        done = subprocess.run(["addr2line", "-Cfe", program, *addresses], capture_output=True, text=True, check=True)
        return [re.sub(r"\(.*", "", name) for name in done.stdout.splitlines()[::2]]

    def test_stacks(self):
        """Each allocation has its own, also where no frame pointers are; the log's caller is their first frame."""
        program = self.build("program", """
            #include <cstdlib>
            #include <cstring>
            #include <cstdio>
            #include <memory>
            void* volatile kept;
            [[gnu::noinline]] void by_new() { kept = new char[70001]; kept = nullptr; }
            [[gnu::noinline]] void by_text() { kept = strdup("a text"); kept = nullptr; }
            [[gnu::noinline]] void by_print() { char* text; kept = asprintf(&text, "%70002d", 1) < 0 ? nullptr : text; kept = nullptr; }
            [[gnu::noinline]] void by_malloc() { kept = std::malloc(70003); kept = nullptr; }
            [[gnu::noinline]] void outer(int depth) { if (depth > 0) { outer(depth - 1); kept = nullptr; return; } by_new(); by_text(); by_print(); by_malloc(); }
            int main() { outer(3); }
            """, "-O2", "-fomit-frame-pointer", "-fno-optimize-sibling-calls", "-fno-ipa-cp", "-fno-inline")
        for depth in ("64", "0"):
            lines, stacks = self.recorded(program, "--depth", depth)
            found = {}
            for line, stack in zip(lines, stacks.stacks):
                frames = stacks.frames(stack)
                path, address = re.fullmatch(r"(.*):\[0x([0-9a-f]+)\]", line[1]).groups()
                self.assertEqual((path, int(address, 16)), frames[0], line)
                names = self.functions(program, frames)
                if path == str(program):
                    found[names[0]] = names
            whole = ["outer"] * 4 + ["main"] if depth == "64" else []
            for name in ("by_new", "by_text", "by_print", "by_malloc"):
                self.assertEqual(found[name][1:1 + len(whole)], whole, found)
        self.assertEqual(stacks.program, str(program))
        build_id = subprocess.run(["readelf", "-n", program], capture_output=True, text=True).stdout
        module, = [each for each in stacks.modules[1:] if each[3] == str(program)]
        self.assertIn(module[4], build_id)
        # Each stack once.
        self.assertEqual(len(set(map(tuple, map(stacks.frames, range(1, len(stacks.nodes)))))), len(stacks.nodes) - 1)

    def test_an_operator_new_in_the_program(self):
        """The caller is the one outside, also in a program that another one executes."""
        program = self.build("program", """
            void* volatile kept;
            [[gnu::noinline]] void by_new() { kept = new char[70001]; kept = nullptr; }
            int main() { by_new(); }
            """, "-O1", "-static-libstdc++", "-static-libgcc", "-fno-optimize-sibling-calls")
        for words in ((program,), ("sh", "-c", f"'{program}'; exit 0")):
            for depth in ("64", "0"):
                done = self.record(*words, prefix=("--depth", depth, "-o", "log"))
                self.assertEqual(done.returncode, 0, done.stderr)
                found = []
                for log in ("log.mtrace", *self.children()):
                    stacks = StacksFile((self.folder / log.replace("mtrace", "stacks")).read_bytes())
                    lines = [line.split() for line in self.lines(log) if line.startswith("@ ") and line.split()[2] in "+>"]
                    found += [self.functions(program, stacks.frames(stack))[0] for line, stack in zip(lines, stacks.stacks)
                              if line[4] == "0x11171"]
                self.assertEqual(found, ["by_new"], (words, depth))

    def test_a_library_in_the_place_of_another(self):
        """Both are modules of their own, with their own stacks."""
        for name in ("first", "second"):
            self.build(f"{name}.so", f"""
                #include <cstdlib>
                extern "C" void* allocate() {{ return std::malloc({70001 if name == "first" else 70002}); }}
                """, "-shared", "-fPIC", "-O1", "-fno-optimize-sibling-calls")
        program = self.build("program", """
            #include <cstdlib>
            #include <dlfcn.h>
            int main() {
                for (int i = 0; i < 20; ++i) {
                    void* const library = dlopen(i % 2 == 0 ? "./first.so" : "./second.so", RTLD_NOW);
                    void* const block = reinterpret_cast<void* (*)()>(dlsym(library, "allocate"))();
                    std::free(block);
                    dlclose(library);
                }
            }
            """)
        lines, stacks = self.recorded(program)
        for line, stack in zip(lines, stacks.stacks):
            name = {"0x11171": "./first.so", "0x11172": "./second.so"}.get(line[4])
            if name:
                self.assertEqual(stacks.frames(stack)[0][0], name, line)
                self.assertTrue(line[1].startswith(name), line)
        self.assertEqual(sum(each is not None and each[3] == "./first.so" for each in stacks.modules), 1)
        for name in ("./first.so", "./second.so"):
            loads = [what for number, what in stacks.loads if stacks.modules[number][3] == name]
            self.assertEqual(loads, ["came", "went"] * 10)

    def test_a_child_after_a_library_went(self):
        """A block that the child inherits was allocated in the library, which the child loads again."""
        self.build("library.so", """
            #include <cstdlib>
            extern "C" void* allocate() { return std::malloc(70001); }
            """, "-shared", "-fPIC", "-O1", "-fno-optimize-sibling-calls")
        program = self.build("program", """
            #include <dlfcn.h>
            #include <sys/wait.h>
            #include <unistd.h>
            void use() {
                void* const library = dlopen("./library.so", RTLD_NOW);
                reinterpret_cast<void* (*)()>(dlsym(library, "allocate"))();
                dlclose(library);
            }
            int main() {
                use();
                if (fork() == 0) {
                    use();
                    _exit(0);
                }
                wait(nullptr);
            }
            """)
        self.recorded(program)
        child, = self.children()
        stacks = StacksFile((self.folder / child.replace("mtrace", "stacks")).read_bytes())
        self.assertEqual([what for number, what in stacks.loads if stacks.modules[number][3] == "./library.so"],
                         ["came", "went"] * 2)

    def test_what_a_child_inherits(self):
        done = self.record(options.bin / "troubles", "fork_twice")
        self.assertEqual(done.returncode, 0, done.stderr)
        for child in self.children():
            stacks = StacksFile((self.folder / child.replace("mtrace", "stacks")).read_bytes())
            self.assertEqual(stacks.process, int(child.rsplit(".", 1)[1]))
            lines = [line.split() for line in self.lines(child) if " + " in line]
            self.assertEqual(len(lines), len(stacks.stacks))
            self.assertGreaterEqual(stacks.inherited, 2)
            for line, stack in zip(lines, stacks.stacks):
                path, address = stacks.frames(stack)[0]
                self.assertEqual(line[1], f"{path}:[{address:#x}]")


class Order(Recorded):
    def test_threads_that_release_each_others_blocks(self):
        """No block is allocated twice or released twice in the order of the log, and no record is missing."""
        done = self.record(options.bin / "exchange", 64, 19000)
        self.assertEqual(done.returncode, 0, done.stderr)
        live = set()
        count = 0
        misplaced = []
        with open(self.folder / "log.mtrace") as log:
            for line in log:
                if not line.startswith("@ "):
                    continue
                count += 1
                words = line.split()
                if (words[2] in "+>") == (words[3] in live):
                    misplaced.append(line)
                (live.add if words[2] in "+>" else live.discard)(words[3])
        self.assertEqual(misplaced, [])
        # An allocation and a release in each round; every seventh has a realloc too.
        self.assertGreater(count, 2 * 64 * 19000 + 2 * 64 * 19000 // 7)

    def test_the_same_findings_as_the_c_librarys_script(self):
        for words in (["ls", "-l", "/"], ["git", "--version"], ["sh", "-c", "x=$(echo a); echo $x"]):
            if shutil.which(words[0]) is None:
                words = ["true"]
            done = self.record(*words, prefix=("--no-children", "-o", "log"))
            self.assertEqual(done.returncode, 0, done.stderr)
            script = subprocess.run(["mtrace", "log.mtrace"], cwd=self.folder, capture_output=True, text=True)
            leaks = re.findall(r"^0x([0-9a-f]+) +0x([0-9a-f]+)  at ", script.stdout, re.M)
            report = self.report("mtrace", "log.mtrace")
            found = re.findall(r"^LEAK at 0x([0-9a-f]+) size (\d+) ", report, re.M)
            self.assertCountEqual([(int(address, 16), int(size, 16)) for address, size in leaks],
                                  [(int(address, 16), int(size)) for address, size in found])
            self.assertEqual(script.stdout.count("never alloc'd"), report.count("BAD FREE"))


class Allocators(Recorded):
    def check(self, library):
        program = self.folder / "program"
        program.with_suffix(".cpp").write_text("""
            #include <cstdlib>
            #include <new>
            #include <string>
            #include <vector>
            void* volatile kept;
            int main() {
                kept = new char[71001];
                kept = std::malloc(71002);
                kept = ::operator new(71003, std::align_val_t(64));
                kept = std::realloc(std::malloc(72001), 71004);
                kept = std::calloc(71005, 1);
                kept = std::aligned_alloc(64, 71040);
                kept = new (std::nothrow) char[71006];
                std::vector<std::string> texts(100, std::string(72002, 'a'));
                delete[] new char[72003];
            }
            """)
        path = subprocess.run(["c++", f"-print-file-name={library}"], capture_output=True, text=True).stdout.strip()
        expected = {size: 1 for size in (71001, 71002, 71003, 71004, 71005, 71006, 71040)}
        for words, environment in (([path, "-Wl,--no-as-needed"], {}), ([], {"LD_PRELOAD": path})):
            subprocess.run(["c++", "-o", program, program.with_suffix(".cpp"), "-Wl,--no-as-needed", *words], check=True)
            before = dict(self.environment)
            self.environment.update(environment)
            done = self.record(program)
            self.environment = before
            self.assertEqual(done.returncode, 0, done.stderr)
            report = self.report("mtrace", "log.mtrace")
            self.assertEqual(self.leaks(report), expected)
            self.assertNotIn("BAD FREE", report)

    def test_jemalloc(self):
        self.check("libjemalloc.so.2")

    def test_tcmalloc(self):
        self.check("libtcmalloc_minimal.so.4")

    def test_mimalloc(self):
        self.check("libmimalloc.so.2")


    def behind(self, library, program):
        """Records the program with a library behind the recorder's own; the recorder itself is without it."""
        done = self.record("sh", "-c", 'LD_PRELOAD="$LD_PRELOAD:$0" exec "$1"', library, program)
        self.assertEqual(done.returncode, 0, done.stderr)
        report = self.report("mtrace", "log.mtrace")
        self.assertNotIn("BAD FREE", report)
        lines = [line.split() for line in self.lines("log.mtrace") if line.startswith("@ ")]
        alive = set()
        for line in lines:
            self.assertEqual(line[3] in alive, line[2] in "-<", line)
            (alive.add if line[2] in "+>" else alive.discard)(line[3])
        return self.leaks(report), lines

    def test_functions_that_call_each_other(self):
        """A block has one record, of the caller outside of the allocator."""
        library = self.build("library.so", """
            #include <cstdlib>
            #include <cstring>
            #include <malloc.h>
            extern "C" {
            void* __libc_malloc(std::size_t size);
            void __libc_free(void* block);
            void* malloc(std::size_t size) noexcept { return __libc_malloc(size); }
            void free(void* block) noexcept { __libc_free(block); }
            void* calloc(std::size_t count, std::size_t size) noexcept {
                void* const made = malloc(count * size);
                return made != nullptr ? std::memset(made, 0, count * size) : nullptr;
            }
            void* realloc(void* block, std::size_t size) noexcept {
                const std::size_t before = malloc_usable_size(block);
                if (block != nullptr && size < before && size > before / 2)
                    return block;
                void* const made = malloc(size);
                if (made != nullptr && block != nullptr) {
                    std::memcpy(made, block, before < size ? before : size);
                    free(block);
                }
                return made;
            }
            }
            """, "-shared", "-fPIC", "-O1", "-fno-builtin", "-fno-optimize-sibling-calls")
        program = self.build("program", """
            #include <cstdlib>
            void* volatile kept;
            int main() {
                kept = std::malloc(71001);
                kept = std::realloc(std::malloc(72001), 71002);
                kept = std::calloc(71003, 1);
                kept = std::realloc(nullptr, 71004);
                kept = std::realloc(std::realloc(std::calloc(72002, 1), 72003), 71005);
                std::free(std::realloc(std::malloc(300), 72004));
                std::free(std::realloc(std::malloc(72006), 72000));
                kept = std::realloc(std::malloc(72005), 999'999'999'999'999) == nullptr ? nullptr : kept;
            }
            """)
        leaks, lines = self.behind(library, program)
        self.assertEqual(leaks, {71001: 1, 71002: 1, 71003: 1, 71004: 1, 71005: 1, 72005: 1})
        for line in lines:
            if line[-1] in map(hex, (*range(71001, 71006), *range(72001, 72006))):
                self.assertTrue(line[1].startswith(f"{program}:"), line)

    def test_signals_within_the_first_calls(self):
        """Their handler allocates and releases, which is not taken for a part of the call."""
        library = self.build("library.so", """
            #include <csignal>
            #include <cstdlib>
            #include <new>
            extern "C" void* __libc_malloc(std::size_t size);
            extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);
            extern "C" void __libc_free(void* block);
            static void raise_once(bool& has_raised) {
                if (!has_raised) {
                    has_raised = true;
                    std::raise(SIGUSR1);
                }
            }
            extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
                static bool has_raised;
                raise_once(has_raised);
                return __libc_memalign(alignment, size);
            }
            void* operator new(std::size_t size) {
                static bool has_raised;
                raise_once(has_raised);
                return __libc_malloc(size);
            }
            void operator delete(void* block) noexcept {
                static bool has_raised;
                raise_once(has_raised);
                __libc_free(block);
            }
            """, "-shared", "-fPIC", "-O1", "-fno-builtin")
        program = self.build("program", """
            #include <csignal>
            #include <cstdlib>
            #include <new>
            void* volatile kept;
            void* volatile changed = std::malloc(72001);
            void handle(int) {
                kept = std::malloc(71001);
                std::free(changed);
                changed = std::malloc(72001);
            }
            int main() {
                std::signal(SIGUSR1, handle);
                kept = std::aligned_alloc(64, 71104);
                kept = std::aligned_alloc(64, 71168);
                kept = ::operator new(71002);
                kept = ::operator new(71003);
                ::operator delete(::operator new(72002));
                ::operator delete(::operator new(72003));
            }
            """, "-O0")
        leaks, _ = self.behind(library, program)
        self.assertEqual(leaks, {71001: 3, 71002: 1, 71003: 1, 71104: 1, 71168: 1, 72001: 1})


class Executions(Recorded):
    """Programs that are executed with an environment without the recorder."""

    def test_a_variable_that_is_set_anew(self):
        for words in (["LD_PRELOAD=libm.so.6"], ["-u", "LD_PRELOAD"], ["-i"], ["-i", "LD_PRELOAD=libm.so.6", "A=b"]):
            done = self.record("env", *words, options.bin / "troubles", "leave_at_once")
            self.assertEqual(done.returncode, 7, done.stderr)
            self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1}, words)
            self.assertEqual(len(self.children()), 1)

    def test_libraries_that_the_program_preloads(self):
        """They are loaded still, and what the program set is what an unrecorded one finds."""
        done = self.record("env", "-i", "LD_PRELOAD=libm.so.6", "A=b", "/bin/sh", "-c", 'echo "$LD_PRELOAD $QOR_RECORD_PRELOAD $A"')
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout, f"{options.bin / 'libqor-record.so'}:libm.so.6 libm.so.6 b\n")

    def test_no_children(self):
        done = self.record("sh", "-c", "env -i sh -c 'echo .$LD_PRELOAD.'; exec env -i true", prefix=("--no-children", "-o", "log"))
        self.assertEqual((done.returncode, done.stdout), (0, "..\n"), done.stderr)
        self.assertEqual(len(self.children()), 2, "the shell and env, which were replaced")

    def test_each_function(self):
        program = self.build("program", """
            #include <cstdlib>
            #include <fcntl.h>
            #include <spawn.h>
            #include <sys/wait.h>
            #include <unistd.h>
            static int wait_for(pid_t child) {
                int status = 0;
                waitpid(child, &status, 0);
                return WIFEXITED(status) && WEXITSTATUS(status) == 7 ? 0 : 1;
            }
            template <class Call>
            int in_child(Call call) {
                const pid_t child = fork();
                if (child == 0) {
                    call();
                    _exit(99);
                }
                return wait_for(child);
            }
            int main(int, char** words) {
                char* const program = words[1];
                char* const list[] = {program, words[2], nullptr};
                char* const nothing[] = {nullptr};
                clearenv();
                int failed = in_child([&] { execve(program, list, nothing); });
                failed += in_child([&] { execv(program, list); });
                failed += in_child([&] { execvp(program, list); });
                failed += in_child([&] { execvpe(program, list, nothing); });
                failed += in_child([&] { execl(program, program, words[2], nullptr); });
                failed += in_child([&] { execlp(program, program, words[2], nullptr); });
                failed += in_child([&] { execle(program, program, words[2], nullptr, nothing); });
                failed += in_child([&] { fexecve(open(program, O_RDONLY | O_CLOEXEC), list, nothing); });
                failed += in_child([&] { execveat(AT_FDCWD, program, list, nothing, 0); });
                pid_t child = vfork();
                if (child == 0) {
                    execve(program, list, nothing);
                    _exit(99);
                }
                failed += wait_for(child);
                failed += posix_spawn(&child, program, nullptr, nullptr, list, nothing) + wait_for(child);
                failed += posix_spawnp(&child, program, nullptr, nullptr, list, environ) + wait_for(child);
                return failed;
            }
            """)
        done = self.record(program, options.bin / "troubles", "leave_at_once")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual([self.leaks(self.report("mtrace", name)) for name in self.children()], [{71001: 1}] * 12)


class Files(Recorded):
    def test_compressed_logs(self):
        plain = self.record(options.bin / "troubles", "leave_many")
        self.assertEqual(plain.returncode, 7, plain.stderr)
        codes = [line.split()[2] for line in self.lines("log.mtrace")[1:]]
        for option, suffix, tool in (("--zstd", ".zst", "zstd"), ("--gzip", ".gz", "gzip")):
            done = self.record(options.bin / "troubles", "leave_many", prefix=(option, "-o", "log"))
            self.assertEqual(done.returncode, 7, done.stderr)
            self.assertIn(f"now type: qortool mtrace log.mtrace{suffix}\n", done.stderr)
            self.assertEqual(sorted(path.name for path in self.folder.iterdir()), [f"log.mtrace{suffix}", f"log.stacks{suffix}"])
            text = subprocess.run([tool, "-dc", f"log.mtrace{suffix}"], cwd=self.folder, capture_output=True, text=True, check=True)
            self.assertEqual([line.split()[2] for line in text.stdout.splitlines()[1:]], codes)

    def test_children_of_a_compressed_recording(self):
        """The blocks that they inherit are read from the compressed log."""
        for option, suffix, tool in (("--zstd", ".zst", "zstd"), ("--gzip", ".gz", "gzip")):
            done = self.record(options.bin / "troubles", "fork_twice", prefix=(option, "-o", "log"))
            self.assertEqual(done.returncode, 0, done.stderr)
            found = []
            for path in self.folder.glob(f"log.mtrace*{suffix}"):
                subprocess.run([tool, "-dfq", path], check=True)
                report = self.report("mtrace", path.with_suffix("").name)
                self.assertNotIn("BAD FREE", report)
                found.append(self.leaks(report))
                path.with_suffix("").unlink()
            self.assertCountEqual(found, [{71001: 1, 71002: 1}, {71002: 1, 72001: 1}, {71002: 1, 73001: 1}])

    def test_files_are_the_users_own(self):
        self.assertEqual(self.record("true").returncode, 0)
        for path in self.folder.iterdir():
            self.assertEqual(path.stat().st_mode & 0o777, 0o600)

    def test_what_is_no_log_is_not_replaced(self):
        mine = self.folder / "log.mtrace"
        mine.write_text("my notes\n")
        done = self.record("true")
        self.assertEqual((done.returncode, mine.read_text()), (1, "my notes\n"))
        self.assertEqual(done.stderr, "record: log.mtrace exists and is not a log of a heap. '--force' replaces it.\n")
        self.assertEqual(self.record("true", prefix=("--force", "-o", "log")).returncode, 0)
        self.lines("log.mtrace")

    def test_links_are_not_followed(self):
        other = self.folder / "other"
        other.write_text("= Start\n")
        (self.folder / "log.mtrace").symlink_to(other)
        self.assertEqual(self.record("true", prefix=("--force", "-o", "log")).returncode, 1)
        self.assertEqual(other.read_text(), "= Start\n")

    def test_a_folder_takes_the_programs_name(self):
        (self.folder / "logs").mkdir()
        self.assertEqual(self.record("true", prefix=("-o", "logs/")).returncode, 0)
        self.assertEqual(sorted(path.name for path in (self.folder / "logs").iterdir()), ["true.mtrace", "true.stacks"])

    def test_wrong_words(self):
        for words in (["--nothing", "true"], ["-o"], ["--depth", "1x", "true"], ["--depth", "1000", "true"], [],
                      ["--zstd", "--gzip", "true"], ["--zstd=3", "true"]):
            done = subprocess.run([options.bin / "qor-record", *words], cwd=self.folder, env=self.environment, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1), done)
        done = subprocess.run([options.bin / "qor-record", "--help"], cwd=self.folder, env=self.environment, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        for option in ("-o", "--depth", "--no-children", "--start-stopped", "--zstd", "--gzip", "--force"):
            self.assertIn(f"\n  {option} ", done.stdout)

    def test_signals_are_passed_on(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGUSR1):
            program = "import signal, time; signal.signal({0}, lambda *_: exit(9)); print('ready', flush=True); time.sleep(60)"
            process = subprocess.Popen([options.bin / "qor-record", "--depth", "0", "-o", "log", sys.executable, "-c", program.format(int(number))],
                                       cwd=self.folder, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual(process.stdout.readline(), "ready\n")
            process.send_signal(number)
            self.assertIn("record: log.mtrace: ", process.communicate()[1])
            self.assertEqual(process.returncode, 9)

    def test_what_is_left_running(self):
        """Nobody waits for it, and its log goes on."""
        done = self.record("sh", "-c", "(sleep 0.3; x=$(echo a); exit 0) </dev/null >/dev/null 2>&1 & echo $!")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("is still running, and its log goes on\n", done.stderr)
        child = self.folder / f"log.mtrace.{done.stdout.strip()}"
        size = child.stat().st_size if child.exists() else 0
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and not (child.exists() and child.stat().st_size > size):
            time.sleep(0.05)
        self.assertGreater(child.stat().st_size, size)


class Control(Recorded):
    def start(self, *prefix):
        process = subprocess.Popen([options.bin / "qor-record", *prefix, "-o", "log", options.bin / "troubles", "be_controlled"],
                                   cwd=self.folder, env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.stderr.close)
        self.assertEqual(process.stdout.readline(), "early\n")
        return process

    def control(self, *words):
        return subprocess.run([options.bin / "qor-record", "control", *words], cwd=self.folder, env=self.environment,
                              capture_output=True, text=True)

    def go_on(self, process):
        process.stdin.write("\n")
        process.stdin.flush()

    def finish(self, process):
        self.go_on(process)
        self.assertEqual(process.wait(), 0)
        report = self.report("mtrace", "log.mtrace")
        self.assertNotIn("BAD FREE", report)
        return self.leaks(report)

    def test_a_start_up_that_is_left_out(self):
        process = self.start("--start-stopped")
        self.assertEqual(self.control("log", "start").returncode, 0)
        self.go_on(process)
        self.assertEqual(process.stdout.readline(), "recorded\n")
        self.assertEqual(self.finish(process), {71002: 1, 71003: 1})

    def test_a_part_that_is_left_out(self):
        """A block that is released there is not a leak."""
        process = self.start()
        self.go_on(process)
        self.assertEqual(process.stdout.readline(), "recorded\n")
        stopped = self.control(self.folder / "log", "stop")
        self.assertEqual((stopped.returncode, stopped.stdout), (0, ""), stopped.stderr)
        self.assertEqual(self.finish(process), {71001: 1, 71002: 1})

    def test_nothing_to_control(self):
        done = self.control("log", "start")
        self.assertEqual((done.returncode, done.stderr), (1, "record: Nothing is being recorded as log.\n"))
        self.assertEqual(self.control("log", "begin").returncode, 1)

    def test_two_recorders_of_one_name(self):
        process = self.start()
        done = self.record("true")
        self.assertEqual((done.returncode, done.stderr), (1, "record: A recorder is writing the files of log just now.\n"))
        self.go_on(process)
        self.finish(process)


class Instrumented(Recorded):
    def test_what_cannot_be_recorded(self):
        self.refused("is built with a sanitizer", options.bin / "leaky")


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--source", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--instrumented", action="store_true")
    options = parser.parse_args()
    cases = [Instrumented] if options.instrumented else [Programs, Troubles, Stacks, Order, Allocators, Executions, Files, Control]
    suite = unittest.TestSuite(map(unittest.defaultTestLoader.loadTestsFromTestCase, cases))
    return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
