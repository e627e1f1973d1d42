// Waiters under POSIX: forks, cancelled threads, and memory that changes as soon as it is freed.
#include "crowd.h"

#include "qor/qor.h"

#include <malloc.h>
#include <memory>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int in_child(int (*act)(qorTrigger&, qorGate&), qorTrigger& trigger, qorGate& gate) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // SIGALRM ends a child that hangs
        _exit(act(trigger, gate));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Fills freed memory while this object lives, so that a lock in it can no longer be taken.
struct spoiled_memory {
    spoiled_memory() { mallopt(M_PERTURB, 0xa5); }
    ~spoiled_memory() { mallopt(M_PERTURB, 0); }
};

} // namespace

// A released waiter no longer uses the event, even if its thread has not run yet.
TEST(waiters, that_are_released_do_not_need_their_gate_or_trigger) {
    const spoiled_memory spoiled;
    qor::test::in_each_round([](int milliseconds) {
        auto gate = std::make_unique<qorGate>(false);
        auto trigger = std::make_unique<qorTrigger>(false);
        qor::test::crowd waiters(4, [gate = gate.get(), trigger = trigger.get()](int number) {
            number % 2 == 0 ? gate->Wait() : static_cast<void>(trigger->Wait(600'000));
        });
        waiters.fall_asleep(milliseconds);
        gate->Open();
        gate.reset();
        trigger->Set();
        trigger->Set();
        trigger.reset();
        return waiters.pass(4);
    });
}

// A cancelled thread would leave its place in the queue behind, and the lock held.
TEST(waiters, a_thread_that_is_cancelled_gets_what_it_waits_for_first) {
    qorTrigger trigger(false);
    std::atomic<pthread_t> thread;
    qor::test::crowd waiters(1, [&](int) {
        thread = pthread_self();
        trigger.Wait();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    waiters.fall_asleep(0);
    pthread_cancel(thread);
    waiters.fall_asleep(0);
    EXPECT_EQ(waiters.passed(), 0);
    trigger.Set();
    EXPECT_TRUE(waiters.pass(1));
    EXPECT_FALSE(trigger.Wait(1));
}

// The child has none of the threads that wait in its parent, so no thread takes what it sets.
TEST(waiters, a_forked_child_has_none) {
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
    // The child's first action may also be a wait.
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

// ThreadSanitizer counts the actions of the parent's threads as conflicts in the child.
#if !defined(__SANITIZE_THREAD__)
// The child also has none of the threads that were about to leave the event, so it may destroy the event.
TEST(waiters, a_forked_child_may_destroy_what_others_waited_for) {
    for (int round = 0; round < 50; ++round) {
        auto gate = std::make_unique<qorGate>(false);
        qor::test::crowd waiters(4, [&](int) { gate->Wait(); });
        waiters.fall_asleep(0);
        gate->Open();
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            gate.reset();
            _exit(0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(waiters.pass(4));
    }
}
#endif
