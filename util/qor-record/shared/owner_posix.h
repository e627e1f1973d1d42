// Whether the recorder is still there.
#pragma once

#include "arena.h"

namespace qor::record {

// FUTEX_OWNER_DIED and FUTEX_TID_MASK, in the word that `owner` begins with.
inline bool recorder_is_gone(const arena& shared) {
    const auto word =
        reinterpret_cast<const std::atomic<std::uint32_t>*>(shared.owner)->load(std::memory_order_relaxed);
    return (word & 0x3fffffffU) == 0 || (word & 0x40000000U) != 0;
}

} // namespace qor::record
