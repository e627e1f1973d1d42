// Shared code of the signal tests: a handler that records its calls.
#pragma once

#include "qor/qor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace qor::test {

// Uses a lock and memory, which an asynchronous handler could not do.
class signal_recorder final : public IQORSignalHandler {
public:
    void AddRef() noexcept override { ++references; }
    void Release() noexcept override { --references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    void Signal(qorSignal signal) noexcept override {
        {
            qorAutoLockFastMutex2 hold(&lock);
            texts.Append(text(signal).c_str());
            thread = std::this_thread::get_id();
        }
        if (remove_itself)
            qorSetSignalHandler(nullptr);
        entered.Set();
        if (hold_up)
            go_on.Wait();
        ++finished;
    }

    // The recorded form of a signal.
    static std::string text(qorSignal signal) { return "signal " + std::to_string(static_cast<unsigned>(signal)); }

    qorStringArray take() {
        qorAutoLockFastMutex2 hold(&lock);
        return std::move(texts);
    }

    std::atomic<int> references{0};
    std::atomic<int> finished{0};
    std::atomic<bool> hold_up{false};
    std::atomic<bool> remove_itself{false};
    qorTrigger entered{false};
    qorTrigger go_on{false};
    qorFastMutex2 lock;
    qorStringArray texts;
    std::thread::id thread;
};

template <class CONDITION>
bool comes_true(CONDITION condition) {
    for (int rest = 0; !condition() && rest < 1000; ++rest)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return condition();
}

} // namespace qor::test
