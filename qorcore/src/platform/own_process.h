// Inside the library: what it knows of the process it runs in.
#pragma once

#include <string>

namespace qor::platform {

// The name given to qorInitProcess; before that, the executable's.
const char* name() noexcept;
void set_name(const char* name);

unsigned long process_id() noexcept;
unsigned long thread_id() noexcept;

// Whether the calling thread is the one with which the process ends, if none calls exit. Windows does not tell; there
// it is the one that loaded the library.
bool is_main_thread() noexcept;

// From now on the end of the calling thread calls `run`, the same in all threads. Not for the main thread.
void at_thread_end(void (*run)()) noexcept;

// The path of the running program's file; empty if it cannot be told.
std::string executable();

// The folder in which libqor lies, with its separator; empty if it cannot be told.
std::string library_folder();

// Whether the process runs with rights that its caller does not have: a set-user-id program, for instance.
bool is_privileged() noexcept;

// The value of an environment variable, or null where it is unset or empty, or where the process is privileged.
const char* environment(const char* variable) noexcept;

// Sets a variable for the programs that this process starts.
void set_environment(const char* variable, const char* value) noexcept;

// Whether a word of this process's command line begins like this. For those who cannot wait until the framework has
// read it.
bool has_argument(const char* begin) noexcept;

// Makes the standard streams safe to print to: one that the caller closed must not become the next file that somebody
// opens, and a console must take what comes for UTF-8.
void set_up_standard_streams() noexcept;

// Has three routines called around every fork: in the parent before and after it, and in the child.
void watch_forks(void (*before)() noexcept, void (*in_parent)() noexcept, void (*in_child)() noexcept) noexcept;

// A detached thread of the framework's own, which gets none of the host's signals. 0, or the system's error code.
int start_thread(void (*run)() noexcept) noexcept;

} // namespace qor::platform
