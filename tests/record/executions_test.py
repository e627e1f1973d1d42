#!/usr/bin/env python3
"""Programs that a recorded program executes.

    executions_test.py --bin FOLDER --source FOLDER
"""

import pathlib
import re
import subprocess
import sys

from recorded import Recorded, options, run


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
            #include <cstdio>
            #include <string>
            #include <sys/syscall.h>
            #include <sys/wait.h>
            #include <unistd.h>
            #include <wordexp.h>
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
                failed += in_child([&] { syscall(SYS_execve, program, list, nothing); });
                failed += in_child([&] { syscall(SYS_execveat, AT_FDCWD, program, list, nothing, 0); });
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
        self.assertEqual([self.leaks(self.report("mtrace", name)) for name in self.children()], [{71001: 1}] * 14)

    def test_functions_that_start_a_shell(self):
        """The shell is recorded, too, and the environment of the process is afterwards what it was."""
        program = self.build("program", """
            #include <cstdio>
            #include <cstdlib>
            #include <cstring>
            #include <string>
            #include <sys/wait.h>
            #include <thread>
            #include <unistd.h>
            #include <wordexp.h>
            static char own[] = "LD_PRELOAD=libm.so.6";
            static int count() {
                int variables = 0;
                for (char** each = environ; *each != nullptr; ++each)
                    ++variables;
                return variables;
            }
            int main(int, char** words) {
                const std::string line = std::string(words[1]) + " leave_at_once";
                int failed = 0;
                for (const bool has_own : {false, true}) {
                    clearenv();
                    setenv("A", "b", 1);
                    if (has_own)
                        putenv(own);
                    failed += WEXITSTATUS(system(line.c_str())) != 7;
                    std::thread other([&] { failed += WEXITSTATUS(system(("sleep 0.1; " + line).c_str())) != 7; });
                    std::FILE* const pipe = popen(line.c_str(), "r");
                    failed += WEXITSTATUS(pclose(pipe)) != 7;
                    other.join();
                    wordexp_t found;
                    failed += wordexp(("$(" + line + "; echo $A)").c_str(), &found, 0) != 0 || std::strcmp(found.we_wordv[0], "b") != 0;
                    failed += count() != 1 + has_own || (getenv("LD_PRELOAD") != nullptr) != has_own;
                    failed += has_own && getenv("LD_PRELOAD") != own + std::strlen("LD_PRELOAD=");
                    failed += system("exit 3") != 3 << 8;
                }
                return failed;
            }
            """, "-pthread")
        done = self.record(program, options.bin / "troubles")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual([self.leaks(self.report("mtrace", name)) for name in self.children()].count({71001: 1}), 8)
        self.assertNotIn("is not recorded", done.stderr)

    def unrecorded(self, done):
        """The lines about programs that are not recorded: {program: number of processes}."""
        return {match[1]: match[2].count(",") + 1
                for match in re.finditer(r"^record: (.*) was executed and is not recorded, in process (.*)$", done.stderr, re.M)}

    def static_program(self):
        source = self.folder / "static.c"
        source.write_text("#include <unistd.h>\nint main(int count, char** words) { if (count > 1) sleep(words[1][0] - '0'); return 7; }\n")
        subprocess.run(["cc", "-static", "-o", self.folder / "static", source], check=True)
        return self.folder / "static"

    def test_what_cannot_be_recorded_is_named(self):
        static = self.static_program()
        program = self.build("program", """
            #include <spawn.h>
            #include <sys/wait.h>
            #include <unistd.h>
            static int wait_for(pid_t child) {
                int status = 0;
                waitpid(child, &status, 0);
                return WIFEXITED(status) && WEXITSTATUS(status) == 7 ? 0 : 1;
            }
            int main(int, char** words) {
                char* list[] = {words[1], nullptr};
                pid_t child = fork();
                if (child == 0) {
                    execv("./nothing", list);
                    execv(words[1], list);
                    _exit(1);
                }
                int failed = wait_for(child);
                child = vfork();
                if (child == 0) {
                    execv("./nothing", list);
                    execv(words[1], list);
                    _exit(1);
                }
                failed += wait_for(child);
                failed += posix_spawn(&child, "./nothing", nullptr, nullptr, list, environ) == 0;
                failed += posix_spawn(&child, words[1], nullptr, nullptr, list, environ) + wait_for(child);
                return failed;
            }
            """)
        done = self.record(program, static)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(self.unrecorded(done), {str(static): 3})
        self.assertEqual(self.children(), [])
        # In the place of the program; and one that runs on.
        done = self.record("sh", "-c", f"exec {static}")
        self.assertEqual((done.returncode, self.unrecorded(done)), (7, {str(static): 1}), done.stderr)
        self.lines("log.mtrace")
        done = self.record("sh", "-c", f"{static} 3 > /dev/null 2>&1 & sleep 0.5")
        self.assertEqual((done.returncode, self.unrecorded(done)), (0, {str(static): 1}), done.stderr)
        self.assertNotIn("still running", done.stderr)

    def test_an_instruction_that_executes_a_program(self):
        """No function is called for it. The recorder sees that another program runs in the process."""
        program = self.build("program", """
            #include <cstdlib>
            #include <sys/syscall.h>
            #include <sys/wait.h>
            #include <unistd.h>
            void* volatile kept;
            int main(int, char** words) {
                char* list[] = {words[1], words[2], nullptr};
                char* nothing[] = {nullptr};
                const pid_t child = fork();
                if (child == 0) {
                    kept = std::malloc(71001);
                    long result = SYS_execve;
                    __asm__ volatile("syscall" : "+a"(result) : "D"(list[0]), "S"(list), "d"(nothing) : "rcx", "r11", "memory");
                    _exit(1);
                }
                int status = 0;
                waitpid(child, &status, 0);
                return status;
            }
            """)
        done = self.record(program, "/bin/sleep", 1)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(self.unrecorded(done), {str(pathlib.Path("/bin/sleep").resolve()): 1})
        self.assertEqual(self.children(), [], "the fork leaves nothing")

    def test_namespaces(self):
        """A process in a namespace of its own has another number there than here."""
        if subprocess.run(["unshare", "-Urpf", "true"], capture_output=True).returncode != 0:
            self.skipTest("this host does not allow it")
        for words in (["-U"], ["-Ur"], ["-Urf"], ["-Urpf"]):
            done = self.record("unshare", *words, options.bin / "troubles", "fork_twice")
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertNotIn("still running", done.stderr)
            self.assertEqual(self.unrecorded(done), {})
            found = [self.leaks(self.report("mtrace", name)) for name in ("log.mtrace", *self.children())]
            for each in ({71001: 1, 71002: 1}, {71002: 1, 72001: 1}, {71002: 1, 73001: 1}):
                self.assertEqual(found.count(each), 1, (words, found))
        # Neither the socket nor the folder in /proc is in reach.
        for words in (["-Un"], ["-Urpfn"]):
            done = self.record("unshare", *words, options.bin / "troubles", "leave_at_once")
            self.assertEqual((done.returncode, self.unrecorded(done)), (7, {str(options.bin / "troubles"): 1}), done.stderr)
            self.assertNotIn("still running", done.stderr)

    def test_many_programs(self):
        """The memory of a process that is over is released."""
        descriptors = self.folder / "descriptors"
        done = self.record("sh", "-c", "for i in $(seq 300); do /bin/true; done; "
                           f"for each in $(cat /proc/$PPID/task/$PPID/children); do ls /proc/$each/fd; done > {descriptors}")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertGreaterEqual(len(self.children()), 300)
        self.assertLess(len(descriptors.read_text().split()), 100)


if __name__ == "__main__":
    sys.exit(run([Executions]))
