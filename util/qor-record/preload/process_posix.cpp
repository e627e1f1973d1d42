#include "process.h"

#include "raw_calls.h"

#include <linux/mman.h>
#include <sys/mman.h>

namespace qor::record {

process_state this_process;

namespace {

std::atomic<node*> chunks[most_node_chunks];

} // namespace

// A shared mapping can be doubled without its descriptor: by a move that leaves it where it is, to any part of the
// file.
void* map_behind_arena(std::size_t offset, std::size_t size) noexcept {
    if (this_process.without_system_calls || offset + size > this_process.shared->file_size)
        return nullptr;
    const long whole =
        raw_call(SYS_mremap, as_word(this_process.shared), 0, static_cast<long>(offset + size), MREMAP_MAYMOVE);
    if (has_failed(whole))
        return nullptr;
    raw_call(SYS_munmap, whole, static_cast<long>(offset));
    return as_pointer(whole + static_cast<long>(offset));
}

node* node_at(std::uint32_t number) noexcept {
    const unsigned chunk = number / nodes_per_chunk;
    if (chunk == 0) [[likely]]
        return &this_process.shared->first_nodes[number];
    node* nodes = chunks[chunk].load(std::memory_order_acquire);
    if (nodes == nullptr) {
        auto* const mapped = static_cast<node*>(map_behind_arena(chunk_offset(chunk), chunk_bytes));
        if (mapped == nullptr)
            return nullptr;
        if (chunks[chunk].compare_exchange_strong(nodes, mapped, std::memory_order_acq_rel))
            nodes = mapped;
        else
            raw_call(SYS_munmap, as_word(mapped), chunk_bytes);
    }
    return &nodes[number % nodes_per_chunk];
}

} // namespace qor::record
