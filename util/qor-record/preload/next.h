// The functions that the hooks stand before: those that the program would call without this library. They are the C
// library's, or an allocator's that is linked or preloaded.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qor::record {

// Whether an operator gets its memory by a call of malloc, free or the like that another hook records. The first call
// of an operator new shows it. One that has once worked alone may call malloc another time: each call is looked at.
enum class habit : unsigned char { unknown, calls_hooks, works_alone };

template <class Function>
struct next_function {
    const char* const name;
    std::atomic<Function*> function{nullptr};
    std::atomic<habit> found{habit::unknown};  // for operators
    std::atomic<const void*> library{nullptr}; // the operator's
    std::atomic<bool> is_alone{false};         // for functions of C: it is the C library's, which calls no hook

    constexpr explicit next_function(const char* symbol) noexcept : name(symbol) {}
};

// Returns null if there is no such function. The search for functions of C begins behind this library.
void* find_next(const char* name) noexcept;

// Searches the C++ library as well if a dlopened library brought it in.
void* find_next_of_cxx(const char* name) noexcept;

// ---- memory for allocations of the loader during a search; it is never released

void* allocate_from_reserve(std::size_t size) noexcept;
inline constexpr std::size_t reserve_size = 64U << 10;
inline constexpr std::size_t reserve_alignment = 16;
alignas(reserve_alignment) inline char reserve[reserve_size];
inline bool is_from_reserve(const void* block) noexcept {
    return static_cast<std::size_t>(static_cast<const char*>(block) - reserve) < reserve_size;
}
std::size_t size_in_reserve(const void* block) noexcept;

} // namespace qor::record
