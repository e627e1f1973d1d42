#include "platform/own_process.h"
#include "process/signals.h"

#include <mutex>
#include <windows.h>

namespace {

struct caught_event {
    DWORD number;
    qorSignal meaning;
    // The system ends the process as soon as its handler returns, or after some seconds.
    bool is_last;
};

constexpr caught_event events[] = {
    {CTRL_C_EVENT, qorSignal::interrupt, false},       {CTRL_BREAK_EVENT, qorSignal::quit, false},
    {CTRL_CLOSE_EVENT, qorSignal::hangup, true},       {CTRL_LOGOFF_EVENT, qorSignal::terminate, true},
    {CTRL_SHUTDOWN_EVENT, qorSignal::terminate, true},
};
constexpr std::size_t event_count = sizeof events / sizeof *events;

// Whether we catch events. Never destroyed: events may arrive until the process ends.
std::mutex& catching_lock = *new std::mutex;
bool catching = false;

HANDLE wake = nullptr;

// The system calls this function on a new thread for each event.
BOOL WINAPI on_event(DWORD number) {
    for (std::size_t i = 0; i < event_count; ++i) {
        if (events[i].number != number)
            continue;
        {
            const std::lock_guard hold(catching_lock);
            // Catching stopped while this call began. The next handler in the chain gets the event.
            if (!catching)
                return FALSE;
            qor::process::count_signal(events[i].meaning);
        }
        // The work that the handler started needs time to finish. The process ends by itself, or the system ends it
        // after its time limit.
        if (events[i].is_last)
            Sleep(INFINITE);
        return TRUE;
    }
    return FALSE;
}

void set_catching(bool on) {
    const std::lock_guard hold(catching_lock);
    catching = on;
}

} // namespace

// A process that was started with Ctrl-C disabled keeps ignoring it: the system does not call handlers for it.
int qor::process::catch_signals() noexcept {
    set_catching(true);
    if (SetConsoleCtrlHandler(on_event, TRUE))
        return 0;
    const int reason = static_cast<int>(GetLastError());
    set_catching(false);
    return reason;
}

void qor::process::release_signals() noexcept {
    set_catching(false);
    SetConsoleCtrlHandler(on_event, FALSE);
}

// Nothing to do: an event that arrives after the last handler is removed is not caught, so the next handler in the
// chain already has it.
void qor::process::raise_again(qorSignal) noexcept {}

int qor::process::start_signal_thread(void (*run)() noexcept) noexcept {
    wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (wake == nullptr)
        return static_cast<int>(GetLastError());
    const int failed = platform::start_thread(run);
    if (failed != 0)
        CloseHandle(wake);
    return failed;
}

void qor::process::wait_for_wake() noexcept { WaitForSingleObject(wake, INFINITE); }
void qor::process::wake_signal_thread() noexcept { SetEvent(wake); }
