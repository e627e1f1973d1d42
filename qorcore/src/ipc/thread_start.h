// Inside the library: how the thread of a loop is started.
#pragma once

#include "thread/system_thread.h"

namespace qor::ipc {

// Starts a thread that receives none of the host's signals. Returns 0 or the system's code.
int start_thread(void (*run)(void* context) noexcept, void* context, thread::handle& out) noexcept;

} // namespace qor::ipc
