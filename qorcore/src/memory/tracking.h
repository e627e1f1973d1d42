// Inside the library: whether allocations are tracked and logged.
#pragma once

#include <string>

namespace qor::memory {

// Begins the allocation log; blocks that live already are written first. 0, or the system's error code.
int start_log(const std::string& path);

// There will be no log: forgets the blocks that were remembered for it, and tracks nothing from now on.
void stop_tracking() noexcept;

} // namespace qor::memory
