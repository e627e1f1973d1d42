#include "process/process.h"
#include "process/signals.h"

#include <atomic>
#include <windows.h>

namespace {

struct caught_event {
    DWORD number;
    qorSignal meaning;
    // The system ends the process as soon as its handler returns, or some seconds later.
    bool is_last;
};

constexpr caught_event events[] = {
    {CTRL_C_EVENT, qorSignal::interrupt, false},     {CTRL_BREAK_EVENT, qorSignal::quit, false},
    {CTRL_CLOSE_EVENT, qorSignal::hangup, true},     {CTRL_LOGOFF_EVENT, qorSignal::terminate, true},
    {CTRL_SHUTDOWN_EVENT, qorSignal::terminate, true},
};
constexpr std::size_t event_count = sizeof events / sizeof *events;

std::atomic<unsigned> pending[event_count];
HANDLE wake = nullptr;

// Called on a thread that the system makes for each event.
BOOL WINAPI on_event(DWORD number) {
    for (std::size_t i = 0; i < event_count; ++i) {
        if (events[i].number != number)
            continue;
        pending[i].fetch_add(1);
        SetEvent(wake);
        // What the handler began must have time to end: the process ends by itself, or when the system's patience does.
        if (events[i].is_last)
            Sleep(INFINITE);
        return TRUE;
    }
    return FALSE;
}

} // namespace

// A process that was told to ignore Ctrl-C does so still: its handlers are not called for it.
int qor::process::catch_signals() noexcept {
    return SetConsoleCtrlHandler(on_event, TRUE) ? 0 : static_cast<int>(GetLastError());
}

void qor::process::release_signals() noexcept { SetConsoleCtrlHandler(on_event, FALSE); }

int qor::process::start_signal_thread(void (*run)() noexcept) noexcept {
    wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (wake == nullptr)
        return static_cast<int>(GetLastError());
    const int failed = start_thread(run);
    if (failed != 0)
        CloseHandle(wake);
    return failed;
}

qorSignal qor::process::wait_for_signal() noexcept {
    for (;;) {
        for (std::size_t i = 0; i < event_count; ++i) {
            unsigned count = pending[i].load();
            while (count != 0)
                if (pending[i].compare_exchange_weak(count, count - 1))
                    return events[i].meaning;
        }
        WaitForSingleObject(wake, INFINITE);
    }
}
