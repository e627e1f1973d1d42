// Inside the library: the seam between process signals and the operating system.
#pragma once

#include "qor/system/Interface.h"

namespace qor::process {

// Begins to catch signals; what the process ignores stays ignored. 0, or the system's error code.
int catch_signals() noexcept;

// Gives them back to whoever had them before.
void release_signals() noexcept;

// Hands a signal that was caught, but that no handler is left for, to whoever has it now.
void raise_again(qorSignal signal) noexcept;

// Starts the one thread that calls `run`; the operating system's handlers never run on it. 0, or an error code.
int start_signal_thread(void (*run)() noexcept) noexcept;

// On that thread: returns when it has been woken since the last time, however long it takes.
void wait_for_wake() noexcept;

// From any thread, and from wherever the system calls its handlers, within a thread that was interrupted too.
void wake_signal_thread() noexcept;

// ---- called by the system's side
// For every signal that was caught, from wherever the system calls its handlers.
void count_signal(qorSignal signal) noexcept;

// In the child of a fork: it has neither that thread nor signals that are caught, and can begin again.
void forget_signal_thread() noexcept;

} // namespace qor::process
