// Inside the library: whether allocations are tracked and logged.
#pragma once

#include <string>

namespace qor::memory {

// How a log is asked for.
inline constexpr char log_option[] = "--qor-memcheck";
inline constexpr char log_variable[] = "QOR_MEMCHECK";

// Begins the allocation log; blocks that live already are written first. "%p" in the name stands for the process. Where
// a log has begun already, it goes on. 0, or the system's error code.
int start_log(const std::string& name);

// There will be no log: forgets the blocks that were remembered for it, and tracks nothing from now on.
void stop_tracking() noexcept;

} // namespace qor::memory
