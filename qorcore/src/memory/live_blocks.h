// Inside the allocator: the tracked blocks that are alive, and the places that requested them. They are kept only while
// they may be needed: until the process has started, and as long as an allocation log is written. The caller holds the
// allocator's lock.
//
// Memory for this table comes from the system's pages, not from malloc, so that it never appears in a log. The few
// blocks of a program start fit into the object itself, because mapping pages would take longer than the tool's
// shortest action.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>
#include <vector>

namespace qor::memory {

// The block types of the allocation log.
enum class block_type : uint8 { memory = 0, object = 1, huge = 3 };

struct live_block {
    const void* address; // null: a free slot
    uint64 size;
    block_type type;
    const char* file;
    int line;
    const char* type_name; // null until the object has announced itself
    uint64 sequence;       // in the order of allocation
};

class live_blocks {
public:
    live_blocks() noexcept = default;
    live_blocks(const live_blocks&) = delete;
    live_blocks& operator=(const live_blocks&) = delete;
    ~live_blocks() { clear(); }

    // Returns false if there is no memory to remember one more block.
    bool make_room() noexcept;

    // Replaces a block at the same address. There must be room for the block. The result is valid until the next
    // change.
    live_block& add(const void* address, uint64 size, block_type type, const char* file, int line);
    void remove(const void* address);
    live_block* find(const void* address);

    // Returns all blocks, the oldest first.
    std::vector<live_block> in_order() const;
    void clear() noexcept;

    // The number of blocks ever added.
    uint64 additions() const noexcept { return m_additions; }

private:
    static constexpr std::size_t first_capacity = 64;

    std::size_t home(const void* address) const noexcept;
    std::size_t place(const void* address) const noexcept;
    bool grow() noexcept;
    void unmap(live_block* slots, std::size_t capacity) noexcept;

    live_block m_first[first_capacity] = {};
    live_block* m_slots = m_first; // a power of two of slots, at most half in use; collisions go to the next slot
    std::size_t m_capacity = first_capacity;
    std::size_t m_count = 0;
    uint64 m_additions = 0;
};

} // namespace qor::memory
