#include "clocks.h"

#include <chrono>

namespace qor::record {

namespace {

template <class Clock>
std::uint64_t nanoseconds() {
    const auto time = Clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

} // namespace

std::uint64_t steady_time() { return nanoseconds<std::chrono::steady_clock>(); }
std::uint64_t time_since_1970() { return nanoseconds<std::chrono::system_clock>(); }

} // namespace qor::record
