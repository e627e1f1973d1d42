// The tree of stacks. Most stacks come again and again, so a small cache leads from the hash of the whole stack to its
// node; only the others are followed from their outermost frame through the tree.
#include "process.h"

namespace qor::record {

namespace {

// An entry holds 40 bits of the hash, which the place in the table does not imply, and 24 bits of node number.
constexpr unsigned cache_bits = 15;
std::atomic<std::uint64_t> cache[1U << cache_bits];
std::atomic<std::uint64_t> generation;

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t value) {
    hash = (hash ^ value) * 0x9fb21c651e98df25U;
    return hash ^ hash >> 32;
}

std::uint32_t new_node(std::uint64_t address, std::uint32_t parent, std::uint32_t module,
                       std::atomic<std::uint32_t>& bucket, std::uint32_t first) noexcept {
    arena& shared = *this_process.shared;
    if (shared.nodes_are_full.load(std::memory_order_relaxed) != 0)
        return 0;
    const std::uint32_t number = shared.node_count.fetch_add(1, std::memory_order_relaxed);
    node* const made = number < nodes_per_chunk * most_node_chunks ? node_at(number) : nullptr;
    if (made == nullptr) {
        shared.nodes_are_full.store(1, std::memory_order_relaxed);
        return 0;
    }
    *made = {address, parent, module, first, 0};
    // Another thread may make the same node meanwhile. Two nodes for one stack do no harm; they are one in the file.
    while (!bucket.compare_exchange_weak(made->next, number, std::memory_order_release, std::memory_order_relaxed)) {
    }
    return number;
}

// Returns 0 if there is no room for it.
std::uint32_t child_of(std::uint32_t parent, std::uintptr_t address) noexcept {
    const std::uint32_t module = module_of(address) & ~allocation_code;
    auto& bucket = this_process.shared->buckets[mix(mix(module, address), parent) % node_buckets];
    const std::uint32_t first = bucket.load(std::memory_order_acquire);
    for (std::uint32_t number = first; number != 0;) {
        const node* const found = node_at(number);
        if (found == nullptr)
            return 0;
        if (found->address == address && found->parent == parent && found->module == module)
            return number;
        number = found->next;
    }
    return new_node(address, parent, module, bucket, first);
}

} // namespace

std::uint32_t node_of(const std::uintptr_t* frames, unsigned count) noexcept {
    std::uint64_t hash = generation.load(std::memory_order_relaxed) + count;
    for (unsigned i = 0; i < count; ++i)
        hash = mix(hash, frames[i]);
    hash = mix(hash, count);
    std::atomic<std::uint64_t>& entry = cache[hash % (1U << cache_bits)];
    const std::uint64_t tag = hash >> 24 << 24;
    const std::uint64_t known = entry.load(std::memory_order_acquire);
    if ((known >> 24 << 24) == tag && (known & 0xffffff) != 0 && !modules_are_changing()) [[likely]]
        return static_cast<std::uint32_t>(known & 0xffffff);
    std::uint32_t number = 0;
    bool whole = true;
    for (unsigned i = count; i-- > 0 && whole;) {
        if (i != 0 && is_own_code(frames[i]))
            continue; // the hook of an operator new that calls another one
        const std::uint32_t child = child_of(number, frames[i]);
        whole = child != 0;
        number = whole ? child : number;
    }
    if (!whole)
        return child_of(0, frames[0]);
    entry.store(tag | number, std::memory_order_release);
    return number;
}

void forget_stacks() noexcept { generation.fetch_add(0x9e3779b97f4a7c15U, std::memory_order_relaxed); }

} // namespace qor::record
