// A client that is a library, loaded after libqor. So its static object is destroyed before libqor's exit handlers run,
// when all other threads of the process are gone, in the middle of whatever they did. Each step of the destructor is
// noted in a file: the last one says where it hangs. The program notes that its own exit handlers are done.
#include "qor/qor.h"

#include <cstring>
#include <string>
#include <windows.h>

namespace {

HANDLE s_notes = INVALID_HANDLE_VALUE;

void note(const char* step) noexcept {
    DWORD written = 0;
    WriteFile(s_notes, step, static_cast<DWORD>(std::strlen(step)), &written, nullptr);
    WriteFile(s_notes, "\n", 1, &written, nullptr);
}

void expect(bool is_so, const char* step) noexcept {
    note(step);
    if (!is_so)
        note("  WRONG");
}

class signal_handler final : public qor::object<IQORSignalHandler> {
public:
    signal_handler() : object("test.signal_handler", "IQORSignalHandler") {}
    void Signal(qorSignal) noexcept override {}
};

struct late_objects {
    uint32 code = 0;
    qorIPPortListener listener;
    qorTimerId timer = 0;
    zetSmartPointer<IQORIpcServer> server;
    zetSmartPointer<IQORReadWriteLock> lock;
    zetSmartPointer<IQORThread> thread;
    qorGate is_locked{false};
    bool with_signals = false;

    bool begin(bool signals) {
        with_signals = signals;
        code = qorDebugAllocateCode("end.late");
        create_IQORReadWriteLock(lock.Out());
        const auto hold_lock = [this] {
            (void)lock->LockWrite(0);
            is_locked.Open();
            Sleep(INFINITE);
        };
        if (!qorBeginThread(hold_lock, thread.Out()))
            return false;
        is_locked.Wait();
        zetSmartPointer<signal_handler> handler;
        handler.AttachNew(QOR_NEW signal_handler);
        const std::string address = "end-" + std::to_string(GetCurrentProcessId());
        constexpr uint64 ms = qorTicksPerSecond / 1000;
        return listener.Begin({.address = "127.0.0.1"}, [](IQORIPConnection&) {}) &&
               qorSetupTimer([](void*, const qorTimerTick&) noexcept {}, nullptr, {.delay = ms, .period = ms},
                             &timer) &&
               qorCreateIpcServer(
                   address.c_str(), {}, [](IQORIpcConnection&, std::string_view) {}, server.Out()) &&
               (!signals || qorSetSignalHandler(*handler));
    }

    ~late_objects() {
        note("the end");
        qorDebug(code, "%s", "from the end");
        note("traced");
        qor_do_free(qor_do_malloc(0, 10, true, "place", 5), "place", 6);
        qor_do_free(qor_do_malloc(64, 100, true, "place", 7), "place", 8);
        qor_do_huge_free(qor_do_huge_alloc(100, "place", 9), "place", 10);
        note("allocated");
        qorSendLogText(qorLogLevel::info, "from the end");
        (void)qorFlushLog(1000);
        note("logged");
        expect(!qorWaitThread(*thread), "a thread that is gone");
        expect(lock->LockWrite(0), "a lock that it held");
        lock->UnlockWrite();
        expect(!qorBeginThread([] {}, thread.Out()), "no new thread");
        listener.Close();
        note("listener closed");
        qorCancelTimer(timer);
        note("timer cancelled");
        (void)server->Close(1000);
        note("server closed");
        if (with_signals)
            qorSetSignalHandler(nullptr);
        note("signals released");
        qorCleanup();
        note("done");
    }
};

} // namespace

extern "C" __declspec(dllexport) void note_of_program() noexcept { note("the program's exit handlers are done"); }

extern "C" __declspec(dllexport) bool begin(const wchar_t* notes, bool with_signals) {
    s_notes = CreateFileW(notes, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    static late_objects objects;
    return s_notes != INVALID_HANDLE_VALUE && objects.begin(with_signals);
}
