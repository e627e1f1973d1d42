#include "process.h"

#include <windows.h>

namespace qor::record {

constinit process_state this_process{};

namespace {

constinit std::atomic<bool> is_committed[most_node_chunks]{};

} // namespace

// The view has room for all of them; memory is taken when a chunk is first used.
node* node_at(std::uint32_t number) noexcept {
    const unsigned chunk = number / nodes_per_chunk;
    if (chunk == 0) [[likely]]
        return &this_process.shared->first_nodes[number];
    void* const place = reinterpret_cast<char*>(this_process.shared) + chunk_offset(chunk);
    if (!is_committed[chunk].load(std::memory_order_acquire)) {
        const DWORD before = GetLastError();
        const bool is_there = VirtualAlloc(place, chunk_bytes, MEM_COMMIT, PAGE_READWRITE) != nullptr;
        SetLastError(before);
        if (!is_there)
            return nullptr;
        is_committed[chunk].store(true, std::memory_order_release);
    }
    return &static_cast<node*>(place)[number % nodes_per_chunk];
}

} // namespace qor::record
