#include "qor/qor.h"

#include <chrono>
#include <ratio>

// The C++ library's steady clock is the system's own: CLOCK_MONOTONIC, or the performance counter of Windows.
uint64 qor::glue::qorGetTickCounter() noexcept {
    using ticks = std::chrono::duration<uint64, std::ratio<1, 10'000'000>>;
    return std::chrono::duration_cast<ticks>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
