#!/usr/bin/env python3
"""Programs that a recorded program executes.

    executions_test.py --bin FOLDER --source FOLDER
"""

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


if __name__ == "__main__":
    sys.exit(run([Executions]))
