// Inside the library: whether allocations are tracked and logged.
#pragma once

#include <string>

namespace qor::memory {

// The option and the environment variable that ask for a log.
inline constexpr char log_option[] = "--qor-memcheck";
inline constexpr char log_variable[] = "QOR_MEMCHECK";

// Begins the allocation log with the blocks that are already alive. "%p" in the name stands for the process. Does
// nothing if there is a log already. Returns 0, or the system's error code.
int start_log(const std::string& name);

// Ends the wait for a log: forgets the blocks remembered for it and stops tracking.
void stop_tracking() noexcept;

} // namespace qor::memory
