// Whether a recorded process still runs.
#pragma once

#include "qor/system/Types.h"

namespace qor::heap_tool {

bool is_running(uint64 pid) noexcept;

} // namespace qor::heap_tool
