#include "memory/live_blocks.h"

#include <algorithm>

void qor::memory::live_blocks::add(const void* address, uint64 size, block_type type, const char* file,
                                   int line) {
    m_blocks.insert_or_assign(address, live_block{address, size, type, file, line, nullptr, m_next++});
}

qor::memory::live_block* qor::memory::live_blocks::find(const void* address) {
    const auto found = m_blocks.find(address);
    return found != m_blocks.end() ? &found->second : nullptr;
}

std::vector<qor::memory::live_block> qor::memory::live_blocks::in_order() const {
    std::vector<live_block> blocks;
    blocks.reserve(m_blocks.size());
    for (const auto& [address, block] : m_blocks)
        blocks.push_back(block);
    std::sort(blocks.begin(), blocks.end(),
              [](const live_block& a, const live_block& b) { return a.sequence < b.sequence; });
    return blocks;
}
