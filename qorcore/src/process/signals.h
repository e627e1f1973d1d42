// Inside the library: the seam between process signals and the operating system.
#pragma once

#include "qor/system/Interface.h"

namespace qor::process {

// Starts to catch signals. Signals that the process ignores stay ignored. Returns 0 or the system's error code.
int catch_signals() noexcept;

// Restores the previous handling of the signals.
void release_signals() noexcept;

// Passes on a caught signal for which no handler is left: the current handling of that signal receives it.
void raise_again(qorSignal signal) noexcept;

// Starts the single thread that calls `run`; the operating system never runs its signal handlers on it. Returns 0 or an
// error code.
int start_signal_thread(void (*run)() noexcept) noexcept;

// To be called on that thread. Waits until a wake-up has arrived since the last call.
void wait_for_wake() noexcept;

// May be called from any thread and from the system's signal handlers, which may interrupt a thread.
void wake_signal_thread() noexcept;

// ---- called by the system's side
// Called for every caught signal, from the system's signal handlers.
void count_signal(qorSignal signal) noexcept;

// Called in a forked child, which has no signal thread and catches no signals. The child can start again.
void forget_signal_thread() noexcept;

} // namespace qor::process
