// The loop of the application object with POSIX signals.
#include "app_with_a_loop.h"

#include <csignal>
#include <unistd.h>

using qor::test::app_pointer;
using qor::test::make_app;
using qor::test::pause_for;

namespace {

bool is_caught(int number) {
    struct sigaction now;
    sigaction(number, nullptr, &now);
    return now.sa_handler != SIG_DFL;
}

} // namespace

TEST(qortool_app_loop, each_signal_ends_it_while_it_waits) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        const app_pointer app = make_app();
        std::thread sender([number] {
            // A signal may still be delivered to a thread that is about to end, and the thread sanitizer loses signals
            // that it delays there.
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, nullptr);
            while (!is_caught(number))
                pause_for(1);
            kill(getpid(), number);
        });
        EXPECT_TRUE(app->process_fifo());
        sender.join();
        EXPECT_FALSE(is_caught(number));
    }
}
