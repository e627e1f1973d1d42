// The locks, events and the counter. A test that something does NOT happen looks for a short while and can
// miss a fault on a slow machine; it can never report one that is not there.
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

// A thread that does something which should block, and tells when it is past it.
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

TEST(FastMutex, KeepsThreadsApart) {
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

TEST(FastMutex, ItsOwnerMayLockItAgainAndUnlocksItAsOften) {
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

TEST(FastMutex, ReportsThatThereIsNoMemory) {
    recording_table table;
    refuse_next_request();
    qorFastMutex2 mutex;
    EXPECT_EQ(table.take(), calls{assertion("m_pCrit != NULL", "qorFastMutex2::qorFastMutex2()", windows_file, 147)});
    mutex.Lock();
    mutex.Unlock();
    EXPECT_EQ(table.take(), calls{});
}

TEST(FastMutex, IsSilentWithoutATable) {
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

TEST(AutoLock, HoldsFromItsConstructorToTheEndOfItsScope) {
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

TEST(AutoLock, HoldsNothingAtFirst) {
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

TEST(AutoLock, LetsGoWhenAnExceptionPasses) {
    qorFastMutex2 mutex;
    try {
        const qorAutoLockFastMutex2 lock(&mutex);
        throw std::runtime_error("passes");
    } catch (const std::runtime_error&) {
    }
    lock_on_another_thread(mutex);
}

TEST(AutoLock, LockingASecondMutexIsReportedAndLeavesTheFirst) {
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

TEST(AutoLock, LockingTheSameMutexAgainHoldsItOnce) {
    recording_table table;
    qorFastMutex2 mutex;
    {
        qorAutoLockFastMutex2 lock(&mutex);
        lock.Lock(&mutex);
        EXPECT_EQ(table.take().size(), 1u);
    }
    lock_on_another_thread(mutex);
}

TEST(AutoLock, UnlockingNothingIsReported) {
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

TEST(AutoLock, IsSilentWithoutATable) {
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

TEST(Gate, BeginsAsItIsTold) {
    qorGate open(true), closed(false);
    EXPECT_TRUE(open.Wait(1));
    EXPECT_FALSE(closed.Wait(1));
}

TEST(Gate, StaysOpenUntilItIsClosed) {
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

TEST(Gate, OpenedTwiceAndClosedOnceIsClosed) {
    qorGate gate(false);
    gate.Open();
    gate.Open();
    gate.Close();
    EXPECT_FALSE(gate.Wait(1));
}

TEST(Gate, LetsAllWaitersPass) {
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

TEST(Gate, AWaitWithoutLimitBlocks) {
    qorGate gate(false);
    const follower other([&] { gate.Wait(); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(Gate, ALimitOfZeroIsNoLimit) {
    qorGate gate(false);
    const follower other([&] { EXPECT_TRUE(gate.Wait(0)); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(Gate, TheLargestLimitIsNoLimitEither) {
    qorGate gate(false);
    const follower other([&] { EXPECT_TRUE(gate.Wait(0xffffffff)); });
    EXPECT_TRUE(other.stays_blocked());
    gate.Open();
}

TEST(Gate, WaitsAtLeastAsLongAsItsLimit) {
    qorGate gate(false);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(gate.Wait(1020));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1020));
}

TEST(Gate, ReportsWhatItCannotDo) {
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

TEST(Gate, IsSilentWithoutATable) {
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

TEST(Trigger, BeginsAsItIsTold) {
    qorTrigger set(true), clear(false);
    EXPECT_TRUE(set.Wait(1));
    EXPECT_FALSE(clear.Wait(1));
}

TEST(Trigger, EachSetLetsOneWaitPass) {
    qorTrigger trigger(false);
    trigger.Set();
    trigger.Wait();
    EXPECT_FALSE(trigger.Wait(1));
    trigger.Set();
    EXPECT_TRUE(trigger.Wait(0));
    EXPECT_FALSE(trigger.Wait(1));
}

TEST(Trigger, SetTwiceIsSetOnce) {
    qorTrigger trigger(false);
    trigger.Set();
    trigger.Set();
    EXPECT_TRUE(trigger.Wait(1));
    EXPECT_FALSE(trigger.Wait(1));
}

TEST(Trigger, EachSetReleasesOneWaiter) {
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

TEST(Trigger, ALimitOfZeroIsNoLimit) {
    qorTrigger trigger(false);
    const follower other([&] { EXPECT_TRUE(trigger.Wait(0)); });
    EXPECT_TRUE(other.stays_blocked());
    trigger.Set();
}

TEST(Trigger, TwoThreadsPassABallBackAndForth) {
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

TEST(Trigger, ReportsWhatItCannotDo) {
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

TEST(Trigger, IsSilentWithoutATable) {
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

TEST(Atomic, CountsFromZero) {
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

TEST(Atomic, ExchangesOnlyWhatIsExpected) {
    qorAtomic2 value;
    value.Set(5);
    EXPECT_FALSE(value.CompareAndExchange(4, 9));
    EXPECT_EQ(value.Read(), 5);
    EXPECT_TRUE(value.CompareAndExchange(5, 9));
    EXPECT_EQ(value.Read(), 9);
}

TEST(Atomic, TellsWhenItReachesZero) {
    qorAtomic2 value;
    value.Set(2);
    EXPECT_FALSE(value.DecrementAndTestZero());
    EXPECT_TRUE(value.DecrementAndTestZero());
    EXPECT_FALSE(value.DecrementAndTestZero());
    EXPECT_EQ(value.Read(), -1);
}

TEST(Atomic, LosesNoChangeAndOneThreadSeesZero) {
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
