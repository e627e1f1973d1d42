#include "interrupt.h"

#include "options.h"
#include "qor/qor.h"

#include <atomic>
#include <cstdlib>

namespace qor::heap_tool {

namespace {

std::atomic<bool> was_interrupted{false};

class handler final : public IQORSignalHandler {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    void Signal(qorSignal) noexcept override {
        if (was_interrupted.exchange(true))
            std::_Exit(exit_interrupted);
    }
};

} // namespace

void catch_interrupts() {
    static handler only;
    qorSetSignalHandler(&only);
}

bool is_interrupted() noexcept { return was_interrupted; }

} // namespace qor::heap_tool
