// Waiters and forks.
#include "crowd.h"

#include "qor/qor.h"

#include <sys/wait.h>
#include <unistd.h>

namespace {

int in_child(int (*act)(qorTrigger&, qorGate&), qorTrigger& trigger, qorGate& gate) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // a child that hangs ends as one killed by SIGALRM
        _exit(act(trigger, gate));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

// The child has none of the threads that wait in its parent, and so nobody takes from it what it sets.
TEST(Waiters, AForkedChildHasNone) {
    qorTrigger trigger(false);
    qorGate gate(false);
    qor::test::crowd waiters(4, [&](int number) { number % 2 == 0 ? trigger.Wait() : gate.Wait(); });
    waiters.fall_asleep(0);
    const auto set_and_wait = [](qorTrigger& of_child, qorGate& gate_of_child) {
        of_child.Set();
        of_child.Wait();
        gate_of_child.Open();
        gate_of_child.Wait();
        gate_of_child.Close();
        return of_child.Wait(1) || gate_of_child.Wait(1) ? 1 : 0;
    };
    EXPECT_EQ(in_child(set_and_wait, trigger, gate), 0);
    // The first thing that it does may be to wait, too.
    const auto only_wait = [](qorTrigger& of_child, qorGate& gate_of_child) {
        if (of_child.Wait(1) || gate_of_child.Wait(1))
            return 1;
        of_child.Set();
        return of_child.Wait(1) ? 0 : 2;
    };
    EXPECT_EQ(in_child(only_wait, trigger, gate), 0);
    EXPECT_EQ(waiters.passed(), 0);
    trigger.Set();
    trigger.Set();
    gate.Open();
    EXPECT_TRUE(waiters.pass(4));
}
