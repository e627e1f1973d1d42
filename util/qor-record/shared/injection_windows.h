// What the recorder leaves in a process before its first instruction: a list of imports that begins with the library
// of the hooks, and before the list this head. So the library is there before any other one of the program allocates.
#pragma once

#include <cstdint>

namespace qor::record {

inline constexpr std::uint64_t injection_magic = 0x7463656a6e697171; // "qqinject" in memory

struct injection {
    std::uint64_t magic;
    std::uint64_t section;  // the arena, a handle
    std::uint64_t recorder; // the recorder's process, a handle
    struct directory {
        std::uint32_t address, size;
    };
    directory imports, bound_imports, addresses; // the program's own, which the library puts back
};

// The list begins so many bytes behind the head.
inline constexpr std::uint32_t injection_size = 64;
static_assert(sizeof(injection) <= injection_size);

// The library has this one export, with the ordinal 1, because an import needs one.
inline constexpr char hooks_library[] = "qor-record-hooks.dll";

} // namespace qor::record
