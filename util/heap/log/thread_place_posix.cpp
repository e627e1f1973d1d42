#include "thread_place.h"

#include <sched.h>
#include <unistd.h>

namespace qor::heap {

int current_processor() noexcept { return sched_getcpu(); }

void thread_place::move_off(int processor) noexcept {
    m_kept_off = processor;
    cpu_set_t open;
    // The set of the process is that of its first thread, which is never restricted here.
    if (processor < 0 || processor >= CPU_SETSIZE || sched_getaffinity(getpid(), sizeof open, &open) != 0)
        return;
    CPU_CLR(processor, &open);
    if (CPU_COUNT(&open) != 0)
        sched_setaffinity(0, sizeof open, &open);
}

} // namespace qor::heap
