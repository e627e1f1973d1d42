// Inside the library: how the thread of the timers sleeps.
#pragma once

#include "qor/system/Types.h"

#include <memory>
#include <mutex>

namespace qor::timer {

// A time that never comes.
inline constexpr uint64 never = ~uint64{0};

class sleeper {
public:
    sleeper();
    sleeper(const sleeper&) = delete;
    sleeper& operator=(const sleeper&) = delete;
    ~sleeper();

    // Releases the lock and takes it again, like a condition. Returns at this time of qorGetTickCounter or after a
    // wake(), or earlier.
    void sleep(std::unique_lock<std::mutex>& hold, uint64 until) noexcept;
    // To be called with the lock held.
    void wake() noexcept;

private:
    struct system;
    std::unique_ptr<system> m_system;
};

} // namespace qor::timer
