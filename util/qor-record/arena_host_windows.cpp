#include "arena_host.h"

#include <cstdlib>
#include <windows.h>

namespace qor::record {

// The section has room for all nodes. Memory is taken for a part when it is first used, on either side.
std::size_t arena_host::map_arena() {
    constexpr std::size_t size = chunk_offset(most_node_chunks - 1) + chunk_bytes;
    const HANDLE section = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE,
                                              static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), nullptr);
    if (section == nullptr)
        return 0;
    m_descriptor = reinterpret_cast<std::intptr_t>(section);
    void* const view = MapViewOfFile(section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0);
    if (view == nullptr)
        return 0;
    m_shared = static_cast<arena*>(view);
    return VirtualAlloc(view, sizeof(arena), MEM_COMMIT, PAGE_READWRITE) != nullptr ? size : 0;
}

// The recorded process has a handle of the recorder's process.
void arena_host::own() {}

arena_host::~arena_host() {
    if (m_shared != nullptr)
        UnmapViewOfFile(m_shared);
    close_descriptor();
    for (const auto& each : m_callers)
        std::free(const_cast<caller_text*>(each.second));
}

void arena_host::close_descriptor() noexcept {
    if (m_descriptor != -1)
        CloseHandle(section());
    m_descriptor = -1;
}

void* arena_host::map_part(std::size_t offset, std::size_t size) {
    if (offset + size > m_shared->file_size)
        return nullptr;
    return VirtualAlloc(reinterpret_cast<char*>(m_shared) + offset, size, MEM_COMMIT, PAGE_READWRITE);
}

// A process never becomes another program.
bool arena_host::is_program_of(std::int32_t) const { return true; }

// The only one lies in the arena.
void arena_host::release_ring(unsigned) {}

// They look by themselves, each thousandth of a second.
void arena_host::wake_writers(session&) {}

} // namespace qor::record
