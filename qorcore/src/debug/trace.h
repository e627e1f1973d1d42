// Inside the library: the end of tracing.
#pragma once

namespace qor::debug {

// Back to standard error; the trace file is closed.
void detach_file() noexcept;

// For start-up: where the trace goes from now on. 0, or the system's error code.
int attach_file(const char* path) noexcept;

} // namespace qor::debug
