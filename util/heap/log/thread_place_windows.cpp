// Windows looks for an idle processor each time it wakes a thread.
#include "thread_place.h"

namespace qor::heap {

int current_processor() noexcept { return -1; }

void thread_place::move_off(int processor) noexcept { m_kept_off = processor; }

} // namespace qor::heap
