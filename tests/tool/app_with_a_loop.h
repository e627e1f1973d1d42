// An application object whose loop a test observes.
#pragma once

#include "qortool_app.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace qor::test {

class app_with_a_loop : public qortool_app {
public:
    using qortool_app::queue;
    using qortool_app::Signal;

    explicit app_with_a_loop(bool* destroyed = nullptr) : m_destroyed(destroyed) {}

    void queue_op(void (app_with_a_loop::*op)(deferred_call&)) {
        queue({static_cast<void (qortool_app::*)(deferred_call&)>(op)});
    }

    void count(deferred_call&) { ++counted; }
    void interrupt(deferred_call&) { interrupt_process(); }

    std::atomic<int> counted{0};

protected:
    ~app_with_a_loop() override {
        if (m_destroyed != nullptr)
            *m_destroyed = true;
    }

private:
    bool* m_destroyed;
};

using app_pointer = zetSmartPointer<app_with_a_loop>;

inline app_pointer make_app(bool* destroyed = nullptr) {
    app_pointer app;
    app.AttachNew(new ("tests/tool/app_with_a_loop", __LINE__) app_with_a_loop(destroyed));
    return app;
}

inline void pause_for(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

} // namespace qor::test
