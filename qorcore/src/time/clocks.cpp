#include "time/local_offset.h"

#include <chrono>
#include <ratio>
#include <thread>

namespace {

using ticks = std::chrono::duration<int64, std::ratio<1, qorTicksPerSecond>>;

} // namespace

uint64 qor::glue::qorGetSystemTime() noexcept {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64>(std::chrono::duration_cast<ticks>(since_1970).count() +
                               time::seconds_to_1970 * static_cast<int64>(qorTicksPerSecond));
}

// The C++ library's steady clock is the system's own: CLOCK_MONOTONIC, or the performance counter of Windows.
uint64 qor::glue::qorGetTickCounter() noexcept {
    const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64>(std::chrono::duration_cast<ticks>(since_start).count());
}

void qor::glue::qorSleep(uint32 ms) noexcept {
    constexpr uint64 ticks_per_ms = qorTicksPerSecond / 1000;
    const uint64 end = qorGetTickCounter() + ms * ticks_per_ms;
    // A system with a coarse clock may wake the thread slightly early.
    for (uint64 now; (now = qorGetTickCounter()) < end;)
        std::this_thread::sleep_for(ticks(end - now));
}
