// A process that ends while its other threads are busy in the framework.
//
//     end_driver WAY DELAY TRACE LOG LIBRARY NOTES
//
// WAY is how it ends: `return` from main, `exit`, `thread` (another thread ends the process) or `interrupt` (Ctrl-C).
// DELAY is how many milliseconds the threads have until then, TRACE and LOG are the files of trace and log. LIBRARY is
// the one of ending_library_windows.cpp, NOTES the file into which it writes.
#include "qor/qor.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <windows.h>

namespace {

constexpr int code_at_end = 7;

void (*s_note)() noexcept = nullptr;

// Until the process ends.
template <class WORK>
void keep_doing(WORK work) {
    std::thread([work] {
        for (;;)
            work();
    }).detach();
}

void trace_and_allocate(uint32 code) {
    const qorDebugSeq scope(code, "work");
    qorDebug(code, "%s", "line");
    qor_do_free(qor_do_malloc(0, 10, true, "place", 1), "place", 2);
    qor_do_free(qor_do_malloc(64, 100, true, "place", 3), "place", 4);
}

void write_log() { qorSendLogText(qorLogLevel::info, "entry"); }

void listen_for_a_moment() {
    qorIPPortListener listener;
    (void)listener.Begin({.address = "127.0.0.1"}, [](IQORIPConnection&) {});
    Sleep(2); // a thread that is ended while it makes a socket can take Wine down with it
}

void set_up_a_timer() {
    constexpr uint64 ms = qorTicksPerSecond / 1000;
    qorTimerId timer = 0;
    if (qorSetupTimer([](void*, const qorTimerTick&) noexcept {}, nullptr, {.delay = ms, .period = ms}, &timer)) {
        std::this_thread::yield();
        qorCancelTimer(timer);
    }
}

bool begin_ending_library(const wchar_t* path, const wchar_t* notes, bool with_signals) {
    const HMODULE library = LoadLibraryW(path);
    if (library == nullptr)
        return false;
    using function = bool(const wchar_t* notes, bool with_signals);
    auto* const begin = reinterpret_cast<function*>(reinterpret_cast<void*>(GetProcAddress(library, "begin")));
    s_note = reinterpret_cast<void (*)() noexcept>(reinterpret_cast<void*>(GetProcAddress(library, "note_of_program")));
    return begin != nullptr && s_note != nullptr && begin(notes, with_signals);
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 7) {
        std::fputs("end_driver WAY DELAY TRACE LOG LIBRARY NOTES\n", stderr);
        return 2;
    }
    // The first one is called last.
    std::atexit([] {
        if (s_note != nullptr)
            s_note();
    });
    const std::wstring way = argv[1];
    qorStringArray words;
    words.Append("end_driver");
    if (!qorInitProcess("end_driver", words, 0) || !qorDebugAttachFile(qor::glue::to_utf8(argv[3]).c_str()) ||
        !qorSetLogTarget(qor::glue::to_utf8(argv[4]).c_str()) || !qorDebugEnableCode("end*", true)) {
        fputerr(stderr, true);
        return 3;
    }
    if (!begin_ending_library(argv[5], argv[6], way != L"interrupt")) {
        std::fputs("the late library does not begin\n", stderr);
        return 4;
    }
    const uint32 code = qorDebugAllocateCode("end");
    for (int i = 0; i < 2; ++i)
        keep_doing([code] { trace_and_allocate(code); });
    keep_doing(write_log);
    keep_doing(listen_for_a_moment);
    keep_doing(set_up_a_timer);
    Sleep(static_cast<DWORD>(_wtoi(argv[2])));
    if (way == L"return")
        return code_at_end;
    if (way == L"exit")
        std::exit(code_at_end);
    if (way == L"thread")
        std::thread([] { ExitProcess(code_at_end); }).detach();
    else
        GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    Sleep(INFINITE);
    return code_at_end;
}
