#include "timer/sleeper.h"

#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>

struct qor::timer::sleeper::system {
    std::condition_variable woken;
};

qor::timer::sleeper::sleeper() : m_system(std::make_unique<system>()) {}
qor::timer::sleeper::~sleeper() = default;

void qor::timer::sleeper::sleep(std::unique_lock<std::mutex>& hold, uint64 until) noexcept {
    // A time that the C++ library's clock cannot express is as good as never.
    using ticks = std::chrono::duration<int64, std::ratio<1, qorTicksPerSecond>>;
    constexpr uint64 last = std::chrono::floor<ticks>(std::chrono::steady_clock::duration::max()).count();
    if (until >= last)
        return m_system->woken.wait(hold);
    m_system->woken.wait_until(hold, std::chrono::steady_clock::time_point(ticks(static_cast<int64>(until))));
}

void qor::timer::sleeper::wake() noexcept { m_system->woken.notify_one(); }
