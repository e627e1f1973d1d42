// Inside the library: the seam between threads and the system.
#pragma once

#include "qor/qor.h"

namespace qor::thread {

// A thread of the system that must be joined or detached.
using handle = unsigned long long;

// Starts a thread that calls `run(context)` and is never cancelled. Returns 0 or the system's error code.
int start(uint64 stack_size, void (*run)(void* context) noexcept, void* context, handle& out) noexcept;

// Waits for the end of a thread, which must be near.
void join(handle which) noexcept;
void detach(handle which) noexcept;

// To be called on the thread that they concern. Setting a priority returns 0 or the system's error code.
void set_own_name(const char* name) noexcept;
int set_own_priority(qorThreadPriority priority) noexcept;

} // namespace qor::thread
