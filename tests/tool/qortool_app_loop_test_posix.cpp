// The loop of the application object while it waits, and what it leaves behind.
#include "qortool_app.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <unistd.h>

namespace {

class app_with_a_loop : public qortool_app {
public:
    using qortool_app::queue;
    using qortool_app::Signal;

    explicit app_with_a_loop(bool* destroyed = nullptr) : m_destroyed(destroyed) {}

    void queue_op(void (app_with_a_loop::*op)(deferred_call&)) {
        queue({static_cast<void (qortool_app::*)(deferred_call&)>(op)});
    }

    void count(deferred_call&) { ++counted; }
    void interrupt(deferred_call&) { std::raise(SIGINT); }

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

app_pointer make_app(bool* destroyed = nullptr) {
    app_pointer app;
    app.AttachNew(new ("tests/tool/qortool_app_loop_test", __LINE__) app_with_a_loop(destroyed));
    return app;
}

void pause_for(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

bool is_caught(int number) {
    struct sigaction now;
    sigaction(number, nullptr, &now);
    return now.sa_handler != SIG_DFL;
}

TEST(QortoolAppLoop, WaitsForWorkAndForItsEnd) {
    const app_pointer app = make_app();
    std::atomic<bool> ended{false};
    std::thread loop([&app, &ended] {
        app->process_fifo();
        ended = true;
    });
    for (int round = 1; round <= 3; ++round) {
        app->queue_op(&app_with_a_loop::count);
        while (app->counted != round)
            pause_for(1);
        pause_for(10);
        EXPECT_FALSE(ended);
    }
    app->Signal(qorSignal::quit);
    loop.join();
    EXPECT_TRUE(ended);
}

TEST(QortoolAppLoop, EachSignalEndsItWhileItWaits) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        const app_pointer app = make_app();
        std::thread sender([number] {
            while (!is_caught(number))
                pause_for(1);
            kill(getpid(), number);
        });
        EXPECT_TRUE(app->process_fifo());
        sender.join();
        EXPECT_FALSE(is_caught(number));
    }
}

// The framework references the object only while the loop runs: the last Release here destroys it, at once
// and on this thread.
TEST(QortoolAppLoop, LeavesNoReference) {
    for (int round = 0; round < 50; ++round) {
        bool destroyed = false;
        app_pointer app = make_app(&destroyed);
        app->queue_op(&app_with_a_loop::interrupt);
        EXPECT_TRUE(app->process_fifo());
        app.Empty();
        EXPECT_TRUE(destroyed);
    }
}

} // namespace
