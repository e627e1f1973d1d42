// POSIX signals and the loop of the application object.
#include "qortool_app.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class app_under_test : public qortool_app {
public:
    using qortool_app::Signal;
};

TEST(qortool_app, after_the_loop_signals_are_handled_as_before) {
    zetSmartPointer<app_under_test> app;
    app.AttachNew(new ("tests/tool/qortool_app_test_posix", __LINE__) app_under_test);
    app->Signal(qorSignal::terminate);
    EXPECT_TRUE(app->process_fifo());
    struct sigaction now;
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

} // namespace
