// Locks, events and the counter. A test that something does NOT happen watches for a short time. It may miss a fault on
// a slow machine, but never reports a false one.
#include "support/exhaustion.h"
#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using qor::test::refuse_next_request;
using calls = std::vector<std::string>;

constexpr char windows_file[] = "qorcore/include/qor/glue/impl_windows";
constexpr char common_file[] = "qorcore/include/qor/glue/impl_common";
constexpr char unlimited_wait[] = "::WaitForSingleObject(m_event, 0xffffffff) == ((((DWORD)0x00000000)) + 0)";

// A thread that runs an action which should block, and records when the action has returned.
class follower {
public:
    template <class ACTION>
    explicit follower(ACTION action)
        : m_thread([this, action] {
              action();
              m_done = true;
          }) {}
    ~follower() { m_thread.join(); }

    bool stays_blocked() const {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return !m_done;
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

void lock_on_another_thread(qorFastMutex2& mutex) {
    std::thread([&mutex] {
        mutex.Lock();
        mutex.Unlock();
    }).join();
}

// ---- qorFastMutex2

static_assert(!std::is_copy_constructible_v<qorFastMutex2> && !std::is_copy_assignable_v<qorFastMutex2>);
static_assert(sizeof(qorFastMutex2) == sizeof(void*));

TEST(fast_mutex, keeps_threads_apart) {
    qorFastMutex2 mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20000; ++round) {
                mutex.Lock();
                ++counter;
                mutex.Unlock();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);
}

TEST(fast_mutex, its_owner_may_lock_it_again_and_unlocks_it_as_often) {
    qorFastMutex2 mutex;
    mutex.Lock();
    mutex.Lock();
    {
        const follower other([&] {
            mutex.Lock();
            mutex.Unlock();
        });
        EXPECT_TRUE(other.stays_blocked());
        mutex.Unlock();
        EXPECT_TRUE(other.stays_blocked());
        mutex.Unlock();
    }
    lock_on_another_thread(mutex);
}

TEST(fast_mutex, reports_that_there_is_no_memory) {
    recording_table table;
    refuse_next_request();
    qorFastMutex2 mutex;
    EXPECT_EQ(table.take(), calls{assertion("m_pCrit != NULL", "qorFastMutex2::qorFastMutex2()", windows_file, 147)});
    mutex.Lock();
    mutex.Unlock();
    EXPECT_EQ(table.take(), calls{});
}

TEST(fast_mutex, is_silent_without_a_table) {
    recording_table table;
    EXPECT_TRUE(table.unbound([] {
        refuse_next_request();
        qorFastMutex2 mutex;
        mutex.Lock();
        mutex.Unlock();
    }));
    EXPECT_EQ(table.take(), calls{});
}

// ---- qorAutoLockFastMutex2

static_assert(!std::is_copy_constructible_v<qorAutoLockFastMutex2>);
static_assert(sizeof(qorAutoLockFastMutex2) == sizeof(void*));

TEST(auto_lock, holds_from_its_constructor_to_the_end_of_its_scope) {
    recording_table table;
    qorFastMutex2 mutex;
    std::optional<qorAutoLockFastMutex2> lock(&mutex);
    {
        const follower other([&] {
            mutex.Lock();
            mutex.Unlock();
        });
        EXPECT_TRUE(other.stays_blocked());
        lock.reset();
    }
    lock_on_another_thread(mutex);
    EXPECT_EQ(table.take(), calls{});
}

TEST(auto_lock, holds_nothing_at_first) {
    recording_table table;
    qorFastMutex2 mutex;
    {
        qorAutoLockFastMutex2 lock;
        lock_on_another_thread(mutex);
        lock.Lock(&mutex);
        lock.Unlock();
        lock_on_another_thread(mutex);
        lock.Lock(&mutex);
    }
    lock_on_another_thread(mutex);
    EXPECT_EQ(table.take(), calls{});
}

TEST(auto_lock, lets_go_when_an_exception_passes) {
    qorFastMutex2 mutex;
    try {
        const qorAutoLockFastMutex2 lock(&mutex);
        throw std::runtime_error("passes");
    } catch (const std::runtime_error&) {
    }
    lock_on_another_thread(mutex);
}

TEST(auto_lock, locking_a_second_mutex_is_reported_and_leaves_the_first) {
    recording_table table;
    qorFastMutex2 first, second;
    {
        qorAutoLockFastMutex2 lock(&first);
        lock.Lock(&second);
        EXPECT_EQ(table.take(), calls{assertion("m_mutex == NULL", "void qorAutoLockFastMutex2::Lock(qorFastMutex2*)",
                                                common_file, 861)});
        lock_on_another_thread(first);
        const follower other([&] {
            second.Lock();
            second.Unlock();
        });
        EXPECT_TRUE(other.stays_blocked());
        lock.Unlock();
    }
    lock_on_another_thread(second);
    EXPECT_EQ(table.take(), calls{});
}

TEST(auto_lock, locking_the_same_mutex_again_holds_it_once) {
    recording_table table;
    qorFastMutex2 mutex;
    {
        qorAutoLockFastMutex2 lock(&mutex);
        lock.Lock(&mutex);
        EXPECT_EQ(table.take().size(), 1u);
    }
    lock_on_another_thread(mutex);
}

TEST(auto_lock, unlocking_nothing_is_reported) {
    recording_table table;
    qorFastMutex2 mutex;
    qorAutoLockFastMutex2 lock;
    lock.Unlock();
    EXPECT_EQ(table.take(),
              calls{assertion("m_mutex != NULL", "void qorAutoLockFastMutex2::Unlock()", common_file, 871)});
    lock.Lock(&mutex);
    lock.Unlock();
    EXPECT_EQ(table.take(), calls{});
    lock_on_another_thread(mutex);
}

TEST(auto_lock, is_silent_without_a_table) {
    recording_table table;
    qorFastMutex2 first, second;
    EXPECT_TRUE(table.unbound([&] {
        qorAutoLockFastMutex2 lock;
        lock.Unlock();
        lock.Lock(&first);
        lock.Lock(&second);
    }));
    lock_on_another_thread(first);
    lock_on_another_thread(second);
    EXPECT_EQ(table.take(), calls{});
}

// ---- qorGate

static_assert(std::has_virtual_destructor_v<qorGate>);

TEST(gate, begins_as_it_is_told) {
    qorGate open(true), closed(false);
    EXPECT_TRUE(open.Wait(1));
    EXPECT_FALSE(closed.Wait(1));
}

TEST(gate, stays_open_until_it_is_closed) {
    qorGate gate(false);
    gate.Open();
    for (int i = 0; i < 3; ++i) {
        gate.Wait();
        EXPECT_TRUE(gate.Wait(1));
        EXPECT_TRUE(gate.Wait(0));
    }
    gate.Close();
    EXPECT_FALSE(gate.Wait(1));
}

TEST(gate, opened_twice_and_closed_once_is_closed) {
    qorGate gate(false);
    gate.Open();
    gate.Open();
    gate.Close();
    EXPECT_FALSE(gate.Wait(1));
}

TEST(gate, lets_all_waiters_pass) {
    qorGate gate(false);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&, i] {
            if (i % 2 == 0)
                gate.Wait();
            else
                EXPECT_TRUE(gate.Wait(600'000));
            ++passed;
        });
    gate.Open();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(passed, 4);
}

TEST(gate, a_wait_without_limit_blocks) {
    qorGate gate(false);
    const follower other([&] { gate.Wait(); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(gate, a_limit_of_zero_is_no_limit) {
    qorGate gate(false);
    const follower other([&] { EXPECT_TRUE(gate.Wait(0)); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(gate, the_largest_limit_is_no_limit_either) {
    qorGate gate(false);
    const follower other([&] { EXPECT_TRUE(gate.Wait(0xffffffff)); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(gate, waits_at_least_as_long_as_its_limit) {
    qorGate gate(false);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(gate.Wait(1020));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1020));
}

TEST(gate, reports_what_it_cannot_do) {
    recording_table table;
    refuse_next_request();
    qorGate gate(true);
    EXPECT_EQ(table.take(), calls{assertion("m_event != NULL", "qorGate::qorGate(bool)", windows_file, 175)});
    gate.Open();
    gate.Close();
    EXPECT_EQ(table.take(), calls{});
    gate.Wait();
    EXPECT_EQ(table.take(), calls{assertion(unlimited_wait, "void qorGate::Wait()", windows_file, 195)});
    EXPECT_FALSE(gate.Wait(1));
    EXPECT_FALSE(gate.Wait(0));
    EXPECT_EQ(table.take(),
              calls(2, assertion("result == WAIT_TIMEOUT", "bool qorGate::Wait(uint32)", windows_file, 204)));
}

TEST(gate, is_silent_without_a_table) {
    recording_table table;
    EXPECT_TRUE(table.unbound([] {
        refuse_next_request();
        qorGate gate(true);
        gate.Wait();
        EXPECT_FALSE(gate.Wait(1));
    }));
    EXPECT_EQ(table.take(), calls{});
}

// ---- qorTrigger

TEST(trigger, begins_as_it_is_told) {
    qorTrigger set(true), clear(false);
    EXPECT_TRUE(set.Wait(1));
    EXPECT_FALSE(clear.Wait(1));
}

TEST(trigger, each_set_lets_one_wait_pass) {
    qorTrigger trigger(false);
    trigger.Set();
    trigger.Wait();
    EXPECT_FALSE(trigger.Wait(1));
    trigger.Set();
    EXPECT_TRUE(trigger.Wait(0));
    EXPECT_FALSE(trigger.Wait(1));
}

TEST(trigger, set_twice_is_set_once) {
    qorTrigger trigger(false);
    trigger.Set();
    trigger.Set();
    EXPECT_TRUE(trigger.Wait(1));
    EXPECT_FALSE(trigger.Wait(1));
}

TEST(trigger, each_set_releases_one_waiter) {
    qorTrigger trigger(false);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            trigger.Wait();
            ++passed;
        });
    for (int released = 1; released <= 3; ++released) {
        trigger.Set();
        while (passed < released)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(passed, released);
    }
    for (std::thread& waiter : waiters)
        waiter.join();
}

TEST(trigger, a_limit_of_zero_is_no_limit) {
    qorTrigger trigger(false);
    const follower other([&] { EXPECT_TRUE(trigger.Wait(0)); });
    EXPECT_TRUE(other.stays_blocked());
    trigger.Set();
}

TEST(trigger, two_threads_pass_a_ball_back_and_forth) {
    qorTrigger there(false), back(false);
    int ball = 0;
    std::thread other([&] {
        for (int i = 0; i < 5000; ++i) {
            there.Wait();
            ++ball;
            back.Set();
        }
    });
    for (int i = 0; i < 5000; ++i) {
        there.Set();
        EXPECT_TRUE(back.Wait(600'000));
        EXPECT_EQ(ball, i + 1);
    }
    other.join();
}

TEST(trigger, reports_what_it_cannot_do) {
    recording_table table;
    refuse_next_request();
    qorTrigger trigger(true);
    EXPECT_EQ(table.take(), calls{assertion("m_event != NULL", "qorTrigger::qorTrigger(bool)", windows_file, 214)});
    trigger.Set();
    EXPECT_EQ(table.take(), calls{});
    trigger.Wait();
    EXPECT_EQ(table.take(), calls{assertion(unlimited_wait, "void qorTrigger::Wait()", windows_file, 229)});
    EXPECT_FALSE(trigger.Wait(1));
    EXPECT_EQ(table.take(),
              calls{assertion("result == WAIT_TIMEOUT", "bool qorTrigger::Wait(uint32)", windows_file, 238)});
}

TEST(trigger, is_silent_without_a_table) {
    recording_table table;
    EXPECT_TRUE(table.unbound([] {
        refuse_next_request();
        qorTrigger trigger(true);
        trigger.Wait();
        EXPECT_FALSE(trigger.Wait(1));
    }));
    EXPECT_EQ(table.take(), calls{});
}

// ---- qorAtomic2

static_assert(sizeof(qorAtomic2) == 4);

TEST(atomic, counts_from_zero) {
    qorAtomic2 value;
    EXPECT_EQ(value.Read(), 0);
    value.Increment();
    value.Increment();
    EXPECT_EQ(value.Read(), 2);
    value.Decrement();
    EXPECT_EQ(value.Read(), 1);
    value.Set(-7);
    EXPECT_EQ(value.Read(), -7);
}

TEST(atomic, exchanges_only_what_is_expected) {
    qorAtomic2 value;
    value.Set(5);
    EXPECT_FALSE(value.CompareAndExchange(4, 9));
    EXPECT_EQ(value.Read(), 5);
    EXPECT_TRUE(value.CompareAndExchange(5, 9));
    EXPECT_EQ(value.Read(), 9);
}

TEST(atomic, tells_when_it_reaches_zero) {
    qorAtomic2 value;
    value.Set(2);
    EXPECT_FALSE(value.DecrementAndTestZero());
    EXPECT_TRUE(value.DecrementAndTestZero());
    EXPECT_FALSE(value.DecrementAndTestZero());
    EXPECT_EQ(value.Read(), -1);
}

TEST(atomic, loses_no_change_and_one_thread_sees_zero) {
    constexpr int rounds = 20000;
    qorAtomic2 value;
    std::atomic<int> zeros{0};
    const auto on_four_threads = [](auto action) {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([action] {
                for (int round = 0; round < rounds; ++round)
                    action();
            });
        for (std::thread& thread : threads)
            thread.join();
    };
    on_four_threads([&] { value.Increment(); });
    EXPECT_EQ(value.Read(), 4 * rounds);
    on_four_threads([&] {
        if (value.DecrementAndTestZero())
            ++zeros;
    });
    EXPECT_EQ(value.Read(), 0);
    EXPECT_EQ(zeros, 1);
}

} // namespace
