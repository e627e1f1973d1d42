// A process for trying debug control: it writes trace lines once a second, if their codes are on, until it is stopped.
//
//     ticker [MILLISECONDS] --qor-debug-listen=7447
//
// `qortool debug-control localhost 7447` switches its trace codes. These are "ticker.tick" and "ticker.work", and from
// the tenth tick on "ticker.ten": a code becomes known when the process first uses it. MILLISECONDS sets the interval;
// the default is 1,000.
#include "qor/qor.h"

#include <cstdlib>

namespace {

// Ctrl-C and similar signals open the gate.
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

// Ticks until the process is stopped. Returns false if it cannot start; the last error says why.
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
        // The framework's primitives treat 0 as "without limit".
        const int milliseconds = args.IsEmpty() ? 1000 : std::atoi(args[0]);
        done = tick_every(milliseconds > 0 ? static_cast<uint32>(milliseconds) : 1000);
        qorCleanup();
    }
    if (!done)
        fputerr(stderr, true);
    return done ? 0 : 1;
}
