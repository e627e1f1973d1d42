// The waiting loop of the application object, and the state after it.
#include "app_with_a_loop.h"

using qor::test::app_pointer;
using qor::test::app_with_a_loop;
using qor::test::make_app;
using qor::test::pause_for;

TEST(qortool_app_loop, waits_for_work_and_for_its_end) {
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

// The framework holds a reference only while the loop runs: the last Release here destroys the object, at once and on
// this thread.
TEST(qortool_app_loop, a_real_signal_leaves_no_reference) {
    for (int round = 0; round < 50; ++round) {
        bool destroyed = false;
        app_pointer app = make_app(&destroyed);
        app->queue_op(&app_with_a_loop::interrupt);
        EXPECT_TRUE(app->process_fifo());
        app.Empty();
        EXPECT_TRUE(destroyed);
    }
}
