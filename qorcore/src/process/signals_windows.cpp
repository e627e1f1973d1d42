#include "platform/own_process.h"
#include "process/signals.h"

#include <mutex>
#include <windows.h>

namespace {

struct caught_event {
    DWORD number;
    qorSignal meaning;
    // The system ends the process as soon as its handler returns, or some seconds later.
    bool is_last;
};

constexpr caught_event events[] = {
    {CTRL_C_EVENT, qorSignal::interrupt, false},       {CTRL_BREAK_EVENT, qorSignal::quit, false},
    {CTRL_CLOSE_EVENT, qorSignal::hangup, true},       {CTRL_LOGOFF_EVENT, qorSignal::terminate, true},
    {CTRL_SHUTDOWN_EVENT, qorSignal::terminate, true},
};
constexpr std::size_t event_count = sizeof events / sizeof *events;

// Whether it is for us to catch them; never destroyed, for events may come until the very end.
std::mutex& catching_lock = *new std::mutex;
bool catching = false;

HANDLE wake = nullptr;

// Called on a thread that the system makes for each event.
BOOL WINAPI on_event(DWORD number) {
    for (std::size_t i = 0; i < event_count; ++i) {
        if (events[i].number != number)
            continue;
        {
            const std::lock_guard hold(catching_lock);
            // Given back while this call began: whoever comes next has it.
            if (!catching)
                return FALSE;
            qor::process::count_signal(events[i].meaning);
        }
        // What the handler began must have time to end: the process ends by itself, or when the system's patience does.
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

// A process that was told to ignore Ctrl-C does so still: its handlers are not called for it.
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

// Whoever is next has it already: what comes when there is no handler any more is not caught.
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
