#!/usr/bin/env python3
"""The records of qor-record: their stacks, their order, and those of other allocators.

    allocations_test.py --bin FOLDER --source FOLDER
"""

import collections
import pathlib
import re
import shutil
import subprocess
import sys

import stacks_file
from recorded import Recorded, options, run


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


class WithStacks(Recorded):
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


class Stacks(WithStacks):
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

    def test_a_file_that_is_cut_off(self):
        """It is usable up to its end: each part of it has the first stacks of the whole."""
        self.recorded(shutil.which("ls"))
        data = (self.folder / "log.stacks").read_bytes()
        whole = stacks_file.Stacks(data)
        self.assertFalse(whole.cut_off)
        counts = set()
        for size in range(9, len(data), max(1, len(data) // 500)):
            part = stacks_file.Stacks(data[:size])
            count = len(part.records)
            counts.add(count)
            self.assertEqual(list(map(part.frames, part.records)), list(map(whole.frames, whole.records[:count])))
        self.assertGreater(len(counts), 10)

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

    def test_first_calls_while_another_thread_allocates(self):
        """The recorder then searches for the functions behind its own, and the other thread must not notice it."""
        program = self.build("program", """
            #include <atomic>
            #include <cstdio>
            #include <cstdlib>
            #include <cstring>
            #include <cwchar>
            #include <malloc.h>
            #include <thread>
            static std::atomic<int> begun;
            static std::atomic<bool> ended;
            static void allocate() {
                static void* volatile kept[20000];
                ++begun;
                for (int i = 0; i < 20000 && !ended; ++i)
                    if ((kept[i] = std::malloc(60000)) == nullptr)
                        std::abort();
            }
            int main() {
                void* volatile block = std::malloc(100);
                std::thread one(allocate), other(allocate);
                while (begun < 2) {
                }
                std::free(block);
                std::size_t size = malloc_usable_size(block = strdup("a text"));
                block = wcsdup(L"a text");
                block = strndup("a text", 2);
                char* text;
                size += static_cast<std::size_t>(asprintf(&text, "%d", 1));
                ended = true;
                one.join();
                other.join();
                return size > 0 ? 0 : 1;
            }
            """, "-O1", "-pthread")
        for _ in range(20):
            done = self.record(program, prefix=("--depth", "0", "-o", "log"))
            self.assertEqual(done.returncode, 0, done.stderr)


class Allocators(WithStacks):
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

    def test_functions_that_call_malloc_for_aligned_blocks(self):
        """The block inside of the one that malloc returns is recorded, and that one is not."""
        library = self.build("library.so", """
            #include <cerrno>
            #include <cstdint>
            #include <cstdlib>
            #include <malloc.h>
            extern "C" {
            void* __libc_malloc(std::size_t size);
            void __libc_free(void* block);
            void* malloc(std::size_t size) noexcept {
                auto* const made = static_cast<void**>(__libc_malloc(size + 16));
                if (made == nullptr)
                    return nullptr;
                made[0] = nullptr;
                return made + 2;
            }
            void free(void* block) noexcept {
                if (block == nullptr)
                    return;
                void** const begin = static_cast<void**>(block) - 2;
                if (begin[0] != nullptr)
                    free(begin[0]);
                else
                    __libc_free(begin);
            }
            void* memalign(std::size_t alignment, std::size_t size) noexcept {
                auto* const whole = static_cast<char*>(malloc(size + alignment + 16));
                if (whole == nullptr)
                    return nullptr;
                auto** const made = reinterpret_cast<void**>(reinterpret_cast<std::uintptr_t>(whole + 16 + alignment - 1) / alignment * alignment);
                made[-2] = whole;
                return made;
            }
            void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept { return memalign(alignment, size); }
            int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
                void* const made = memalign(alignment, size);
                *result = made != nullptr ? made : *result;
                return made != nullptr ? 0 : ENOMEM;
            }
            void* valloc(std::size_t size) noexcept { return memalign(4096, size); }
            }
            """, "-shared", "-fPIC", "-O2", "-fno-builtin")
        program = self.build("program", """
            #include <cstdlib>
            #include <malloc.h>
            #include <new>
            void* volatile kept;
            void* get(std::size_t alignment, std::size_t size) {
                void* made = nullptr;
                return posix_memalign(&made, alignment, size) == 0 ? made : nullptr;
            }
            int main() {
                kept = memalign(64, 71001);
                kept = std::aligned_alloc(64, 71040);
                kept = get(64, 71002);
                kept = valloc(71003);
                kept = std::malloc(71004);
                std::free(memalign(64, 72001));
                std::free(std::aligned_alloc(64, 72064));
                std::free(get(64, 72002));
                std::free(valloc(72003));
                std::free(std::malloc(72004));
                ::operator delete(::operator new(72192, std::align_val_t(128)), std::align_val_t(128));
            }
            """)
        leaks, lines = self.behind(library, program)
        self.assertEqual(leaks, {71001: 1, 71002: 1, 71003: 1, 71004: 1, 71040: 1})
        sizes = [int(line[-1], 16) for line in lines if line[2] == "+" and line[1].startswith(f"{program}:")]
        self.assertEqual([size for size in sizes if 71000 < size < 79000],
                         [71001, 71040, 71002, 71003, 71004, 72001, 72064, 72002, 72003, 72004, 72192])
        self.assertFalse(any(line[1].startswith(f"{library}:") for line in lines), "what the allocator does by itself")

    def test_signals_within_functions_that_make_texts(self):
        """Blocks of the handler have the handler's stacks, and those of the text that of the function's caller."""
        library = self.build("library.so", """
            #include <csignal>
            #include <cstdlib>
            extern "C" void* __libc_malloc(std::size_t size);
            extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);
            int wanted_signals;
            static void raise_if_wanted() {
                if (wanted_signals > 0) {
                    --wanted_signals;
                    std::raise(SIGUSR1);
                }
            }
            extern "C" void* malloc(std::size_t size) noexcept {
                raise_if_wanted();
                return __libc_malloc(size);
            }
            extern "C" void* memalign(std::size_t alignment, std::size_t size) noexcept {
                raise_if_wanted();
                return __libc_memalign(alignment, size);
            }
            void* get_in_library(std::size_t size) { return std::malloc(size); }
            """, "-shared", "-fPIC", "-O1", "-fno-builtin", "-fno-optimize-sibling-calls")
        program = self.build("program", """
            #include <csignal>
            #include <cstdio>
            #include <cstdlib>
            #include <cstring>
            #include <malloc.h>
            extern int wanted_signals;
            void* get_in_library(std::size_t size);
            void* volatile kept;
            char text[71001];
            [[gnu::noinline]] void handle(int) {
                kept = std::malloc(71101);
                kept = get_in_library(71102);
                kept = strdup(text + 71000 - 71);
                kept = nullptr;
            }
            [[gnu::noinline]] void with_signal() { wanted_signals = 1; }
            [[gnu::noinline]] void by_text() { with_signal(); kept = strdup(text); kept = nullptr; }
            [[gnu::noinline]] void by_print() {
                char* made;
                with_signal();
                kept = asprintf(&made, "%71001d", 1) < 0 ? nullptr : made;
                kept = nullptr;
            }
            [[gnu::noinline]] void by_memalign() { with_signal(); kept = memalign(64, 71003); kept = nullptr; }
            int main() {
                std::memset(text, 'a', 71000);
                std::signal(SIGUSR1, handle);
                by_text();
                by_print();
                by_memalign();
            }
            """, "-O1", "-fno-optimize-sibling-calls", "-Wl,--no-as-needed", self.folder / "library.so")
        for depth in ("64", "0"):
            done = self.record("sh", "-c", 'LD_PRELOAD="$LD_PRELOAD:$0" exec "$1"', library, program, prefix=("--depth", depth, "-o", "log"))
            self.assertEqual(done.returncode, 0, done.stderr)
            lines = [line.split() for line in self.lines("log.mtrace") if line.startswith("@ ") and line.split()[2] in "+>"]
            stacks = StacksFile((self.folder / "log.stacks").read_bytes())
            found = collections.defaultdict(list)
            for line, stack in zip(lines, stacks.stacks):
                frames = stacks.frames(stack)
                found[int(line[-1], 16)].append((pathlib.Path(frames[0][0]).name, *self.functions(program, frames)[:1]))
            first = ("library.so", "handle") if depth == "64" else ("library.so",)
            self.assertEqual((found[71101], found[71102]), ([("program", "handle")] * 3, [first] * 3))
            self.assertEqual((found[71001], found[71002], found[71003]),
                             ([("program", "by_text")], [("program", "by_print")], [("program", "by_memalign")]))
            self.assertEqual(found[72].count(("program", "handle")), 3)


if __name__ == "__main__":
    sys.exit(run([Stacks, Order, Allocators]))
