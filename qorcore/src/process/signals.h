// Inside the library: the seam between process signals and the operating system.
#pragma once

#include "qor/system/Interface.h"

namespace qor::process {

// Begins to catch signals; what the process ignores stays ignored. 0, or the system's error code.
int catch_signals() noexcept;

// Gives them back to whoever had them before.
void release_signals() noexcept;

// Starts the one thread that calls `run`; the operating system's handlers never run on it. 0, or an error code.
int start_signal_thread(void (*run)() noexcept) noexcept;

// On that thread: the next signal, however long it takes.
qorSignal wait_for_signal() noexcept;

// The other way round, called in the child of a fork: it has neither that thread nor signals that are caught,
// and can begin again.
void forget_signal_thread() noexcept;

} // namespace qor::process
