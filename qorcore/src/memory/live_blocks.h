// Inside the allocator: which tracked blocks are alive, and who asked for them. Kept only while somebody may want to
// know: until the process has started, and as long as an allocation log is written. The caller holds the
// allocator's lock.
#pragma once

#include "qor/system/Types.h"

#include <unordered_map>
#include <vector>

namespace qor::memory {

// The block types of the allocation log.
enum class block_type : uint8 { memory = 0, object = 1, huge = 3 };

struct live_block {
    const void* address;
    uint64 size;
    block_type type;
    const char* file;
    int line;
    const char* type_name; // null until the object has announced itself
    uint64 sequence;       // in the order of allocation
};

class live_blocks {
public:
    void add(const void* address, uint64 size, block_type type, const char* file, int line);
    void remove(const void* address) { m_blocks.erase(address); }
    live_block* find(const void* address);

    // The oldest first.
    std::vector<live_block> in_order() const;
    void clear() { m_blocks = {}; }

private:
    std::unordered_map<const void*, live_block> m_blocks;
    uint64 m_next = 0;
};

} // namespace qor::memory
