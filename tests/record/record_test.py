#!/usr/bin/env python3
"""Records programs with qor-record, among them such as trouble a recorder.

    record_test.py --bin FOLDER --source FOLDER --build FOLDER --cmake PROGRAM [--instrumented]

--instrumented: the programs are built with a sanitizer, and cannot be recorded.
"""

import argparse
import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import time
import unittest

from recorded import LEAK, Recorded, options, run


def line_of(text):
    """Returns the number of the only line of the example that contains `text`."""
    source = (options.source / "examples/leaky/leaky.cpp").read_text().splitlines()
    numbers = [number for number, line in enumerate(source, 1) if text in line]
    assert len(numbers) == 1, (text, numbers)
    return numbers[0]


def lines_of_size(lines, size):
    """Returns the codes of the log lines with this size."""
    return [line.split()[2] for line in lines if line.endswith(f" {size:#x}")]


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
        subprocess.run(["cc", "-Wl,--dynamic-linker=/lib/ld-of-another.so.1", "-o", self.folder / "other", source], check=True)
        (self.folder / "other").chmod(0o755)
        self.refused("runs on another C library", self.folder / "other")

    def test_the_preloaded_library_needs_the_c_library_alone(self):
        dynamic = subprocess.run(["readelf", "-dW", options.bin / "libqor-record.so"], capture_output=True, text=True, check=True).stdout
        self.assertEqual(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic), ["libc.so.6"])
        self.assertRegex(dynamic, r"\(FLAGS_1\).*INITFIRST")

    def test_a_malloc_inside_the_program(self):
        """Nothing can stand before it. The summary says so."""
        program = self.build("program", """
            #include <cstddef>
            alignas(16) static char pool[1 << 20];
            static std::size_t used;
            extern "C" void* malloc(std::size_t size) noexcept { void* const p = pool + used; used += size + 15 & ~15ul; return p; }
            extern "C" void free(void*) noexcept {}
            int main() { return malloc(71001) == nullptr; }
            """, "-fno-builtin", "-Wl,--export-dynamic")
        done = self.record(program)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(f"record: {program} has a malloc of its own inside it", done.stderr)

    def test_an_older_c_library(self):
        """It cannot tell the module of an address, and would not load the recorder's library."""
        source = self.folder / "older.c"
        source.write_text('const char* gnu_get_libc_version(void) { return "2.34"; }\n')
        subprocess.run(["cc", "-shared", "-fPIC", "-o", self.folder / "older.so", source], check=True)
        self.environment["LD_PRELOAD"] = str(self.folder / "older.so")
        self.refused("The C library is of version 2.34, and recording needs 2.35 or a later one", "true")

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

    def test_a_release_of_what_is_no_block(self):
        lines = self.trouble("free_a_part", 134)
        self.assertIn("invalid pointer", self.messages)
        self.assertEqual(self.report("mtrace", "log.mtrace").count("BAD FREE"), 1)
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

    def test_a_process_whose_calls_are_filtered(self):
        """The filter of the first kind is that of one thread, the other one that of all threads."""
        for name in ("be_filtered_by_prctl", "be_filtered_by_seccomp"):
            self.skip_if(77, name)
            self.trouble(name)
            self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1, 71002: 1, 71003: 2})

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
        self.assertEqual((done.returncode, done.stderr), (0, "record: The recorder has ended before the program: the logs of log are not complete\n"))


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
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGUSR1, signal.SIGUSR2):
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


class Installed(Recorded):
    def test_the_installed_recorder(self):
        """It finds its library where that is installed, also if it is called by a link."""
        done = subprocess.run([options.cmake, "--install", options.build, "--prefix", self.folder / "installed"], capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        program = self.folder / "installed/bin/qor-record"
        self.assertTrue((self.folder / "installed/lib/qor/libqor-record.so").exists())
        (self.folder / "link").symlink_to(program)
        for each in (program, self.folder / "link"):
            done = subprocess.run([each, "-o", "log", options.bin / "troubles", "leave_at_once"], cwd=self.folder, env=self.environment,
                                  capture_output=True, text=True)
            self.assertEqual(done.returncode, 7, done.stderr)
            self.assertEqual(self.leaks(self.report("mtrace", "log.mtrace")), {71001: 1})
        (self.folder / "installed/lib/qor/libqor-record.so").unlink()
        done = subprocess.run([program, "true"], cwd=self.folder, env=self.environment, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr),
                         (1, f"record: {self.folder}/installed/lib/qor/libqor-record.so is missing: it is installed with this program\n"))


class Instrumented(Recorded):
    def test_what_cannot_be_recorded(self):
        self.refused("is built with a sanitizer", options.bin / "leaky")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--instrumented", action="store_true")
    return run(lambda: [Instrumented] if options.instrumented else [Programs, Troubles, Files, Control, Installed], parser)


if __name__ == "__main__":
    sys.exit(main())
