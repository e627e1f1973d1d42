// Inside the library: facts about the process in which it runs.
#pragma once

#include <string>

namespace qor::platform {

// The name given to qorInitProcess; until then, the name of the executable.
const char* name() noexcept;
void set_name(const char* name);

unsigned long process_id() noexcept;
unsigned long thread_id() noexcept;

// Whether the calling thread is the main thread, whose return ends the process. Windows does not report the main
// thread; there it is the thread that loaded the library.
bool is_main_thread() noexcept;

// Makes the end of the calling thread call `run`, which must be the same function in all threads. Not for the main
// thread.
void at_thread_end(void (*run)()) noexcept;

// Returns the path of the running program's file; empty if it is unknown.
std::string executable();

// Returns the folder of libqor with a trailing separator; empty if it is unknown.
std::string library_folder();

// Whether the process runs with more rights than its caller has, as a set-user-id program does.
bool is_privileged() noexcept;

// Returns the value of an environment variable. Null if it is unset or empty, or if the process is privileged.
const char* environment(const char* variable) noexcept;

// Sets a variable for the programs that this process starts.
void set_environment(const char* variable, const char* value) noexcept;

// Whether a word of this process's command line begins with `begin`. For code that runs before the framework reads the
// command line.
bool has_argument(const char* begin) noexcept;

// Makes the standard streams safe for output: no file that is opened later may take the place of a stream that the
// caller closed, and nothing stays in a buffer of standard error.
void set_up_standard_streams() noexcept;

// Registers three routines that run around every fork: in the parent before and after it, and in the child.
void watch_forks(void (*before)() noexcept, void (*in_parent)() noexcept, void (*in_child)() noexcept) noexcept;

// Starts a detached thread of the framework's own that receives none of the host's signals. Returns 0 or the system's
// error code.
int start_thread(void (*run)() noexcept) noexcept;

} // namespace qor::platform
