// Gates and triggers with waiting threads. Nothing happens before all threads are asleep. Then everything happens at
// once, without a pause in which a released thread could run.
#include "crowd.h"

#include "qor/qor.h"

namespace {

using qor::test::crowd;
using qor::test::in_each_round;

// Half of the threads wait with a limit that is never reached.
template <class PRIMITIVE>
auto wait_for(PRIMITIVE& what) {
    return [&what](int number) {
        if (number % 2 == 0)
            what.Wait();
        else
            EXPECT_TRUE(what.Wait(600'000));
    };
}

TEST(trigger, as_many_sets_in_a_row_as_wait_release_them_all) {
    for (const int count : {1, 2, 4})
        in_each_round([count](int milliseconds) {
            qorTrigger trigger(false);
            crowd waiters(count, wait_for(trigger));
            waiters.fall_asleep(milliseconds);
            for (int i = 0; i < count; ++i)
                trigger.Set();
            const bool good = waiters.pass(count) && !trigger.Wait(1);
            while (waiters.passed() < count)
                trigger.Set();
            return good;
        });
}

TEST(trigger, fewer_sets_in_a_row_release_no_more_waiters) {
    in_each_round([](int milliseconds) {
        qorTrigger trigger(false);
        crowd waiters(4, wait_for(trigger));
        waiters.fall_asleep(milliseconds);
        trigger.Set();
        trigger.Set();
        bool good = waiters.pass(2);
        waiters.fall_asleep(milliseconds);
        good = good && waiters.passed() == 2;
        while (waiters.passed() < 4)
            trigger.Set();
        return good;
    });
}

TEST(trigger, when_all_who_waited_are_released_it_is_set_once) {
    in_each_round([](int milliseconds) {
        qorTrigger trigger(false);
        crowd waiters(2, wait_for(trigger));
        waiters.fall_asleep(milliseconds);
        for (int i = 0; i < 6; ++i)
            trigger.Set();
        return waiters.pass(2) && trigger.Wait(1) && !trigger.Wait(1);
    });
}

TEST(trigger, who_comes_later_does_not_take_what_a_waiter_was_given) {
    in_each_round([](int milliseconds) {
        qorTrigger trigger(false);
        crowd waiters(1, wait_for(trigger));
        waiters.fall_asleep(milliseconds);
        trigger.Set();
        const bool taken = trigger.Wait(1);
        if (taken)
            trigger.Set();
        return waiters.pass(1) && !taken;
    });
}

// In each round either the waiter is released or the trigger stays set, never both and never neither.
TEST(trigger, a_wait_that_times_out_swallows_no_set) {
    int released = 0;
    for (int round = 0; round < 300; ++round) {
        qorTrigger trigger(false);
        std::atomic<bool> signalled{false};
        std::thread waiter([&] { signalled = trigger.Wait(1); });
        const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(round % 50 * 50);
        while (std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        trigger.Set();
        waiter.join();
        EXPECT_NE(trigger.Wait(1), signalled.load());
        released += signalled ? 1 : 0;
    }
    EXPECT_GT(released, 0);
}

TEST(trigger, in_a_crowd_no_set_releases_two) {
    qorTrigger trigger(false);
    std::atomic<int> sets{0};
    std::atomic<int> taken{0};
    std::atomic<int> rest{4};
    std::atomic<bool> over{false};
    const auto set = [&] {
        ++sets;
        trigger.Set();
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            while (!over)
                taken += trigger.Wait(i % 2 == 0 ? 1 : 0) ? 1 : 0;
            --rest;
        });
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round)
                set();
        });
    threads[4].join();
    threads[5].join();
    over = true;
    // Two threads may still wait without a limit.
    while (rest != 0)
        set();
    for (int i = 0; i < 4; ++i)
        threads[static_cast<std::size_t>(i)].join();
    EXPECT_LE(taken, sets);
    EXPECT_GT(taken, 0);
}

TEST(gate, opened_and_closed_at_once_releases_all_who_waited) {
    in_each_round([](int milliseconds) {
        qorGate gate(false);
        crowd waiters(4, wait_for(gate));
        waiters.fall_asleep(milliseconds);
        gate.Open();
        gate.Close();
        const bool good = waiters.pass(4) && !gate.Wait(1);
        gate.Open();
        return good;
    });
}

TEST(gate, closed_at_once_it_holds_who_comes_later) {
    in_each_round([](int milliseconds) {
        qorGate gate(false);
        crowd early(2, wait_for(gate));
        early.fall_asleep(milliseconds);
        gate.Open();
        gate.Close();
        crowd late(2, wait_for(gate));
        late.fall_asleep(milliseconds);
        const bool good = early.pass(2) && late.passed() == 0;
        gate.Open();
        return good && late.pass(2);
    });
}

TEST(gate, opened_and_closed_without_end_loses_nobody) {
    qorGate gate(false);
    std::atomic<int> rest{4};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&, i] {
            for (int round = 0; round < 1000; ++round)
                wait_for(gate)(i);
            --rest;
        });
    while (rest != 0) {
        gate.Open();
        gate.Close();
    }
    for (std::thread& each : waiters)
        each.join();
    EXPECT_FALSE(gate.Wait(1));
}

} // namespace
