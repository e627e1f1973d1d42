// Inside the preload: the arena as this process has mapped it, and its session in it.
#pragma once

#include "shared/arena.h"

namespace qor::record {

struct process_state {
    arena* shared;     // null: nothing is recorded
    session* own;      // this process's
    ring_record* ring; // that of `own`
    unsigned own_index;
    bool without_system_calls;
    bool is_filtered; // the calls that it makes by itself may be all that are allowed
    std::uint32_t depth;

    // A page that a fork clears, so that a child notices at its first record that it is one.
    struct owner_page {
        std::atomic<std::uint32_t> phase;
    } * owner;
};

enum : std::uint32_t { phase_forked = 0, phase_starting, phase_running, phase_off };

extern process_state this_process;

// Returns the node of that number, or null if its chunk could not be mapped.
node* node_at(std::uint32_t number) noexcept;

// Maps a part of the arena's file that lies behind the arena. Returns null if there is no room.
void* map_behind_arena(std::size_t offset, std::size_t size) noexcept;

// ---- modules.cpp

// Returns the module of a code address; 0 stands for an address outside of every module. The bit `allocation_code` is
// set for code of allocation functions, which a block's user does not look for.
inline constexpr std::uint32_t allocation_code = 0x8000;
std::uint32_t find_module_of(std::uintptr_t address) noexcept;

// The cache from code addresses to modules: the address, and the module in the upper 16 bits.
inline constexpr std::uint64_t place_address_bits = (std::uint64_t{1} << 48) - 1;
inline std::atomic<std::uint64_t> places[4096];
inline std::atomic<std::uint64_t>& place_of(std::uintptr_t address) noexcept {
    return places[(address ^ address >> 12) % (sizeof places / sizeof *places)];
}

// While a library is being unloaded, cached results for code addresses are not used.
inline std::atomic<unsigned> unloading;
inline bool modules_are_changing() noexcept { return unloading.load(std::memory_order_relaxed) != 0; }

inline std::uint32_t module_of(std::uintptr_t address) noexcept {
    const std::uint64_t seen = place_of(address).load(std::memory_order_relaxed);
    if ((seen & place_address_bits) == address && !modules_are_changing()) [[likely]]
        return static_cast<std::uint32_t>(seen >> 48);
    return find_module_of(address);
}

// Marks a range of code as that of allocation functions.
void add_allocation_code(std::uintptr_t begin, std::uintptr_t end) noexcept;

// Does the same for a function whose size its library's symbols tell. Returns the base of the library, or null if it
// is unknown.
const void* add_allocation_function(void* function) noexcept;

// The ranges that the recorder has found in the program's file.
void add_allocation_code_of_program() noexcept;

// Calls `gone` for each module that was unloaded since the last call.
void find_modules_gone(void (*gone)(std::uint32_t module) noexcept) noexcept;

// Clears the cache from code addresses to modules.
void forget_places() noexcept;

// This library's own code, between two symbols of the linker.
#if defined(_WIN32)
extern "C" const char own_begin[] __asm__("__ImageBase");
extern "C" const char own_end[] __asm__("etext");
#else
extern "C" __attribute__((visibility("hidden"))) const char own_begin[] __asm__("__ehdr_start");
extern "C" __attribute__((visibility("hidden"))) const char own_end[] __asm__("etext");
#endif
inline code_range own_code() noexcept {
    return {reinterpret_cast<std::uintptr_t>(own_begin), reinterpret_cast<std::uintptr_t>(own_end)};
}
inline bool is_own_code(std::uintptr_t address) noexcept {
    return address >= own_code().begin && address < own_code().end;
}

// ---- stacks.cpp

// The node of a stack, whose innermost frame comes first.
std::uint32_t node_of(const std::uintptr_t* frames, unsigned count) noexcept;
void forget_stacks() noexcept;

} // namespace qor::record
