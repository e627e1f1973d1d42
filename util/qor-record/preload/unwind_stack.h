// The readable memory around a stack pointer.
#pragma once

#include "unwind_cfi.h"

#include <cstdint>

namespace qor::record {

constexpr std::uintptr_t page_size = 4096;

// Asks the kernel for the page that holds the address; errno stays as it is.
bool is_readable(std::uintptr_t address) noexcept;

// The thread that calls has its stack where the system put that of the program.
void this_is_the_main_thread() noexcept;

// A stretch of readable memory from a stack pointer up. On the thread's own stack it reaches to its upper end, and
// costs nothing; on any other stack it grows by pages as they are needed.
class stack_view {
public:
    // Whether the word at `address` is known to be readable, without a system call.
    bool covers(std::uintptr_t address) const noexcept {
        return address - m_low <= m_high - m_low - sizeof address && m_high != m_low;
    }

    // A stack pointer of running code, or any value.
    void enter_running(std::uintptr_t sp) noexcept;
    void enter(std::uintptr_t sp) noexcept;

    // Whether the word lies on this stack, not far above what is known of it.
    bool reaches(std::uintptr_t address) noexcept;

    // The words that are covered begin at `low` and at most `span` bytes above it; if no word is covered, no word
    // begins at `low`.
    std::uintptr_t low() const noexcept { return m_high != m_low ? m_low : 1; }
    std::uintptr_t span() const noexcept { return m_high != m_low ? m_high - m_low - sizeof m_low : 0; }

private:
    std::uintptr_t m_low = 0;
    std::uintptr_t m_high = 0;
    bool m_own = false;
};

} // namespace qor::record
