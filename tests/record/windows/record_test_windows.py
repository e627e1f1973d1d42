#!/usr/bin/env python3
"""Records programs of Windows: the blocks that are left are those that the programs tell, to the address.

    record_test_windows.py --bin FOLDER --record PROGRAM --tool QORTOOL --heap QOR_HEAP --source FOLDER [--runner PROGRAM]

QOR_TEST_WHOLE=1 ends 200 processes at work instead of 10.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))

import stacks_file  # noqa: E402

options = argparse.Namespace()
LEAK = re.compile(r"^LEAK at 0x([0-9a-f]+) size (\d+) ", re.MULTILINE)
LIMIT = 300  # seconds; only against hanging


def windows(path):
    """As Wine shows it."""
    return "Z:" + str(path).replace("/", "\\")


def line_of(name):
    """The line that ends with the word as a comment: "planted.c:12"."""
    found = [f"{path.name}:{number}" for path in options.source.glob("*.c*")
             for number, line in enumerate(path.read_text().splitlines(), 1) if line.endswith((f"// {name}", f"/* {name} */"))]
    assert len(found) == 1, (name, found)
    return found[0]


class Windows(unittest.TestCase):
    maxDiff = 4000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()

    def command(self, program, *words):
        return [*([options.runner] if options.runner else []), program, *map(str, words)]

    def run_windows(self, program, *words, code=0, **more):
        """Standard output and error, with the line ends of POSIX."""
        done = subprocess.run(self.command(program, *words), cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=LIMIT, **{"stdin": subprocess.DEVNULL, **more})
        out, errors = (text.replace(b"\r\n", b"\n").decode() for text in (done.stdout, done.stderr))
        if code is not None:
            self.assertEqual(done.returncode, code, errors)
        return out, errors

    def record(self, program, *words, code=0, prefix=("-o", "log"), **more):
        path = program if isinstance(program, Path) else options.bin / program
        return self.run_windows(options.record, *prefix, "--", windows(path), *words, code=code, **more)

    def recording(self, name="log.mtrace"):
        """The log with its stacks. What qortool finds is what a plain replay finds."""
        recording = stacks_file.Recording(self.folder / name)
        self.assertEqual(len(recording.stacks.records), recording.blocks)
        self.assertEqual((recording.stacks.cut_off, recording.stacks.newer, recording.stacks.losses), (False, False, []))
        self.assertEqual(recording.stacks.faults[:10], [])
        return recording

    def check(self, name="log.mtrace", marks=range(71000, 72000)):
        """[(address, size)] of the blocks with these sizes that are left; nothing was released that was not there."""
        recording = self.recording(name)
        self.assertEqual(recording.bad[:5], [])
        alive = sorted((address, record.size) for address, record in recording.alive.items())
        report, _ = self.run_windows(options.tool, "--quiet", "mtrace", name)
        self.assertNotIn("BAD FREE", report)
        self.assertEqual(sorted((int(address, 16), int(size)) for address, size in LEAK.findall(report)), alive)
        return [each for each in alive if each[1] in marks]

    def check_planted(self, program, code):
        out, errors = self.record(program, code=code)
        told = [line.split() for line in out.splitlines()]
        self.assertEqual(self.check(), sorted((int(address, 16), int(size)) for _, address, size in told), errors)
        sites, _ = self.run_windows(options.heap, "sites", "--limit", 0, "--frames", 0, "--no-suppressions", "log.mtrace")
        places = {}
        for line in sites.splitlines():
            if match := re.match(r" *(\d+) +[\d.]+% +\d+ +\S+  (.*)", line):
                places[int(match[1])] = lines = []
                line = match[2]
            if places:
                lines.append(line.strip())
        for name, _, size in told:
            # The first places of a stack may be those of the C++ library, whose code has no lines here.
            self.assertIn(line_of(name), "\n".join(places[int(size)]), (name, places[int(size)]))
        return places

    # ---- leaks by their lines

    def test_leaks_of_c(self):
        self.check_planted("planted_windows_c.exe", 7)
        self.assertEqual(self.recording().codes["<"], self.recording().codes[">"] + 1)  # one realloc of 0 bytes

    def test_leaks_of_c_with_the_other_run_time(self):
        self.check_planted("planted_windows_ucrt.exe", 7)
        self.assertIn("ucrtbase.dll", self.record("planted_windows_ucrt.exe", code=7)[1])

    def test_leaks_of_cxx(self):
        places = self.check_planted("planted_windows.exe", 42)
        # The pool for exceptions is no leak.
        self.assertIn(74752, places)
        sites, _ = self.run_windows(options.heap, "sites", "--limit", 0, "log.mtrace")
        self.assertIn("Suppressed: 74752 bytes (blocks: 1,", sites)
        self.assertNotRegex(sites, r"(?m)^ *74752 ")
        # Inlined functions have places of their own, and operators new have none.
        functions = [re.split(r"[( ]", place.replace("(anonymous namespace)::", ""))[0] for place in places[71003]]
        self.assertEqual(functions[:3], ["innermost", "inner", "inlined"])
        self.assertTrue(places[71002][0].replace("(anonymous namespace)::", "").startswith("array"), places[71002])

    def test_stacks_reach_from_the_block_to_the_start_of_the_thread(self):
        self.record("planted_windows.exe", code=42)
        stacks = self.recording().stacks
        for node in set(stacks.records):
            frames = stacks.frames(node)
            self.assertTrue(all(frame.module for frame in frames), frames)
            self.assertRegex(frames[-1].module.path, r"(?i)\\ntdll\.dll$")
        paths = [module.path for module in stacks.modules[1:]]
        self.assertEqual(len(paths), len(set(paths)))

    def test_stacks_are_those_that_the_system_finds(self):
        out, _ = self.record("troubles_windows.exe", "stacks")
        recording = self.recording()
        stacks = {record.size: [frame.module.base + frame.address for frame in recording.stacks.frames(record.node)]
                  for record in recording.alive.values()}
        told = {int(size): [int(frame, 16) for frame in frames] for size, *frames in map(str.split, out.splitlines())}
        self.assertEqual(sorted(told), list(range(71701, 71712)))
        for size, frames in told.items():
            # The call of malloc is in the innermost frame, where the system found its own call.
            self.assertEqual(list(map(hex, stacks[size][1:])), list(map(hex, frames)), size)

    def test_modules_come_and_go(self):
        self.record("planted_windows.exe", code=42)
        moves = [what for _, what, module in self.recording().stacks.loads if module.path.endswith("\\late_library.dll")]
        self.assertEqual(moves[:2], ["came", "went"])
        library, = {module.build_id for module in self.recording().stacks.modules[1:]
                    if module.path.endswith("\\late_library.dll")}
        self.assertIn(b"RSDS" + library, (options.bin / "late_library.dll").read_bytes())

    def test_depths(self):
        for depth, most in ((0, 1), (1, 1), (3, 3), (256, 256)):
            self.record("planted_windows.exe", code=42, prefix=("--depth", str(depth), "-o", "log"))
            stacks = self.recording().stacks
            self.assertLessEqual(max(len(stacks.frames(node)) for node in set(stacks.records)), most)
        done, errors = self.run_windows(options.record, "--depth", "257", "x", code=1)
        self.assertIn("'257' is not a depth", errors)

    # ---- threads and ends

    def test_threads_exchange_blocks(self):
        out, _ = self.record("troubles_windows.exe", "exchange", 8, 20000)
        count, *blocks = out.split()
        recording = self.recording()
        self.assertEqual(recording.bad[:5], [])
        self.assertGreaterEqual(recording.codes["+"], int(count))
        alive = {address for address, record in recording.alive.items() if record.size <= 300}
        self.assertLessEqual({int(block, 16) for block in blocks}, alive)
        self.assertEqual(len([1 for record in recording.alive.values() if record.size <= 300 and record.thread in
                              self.workers(recording)]), len(blocks))

    def workers(self, recording):
        """The threads of most records: those of the exchange."""
        counts = {}
        for thread in recording.stacks.threads:
            counts[thread] = counts.get(thread, 0) + 1
        return {thread for thread, count in counts.items() if count >= 20000}

    def test_a_process_that_ends_while_its_threads_allocate(self):
        for i in range(200 if os.environ.get("QOR_TEST_WHOLE") else 10):
            self.record("troubles_windows.exe", "exit_process" if i % 2 else "exit", 0, code=5,
                        prefix=("--system-heap", "-o", "log"))
            recording = self.recording()
            self.assertEqual(recording.bad[:5], [])
            self.assertGreater(recording.codes["+"], 3000)

    def test_an_end_that_has_more_to_say_than_there_is_room_for(self):
        for word in ("exit", "exit_process"):
            self.record("troubles_windows.exe", word, 200000, code=5, prefix=("--system-heap", "-o", "log"))
            recording = self.recording()
            self.assertEqual(recording.bad[:5], [])
            self.assertGreaterEqual(recording.codes["-"], 200000)

    def test_a_killed_process_loses_no_record(self):
        for word, size, code in (("kill", 71401, 9), ("crash", 71402, 0x94)):
            self.record("troubles_windows.exe", word, code=code)
            self.assertEqual([size for _, size in self.check()], [size])

    # ---- command lines, names, refusals

    def test_words_arrive_as_they_are(self):
        words = ["a b", "", '"', 'a"b c', "\\", "a\\", "a b\\", 'a\\"b', "\\\\\\", "tab\there", "ä€😀", "%PATH%", "a'b", "-x", "--"]
        out, _ = self.record("troubles_windows.exe", "words", *words)
        self.assertEqual(out.splitlines(), words)

    def test_names_of_every_language(self):
        folder = self.folder / "ein Ördner Ω"
        folder.mkdir()
        shutil.copy(options.bin / "troubles_windows.exe", folder / "prögram α.exe")
        self.run_windows(options.record, "-o", "ein Ördner Ω/", "ein Ördner Ω\\prögram α", "lose", 71201, code=3)
        self.assertEqual([size for _, size in self.check("ein Ördner Ω/prögram α.mtrace")], [71201])
        text = (folder / "prögram α.mtrace").read_text()
        self.assertIn("\\ein_Ördner_Ω\\prögram_α.exe:[0x", text)

    def test_without_a_name_the_files_have_that_of_the_program(self):
        self.record("troubles_windows.exe", "lose", 71201, code=3, prefix=())
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()),
                         ["troubles_windows.mtrace", "troubles_windows.stacks"])

    def test_compressed(self):
        for option, suffix in (("--gzip", ".gz"), ("--zstd", ".zst")):
            self.record("troubles_windows.exe", "lose", 71201, code=3, prefix=(option, "-o", "log"))
            self.assertEqual([size for _, size in self.check(f"log.mtrace{suffix}")], [71201])
            self.assertEqual(sorted(path.name for path in self.folder.iterdir()), [f"log.mtrace{suffix}", f"log.stacks{suffix}"])

    def refused(self, reason, *words):
        _, errors = self.run_windows(options.record, "-o", "log", *words, code=1)
        self.assertEqual(errors.count("\n"), 1, errors)
        self.assertIn(reason, errors)
        self.assertEqual(list(self.folder.glob("log*")), [])

    def test_refusals(self):
        whole = (options.bin / "troubles_windows.exe").read_bytes()
        machine = int.from_bytes(whole[0x3c:0x40], "little") + 4
        for number, name in ((0x14c, "narrow"), (0xaa64, "other")):
            (self.folder / f"{name}.exe").write_bytes(whole[:machine] + number.to_bytes(2, "little") + whole[machine + 2:])
        (self.folder / "script.bat").write_text("echo off\r\n")
        (self.folder / "text.exe").write_text("no program")
        self.refused("is a 32-bit program", ".\\narrow.exe")
        self.refused("another processor", ".\\other.exe")
        self.refused("is a script", ".\\script.bat")
        self.refused("cannot be started", ".\\text.exe")
        self.refused("no such program", ".\\missing.exe")
        self.refused("Unknown option '--nothing'", "--nothing", "x")

    def test_the_recorder_lies_in_a_folder_with_accents(self):
        folder = self.folder / "wä n"
        folder.mkdir()
        for name in (options.record.name, "qor-record-hooks.dll", "zlib1.dll", "libzstd.dll"):
            shutil.copy(options.record.with_name(name), folder)
        self.run_windows(folder / options.record.name, "-o", "log", windows(options.bin / "troubles_windows.exe"), "lose", 71201,
                         code=3)
        self.assertEqual([size for _, size in self.check()], [71201])
        (folder / "qor-record-hooks.dll").unlink()
        _, errors = self.run_windows(folder / options.record.name, "-o", "log", "cmd.exe", code=1)
        self.assertIn("qor-record-hooks.dll is missing", errors)

    def test_files_of_others_stay(self):
        (self.folder / "log.mtrace").write_text("a letter\n")
        _, errors = self.record("troubles_windows.exe", "lose", 71201, code=1)
        self.assertIn("is not a log of a heap", errors)
        self.assertEqual((self.folder / "log.mtrace").read_text(), "a letter\n")
        self.record("troubles_windows.exe", "lose", 71201, code=3, prefix=("--force", "-o", "log"))
        self.assertEqual([size for _, size in self.check()], [71201])

    # ---- what is hooked

    def test_the_user_is_told_what_was_hooked(self):
        _, errors = self.record("troubles_windows.exe", "lose", 71201, code=3)
        self.assertIn("recorded were the allocation functions of msvcrt.dll, as ", errors)
        self.assertNotIn("linked into it", errors)
        _, errors = self.record("without_runtime.exe", code=6)
        self.assertIn("without_runtime.exe itself calls no allocation function of a library", errors)
        self.assertEqual(self.check(), [])

    def test_the_heaps_of_the_system(self):
        self.record("without_runtime.exe", code=6, prefix=("--system-heap", "-o", "log"))
        self.assertEqual([size for _, size in self.check()], [71501])
        # The header need not say where the addresses of imports lie.
        program = bytearray((options.bin / "without_runtime.exe").read_bytes())
        directory = int.from_bytes(program[0x3c:0x40], "little") + 24 + 112 + 12 * 8
        self.assertNotEqual(program[directory:directory + 8], bytes(8))
        program[directory:directory + 8] = bytes(8)
        (self.folder / "plain.exe").write_bytes(program)
        self.record(self.folder / "plain.exe", code=6, prefix=("--system-heap", "-o", "log"))
        self.assertEqual([size for _, size in self.check()], [71501])
        out, _ = self.record("troubles_windows.exe", "heap", prefix=("--system-heap", "-o", "log"))
        kept, moved = (int(address, 16) for address in out.split())
        recording = self.recording()
        marked = {address: record.size for address, record in recording.alive.items() if 71000 <= record.size < 72000}
        self.assertEqual(marked, {kept: 71301, moved: 71302})
        self.assertEqual([each for each in recording.bad if each[1] != "-"], [])

    # ---- children

    def test_children(self):
        for how in ("spawn", "system", "create", "held"):
            with self.subTest(how):
                self.record("troubles_windows.exe", "start", how, code=3)
                marks = [self.check(path.name) for path in self.folder.glob("log.mtrace.*")]
                self.assertEqual([[size for _, size in each] for each in marks if each], [[71201]])
                self.assertEqual(self.check(), [])
                self.assertEqual(len(list(self.folder.glob("log.stacks*"))), len(marks) + 1)
        self.record("troubles_windows.exe", "start", "create", code=3, prefix=("--no-children", "-o", "log"))
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["log.mtrace", "log.stacks"])

    def test_a_child_that_is_left_running(self):
        _, errors = self.record("troubles_windows.exe", "start", "leave")
        child, = self.folder.glob("log.mtrace.*")
        self.assertEqual([size for _, size in self.check(child.name)], [71201])
        self.assertEqual(errors.count("log.mtrace."), 1)

    # ---- control

    def start_controlled(self, *words):
        process = subprocess.Popen(self.command(options.record, *words, "-o", "log", windows(options.bin / "troubles_windows.exe"),
                                                "be_controlled"),
                                   cwd=self.folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.communicate)
        return process

    def tell(self, process, line):
        process.stdin.write(f"{line}\n".encode())
        process.stdin.flush()
        self.assertEqual(process.stdout.readline().strip(), b"done")

    def control(self, word, code=0):
        return self.run_windows(options.record, "control", "log", word, code=code)[1]

    def test_control(self):
        self.assertIn("Nothing is being recorded", self.control("stop", 1))
        process = self.start_controlled("--start-stopped")
        self.tell(process, 71601)
        self.assertIn("recording", self.control("start"))
        self.tell(process, 71602)
        self.assertIn("stopped", self.control("stop"))
        self.tell(process, 71603)
        self.tell(process, "f")
        self.tell(process, 71604)
        self.control("start")
        self.tell(process, "f")
        _, errors = self.record("troubles_windows.exe", "lose", 71201, code=1)
        self.assertIn("A recorder is writing", errors)
        process.communicate(timeout=LIMIT)
        self.assertEqual([size for _, size in self.check()], [71602])

    def test_a_program_goes_on_without_its_recorder(self):
        if not options.runner:
            self.skipTest("the process of a program is known here only where Wine runs it")
        process = self.start_controlled()
        self.tell(process, 71601)
        process.kill()
        process.wait()
        for _ in range(3):
            self.tell(process, 71602)

    def test_help_lists_the_options(self):
        out, _ = self.run_windows(options.record, "--help")
        for option in ("-o PREFIX", "--depth N", "--no-children", "--start-stopped", "--zstd", "--gzip", "--force",
                       "--system-heap", "--help"):
            self.assertIn(option, out)


def main():
    parser = argparse.ArgumentParser()
    for name in ("bin", "record", "tool", "heap", "source"):
        parser.add_argument(f"--{name}", type=lambda path: Path(path).resolve(), required=True)
    parser.add_argument("--runner")
    _, rest = parser.parse_known_args(namespace=options)
    return 0 if unittest.main(argv=[sys.argv[0], *rest], verbosity=2, exit=False).result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
