// A process to try debug control on: it traces once a second until it is stopped, if somebody wants to see
// it.
//
//     ticker [MILLISECONDS] --qor-debug-listen=7447
//
// `qortool debug-control localhost 7447` switches its trace codes. It has "ticker.tick" and "ticker.work",
// and from the tenth tick on "ticker.ten": a code is known from the moment in which somebody first wants to
// trace with it. Another number of milliseconds than 1,000 makes it tick so often.
#include "qor/qor.h"

#include <cstdlib>

namespace {

// Opened by Ctrl-C and its relatives.
class stop_gate final : public IQORSignalHandler {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    void Signal(qorSignal) noexcept override { m_gate.Open(); }

    bool is_open_within(uint32 milliseconds) { return m_gate.Wait(milliseconds); }

private:
    qorGate m_gate{false};
};

void work(uint32 code, uint32 tick) {
    const qorDebugSeq scope(code, "work");
    qorDebug(code, "the sum of all ticks is %llu", (1ull + tick) * tick / 2);
}

// Until somebody stops the process. False: the last error says why it cannot begin.
bool tick_every(uint32 milliseconds) {
    stop_gate stop;
    if (!qorSetSignalHandler(&stop))
        return false;
    const uint32 ticking = qorDebugAllocateCode("ticker.tick");
    const uint32 working = qorDebugAllocateCode("ticker.work");
    uint32 tick = 0;
    do {
        ++tick;
        qorDebug(ticking, "tick %u", tick);
        work(working, tick);
        if (tick % 10 == 0)
            qorDebug(qorDebugAllocateCode("ticker.ten"), "%u ticks", tick);
    } while (!stop.is_open_within(milliseconds));
    return qorSetSignalHandler(nullptr);
}

} // namespace

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    bool done = qorInitProcess("ticker", args, 0);
    if (done) {
        // The framework's primitives take 0 for "without limit".
        const int milliseconds = args.IsEmpty() ? 1000 : std::atoi(args[0]);
        done = tick_every(milliseconds > 0 ? static_cast<uint32>(milliseconds) : 1000);
        qorCleanup();
    }
    if (!done)
        fputerr(stderr, true);
    return done ? 0 : 1;
}
