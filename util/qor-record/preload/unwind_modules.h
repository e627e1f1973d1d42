// The modules of the process, found without the loader's lock: a thread that holds it may be the one that asks.
#pragma once

#include "unwind_cfi.h"

#include <atomic>
#include <cstdint>

namespace qor::record {

struct found_module {
    frame_tables tables;
    bool stays; // it was there when the program started, and is never unloaded
};

// Returns false if no module has code at this address.
bool find_module(std::uintptr_t pc, found_module& result) noexcept;

// Reads which modules there are; takes the loader's lock.
void read_first_modules() noexcept;
void read_later_modules() noexcept;

// A number that changes with the modules, above it the count of the changes that are going on. As long as there is one,
// it is no number that a rule can have.
extern std::atomic<std::uint64_t> module_state;
constexpr std::uint64_t one_change = std::uint64_t{1} << 32;

// Finds modules without `_dl_find_object`, as with a C library before 2.35. For tests.
extern bool without_find_object;

} // namespace qor::record
