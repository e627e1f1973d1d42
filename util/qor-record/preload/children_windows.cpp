// The functions that start processes. A new process is held before its first instruction until the recorder has put the
// hooks into it.
#include "hooks_windows.h"
#include "recording_windows.h"

#include <windows.h>

namespace qor::record {

namespace {

// The recorder clears the entry when it is done with the process.
void show_to_recorder(const PROCESS_INFORMATION& started, bool runs_at_once) noexcept {
    arena& shared = *this_process.shared;
    execution* place = nullptr;
    for (execution& each : shared.executions) {
        std::int32_t nobody = 0;
        if (each.process.compare_exchange_strong(nobody, -1)) {
            place = &each;
            break;
        }
    }
    if (place == nullptr) {
        shared.unnamed_executions.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    auto process = static_cast<std::int32_t>(started.dwProcessId);
    place->is_new_process = runs_at_once ? 1 : 0;
    place->program[0] = '\0';
    place->process.store(process, std::memory_order_release);
    shared.executions_begun.fetch_add(1, std::memory_order_release);
    wait_for_recorder wait;
    while (place->process.load(std::memory_order_acquire) == process)
        if (!wait.pause()) {
            place->process.compare_exchange_strong(process, 0);
            return;
        }
}

template <class Call>
[[gnu::always_inline]] inline BOOL start(DWORD flags, PROCESS_INFORMATION* started, Call call) {
    if (!is_recording() || (flags & (DEBUG_PROCESS | DEBUG_ONLY_THIS_PROCESS)) != 0)
        return call(flags);
    const BOOL is_started = call(flags | CREATE_SUSPENDED);
    if (is_started) {
        const DWORD before = GetLastError();
        const bool runs_at_once = (flags & CREATE_SUSPENDED) == 0;
        show_to_recorder(*started, runs_at_once);
        if (runs_at_once)
            ResumeThread(started->hThread);
        SetLastError(before);
    }
    return is_started;
}

template <class Function>
Function* original(unsigned number) noexcept {
    return reinterpret_cast<Function*>(start_functions[number].original[0]);
}

template <class Char, class Information, unsigned Number>
BOOL WINAPI create_process(const Char* program, Char* command, SECURITY_ATTRIBUTES* process,
                           SECURITY_ATTRIBUTES* thread, BOOL inherits, DWORD flags, void* environment,
                           const Char* folder, Information* about, PROCESS_INFORMATION* started) {
    return start(flags, started, [=](DWORD with) {
        using type = BOOL WINAPI(const Char*, Char*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD, void*,
                                 const Char*, Information*, PROCESS_INFORMATION*);
        return original<type>(Number)(program, command, process, thread, inherits, with, environment, folder, about,
                                      started);
    });
}

template <class Char, class Information, unsigned Number>
BOOL WINAPI create_process_as(HANDLE user, const Char* program, Char* command, SECURITY_ATTRIBUTES* process,
                              SECURITY_ATTRIBUTES* thread, BOOL inherits, DWORD flags, void* environment,
                              const Char* folder, Information* about, PROCESS_INFORMATION* started) {
    return start(flags, started, [=](DWORD with) {
        using type = BOOL WINAPI(HANDLE, const Char*, Char*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD,
                                 void*, const Char*, Information*, PROCESS_INFORMATION*);
        return original<type>(Number)(user, program, command, process, thread, inherits, with, environment, folder,
                                      about, started);
    });
}

} // namespace

system_function start_functions[] = {
    {"CreateProcessW", reinterpret_cast<void*>(&create_process<wchar_t, STARTUPINFOW, 0>), {}},
    {"CreateProcessA", reinterpret_cast<void*>(&create_process<char, STARTUPINFOA, 1>), {}},
    {"CreateProcessAsUserW", reinterpret_cast<void*>(&create_process_as<wchar_t, STARTUPINFOW, 2>), {}},
    {"CreateProcessAsUserA", reinterpret_cast<void*>(&create_process_as<char, STARTUPINFOA, 3>), {}},
};

} // namespace qor::record
