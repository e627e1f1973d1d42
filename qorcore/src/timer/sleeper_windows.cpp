#include "timer/sleeper.h"

#include "platform/system_library_windows.h"
#include "qor/qor.h"

#include <algorithm>
#include <windows.h>

namespace {

constexpr DWORD high_resolution = 2; // CREATE_WAITABLE_TIMER_HIGH_RESOLUTION, since Windows 10 1803
constexpr uint64 ticks_per_ms = qorTicksPerSecond / 1000;

HANDLE make_timer() noexcept {
    using function = HANDLE WINAPI(LPSECURITY_ATTRIBUTES, LPCWSTR, DWORD, DWORD);
    auto* const create = qor::platform::find_function<function>(L"kernel32.dll", "CreateWaitableTimerExW");
    return create != nullptr ? create(nullptr, nullptr, high_resolution, TIMER_ALL_ACCESS) : nullptr;
}

} // namespace

// The condition of the C++ library follows the clock that is set, so the thread waits for an event. The timer of the
// system is exact to less than a millisecond; where there is none, the limit of the wait serves.
struct qor::timer::sleeper::system {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE timer = make_timer();
};

qor::timer::sleeper::sleeper() : m_system(std::make_unique<system>()) {
    if (m_system->event == nullptr)
        qor::glue::qorEndOutOfMemory();
}

qor::timer::sleeper::~sleeper() {
    CloseHandle(m_system->event);
    if (m_system->timer != nullptr)
        CloseHandle(m_system->timer);
}

void qor::timer::sleeper::sleep(std::unique_lock<std::mutex>& hold, uint64 until) noexcept {
    hold.unlock();
    if (until == never) {
        WaitForSingleObject(m_system->event, INFINITE);
    } else if (const uint64 now = qor::glue::qorGetTickCounter(); now < until) {
        const uint64 ticks = std::min<uint64>(until - now, qorTicksPerSecond * 3600 * 24); // then it looks again
        const HANDLE both[] = {m_system->event, m_system->timer};
        LARGE_INTEGER due;
        due.QuadPart = -static_cast<LONGLONG>(ticks); // from now
        if (m_system->timer != nullptr && SetWaitableTimer(m_system->timer, &due, 0, nullptr, nullptr, FALSE))
            WaitForMultipleObjects(2, both, FALSE, INFINITE);
        else
            WaitForSingleObject(m_system->event, static_cast<DWORD>((ticks + ticks_per_ms - 1) / ticks_per_ms));
    }
    hold.lock();
}

void qor::timer::sleeper::wake() noexcept { SetEvent(m_system->event); }
