// The signal queue of the application object.
#include "qortool_app.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

class app_under_test : public qortool_app {
public:
    using qortool_app::queue;
    using qortool_app::queued;
    using qortool_app::Signal;

    deferred_call call(void (app_under_test::*op)(deferred_call&)) {
        return {static_cast<void (qortool_app::*)(deferred_call&)>(op)};
    }

    void first(deferred_call&) { order.push_back(1); }
    void second(deferred_call&) { order.push_back(2); }
    void again(deferred_call& self) {
        order.push_back(3);
        if (order.size() < 4)
            queue(self); // the call receives itself
        else
            Signal(qorSignal::interrupt);
    }
    void interrupt(deferred_call&) {
        order.push_back(4);
        threads.push_back(std::this_thread::get_id());
        qor::test::interrupt_process();
    }

    std::vector<int> order;
    std::vector<std::thread::id> threads;
};

zetSmartPointer<app_under_test> make_app() {
    zetSmartPointer<app_under_test> app;
    app.AttachNew(new ("tests/tool/qortool_app_test", __LINE__) app_under_test);
    return app;
}

TEST(qortool_app, a_signal_ends_an_empty_queue_and_is_given_back) {
    const auto app = make_app();
    app->Signal(qorSignal::terminate);
    EXPECT_EQ(app->queued(), 1u);
    EXPECT_TRUE(app->process_fifo());
    EXPECT_EQ(app->queued(), 0u);
}

TEST(qortool_app, two_signals_queue_two_markers_of_which_one_stays) {
    const auto app = make_app();
    app->Signal(qorSignal::interrupt);
    app->Signal(qorSignal::quit);
    EXPECT_EQ(app->queued(), 2u);
    app->process_fifo();
    EXPECT_EQ(app->queued(), 1u);
    app->process_fifo(); // the remaining marker ends the next loop at once
    EXPECT_EQ(app->queued(), 0u);
}

TEST(qortool_app, what_was_queued_before_the_signal_still_runs_in_order) {
    const auto app = make_app();
    app->queue(app->call(&app_under_test::first));
    app->queue(app->call(&app_under_test::second));
    app->Signal(qorSignal::interrupt);
    app->queue(app->call(&app_under_test::first));
    app->process_fifo();
    EXPECT_EQ(app->order, (std::vector<int>{1, 2}));
    EXPECT_EQ(app->queued(), 1u);
}

TEST(qortool_app, a_call_gets_itself_and_may_queue_itself_again) {
    const auto app = make_app();
    app->queue(app->call(&app_under_test::again));
    app->process_fifo();
    EXPECT_EQ(app->order, (std::vector<int>{3, 3, 3, 3}));
}

TEST(qortool_app, a_real_signal_of_the_process_ends_the_loop) {
    const auto app = make_app();
    app->queue(app->call(&app_under_test::interrupt));
    app->process_fifo();
    EXPECT_EQ(app->order, std::vector<int>{4});
    EXPECT_EQ(app->threads, std::vector<std::thread::id>{std::this_thread::get_id()});
}

TEST(qortool_app, other_threads_may_queue_while_the_loop_runs) {
    const auto app = make_app();
    constexpr int threads = 4;
    constexpr int calls = 500;
    std::atomic<int> ready{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i)
        workers.emplace_back([&app, &ready] {
            for (int k = 0; k < calls; ++k)
                app->queue(app->call(&app_under_test::first));
            if (++ready == threads)
                app->Signal(qorSignal::interrupt); // after all the others
        });
    app->process_fifo();
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(app->order.size(), std::size_t{threads * calls});
    EXPECT_EQ(app->queued(), 0u);
}

// The leak sanitizer checks that all entries are freed.
TEST(qortool_app, entries_still_queued_go_with_the_object) {
    const auto app = make_app();
    for (int i = 0; i < 10; ++i)
        app->queue(app->call(&app_under_test::first));
    app->Signal(qorSignal::interrupt);
    EXPECT_EQ(app->queued(), 11u);
}

} // namespace
