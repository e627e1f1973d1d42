// Timers: order, periods, and the promise of a cancellation. No test depends on how late a call comes.
#include "qor/qor.h"
#include "support/holdings.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr uint64 an_hour = 3600 * qorTicksPerSecond;
constexpr uint64 never = ~uint64{0};

TEST(timer, durations_become_ticks) {
    static_assert(qorTicks(1ms) == 10'000);
    static_assert(qorTicks(1ns) == 1);
    static_assert(qorTicks(101ns) == 2);
    static_assert(qorTicks(0s) == 0);
    static_assert(qorTicks(-1s) == 0);
    EXPECT_EQ(qorTicks(std::chrono::hours::max()), never);
    EXPECT_EQ(qorTicks(std::chrono::duration<double>(0.5)), qorTicksPerSecond / 2);
}

TEST(timer, calls_once_and_not_before_its_time) {
    qorGate gate(false);
    std::atomic<int> calls{0};
    qorTimerTick seen;
    const uint64 begin = qorGetTickCounter();
    qorTimerId id = 0;
    ASSERT_TRUE(qorSetupTimer(
        [&](const qorTimerTick& tick) {
            seen = tick;
            ++calls;
            gate.Open();
        },
        {.delay = qorTicks(2ms)}, &id));
    gate.Wait();
    const uint64 end = qorGetTickCounter();
    EXPECT_GE(end - begin, qorTicks(2ms));
    EXPECT_EQ(seen.timer, id);
    EXPECT_GE(seen.due, begin + qorTicks(2ms));
    EXPECT_LE(seen.due, end);
    EXPECT_EQ(seen.missed, 0u);
    qorCancelTimer(id);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(qorCancelTimer(id));
}

TEST(timer, comes_again_at_whole_periods) {
    const uint64 period = qorTicks(1ms);
    std::vector<qorTimerTick> ticks;
    qorGate gate(false);
    const uint64 begin = qorGetTickCounter();
    qorTimer timer;
    ASSERT_TRUE(timer.Begin(
        [&](const qorTimerTick& tick) {
            ticks.push_back(tick);
            if (ticks.size() == 5)
                qorSleep(7); // some are missed
            if (ticks.size() == 20)
                gate.Open();
        },
        {.delay = period, .period = period}));
    gate.Wait();
    EXPECT_TRUE(timer.Cancel());
    ASSERT_GE(ticks.size(), 20u);
    uint64 missed = 0;
    uint64 count = 0;
    for (const qorTimerTick& each : ticks) {
        missed += each.missed;
        count += 1 + each.missed;
        // Each time is a whole number of periods behind the first; none is lost and none is counted twice.
        EXPECT_EQ(each.due, ticks[0].due + (count - 1 - ticks[0].missed) * period);
    }
    EXPECT_GE(missed, 5u);
    EXPECT_GE(ticks[0].due, begin + period);
}

TEST(timer, the_longest_times_never_come) {
    std::atomic<int> calls{0};
    const auto count = [&] { ++calls; };
    qorTimerId once = 0, often = 0, both = 0;
    qorGate gate(false);
    ASSERT_TRUE(qorSetupTimer(count, {.delay = never}, &once));
    ASSERT_TRUE(qorSetupTimer([&] { gate.Open(); }, {.delay = 0, .period = never}, &often));
    ASSERT_TRUE(qorSetupTimer(count, {.delay = never - 1, .period = never - 1}, &both));
    gate.Wait();
    EXPECT_TRUE(qorCancelTimer(once));
    EXPECT_TRUE(qorCancelTimer(often));
    EXPECT_TRUE(qorCancelTimer(both));
    EXPECT_EQ(calls, 0);
}

TEST(timer, calls_in_the_order_of_the_times) {
    constexpr int count = 2000;
    std::mt19937 random(1);
    std::vector<qorTimerTick> ticks;
    std::vector<qorTimerId> ids(count);
    std::atomic<int> calls{0};
    const auto note = [&](const qorTimerTick& tick) {
        ticks.push_back(tick);
        ++calls;
    };
    int cancelled = 0;
    for (qorTimerId& each : ids)
        ASSERT_TRUE(qorSetupTimer(note, {.delay = qorTicks(30ms) + random() % qorTicks(20ms)}, &each));
    for (int i = 0; i < count; i += 3)
        cancelled += qorCancelTimer(ids[static_cast<std::size_t>(i)]);
    while (calls != count - cancelled)
        qorSleep(1);
    EXPECT_TRUE(std::is_sorted(ticks.begin(), ticks.end(), [](const auto& one, const auto& other) {
        return one.due != other.due ? one.due < other.due : one.timer < other.timer;
    }));
}

// A target that says when it is destroyed, and what is wrong if it is called afterwards.
class target final : public qor::object<IQORTimerTarget> {
public:
    explicit target(std::atomic<int>& alive) : object("target", "IQORTimerTarget"), m_alive(alive) { ++m_alive; }
    ~target() { --m_alive; }
    void TimerDue(const qorTimerTick&) noexcept override { ++calls; }
    std::atomic<int> calls{0};

private:
    std::atomic<int>& m_alive;
};

TEST(timer, a_cancelled_one_has_released_its_object) {
    std::atomic<int> alive{0};
    for (int i = 0; i < 2000; ++i) {
        zetSmartPointer<target> object;
        object.AttachNew(QOR_NEW target(alive));
        qorTimerId id = 0;
        ASSERT_TRUE(qorSetupTimer(*object, {.delay = 0, .period = 1}, &id));
        object.Empty();
        if (i % 2 == 0)
            std::this_thread::yield();
        EXPECT_TRUE(qorCancelTimer(id));
        ASSERT_EQ(alive, 0);
    }
}

TEST(timer, one_that_has_called_has_released_its_object) {
    std::atomic<int> alive{0};
    zetSmartPointer<target> object;
    object.AttachNew(QOR_NEW target(alive));
    ASSERT_TRUE(qorSetupTimer(*object, {}, nullptr));
    object.Empty();
    while (alive != 0)
        qorSleep(1);
}

TEST(timer, ends_from_within_its_own_function) {
    qorTimerId id = 0;
    qorGate gate(false);
    std::atomic<int> calls{0};
    ASSERT_TRUE(qorSetupTimer(
        [&](const qorTimerTick& tick) {
            ++calls;
            EXPECT_TRUE(qorCancelTimer(tick.timer));
            EXPECT_FALSE(qorCancelTimer(tick.timer));
            gate.Open();
        },
        {.delay = 0, .period = 1}, &id));
    gate.Wait();
    qorCancelTimer(id); // waits for the rest of the call
    EXPECT_EQ(calls, 1);
}

TEST(timer, ended_from_within_and_from_others_at_once_keeps_the_promise) {
    for (int i = 0; i < 300; ++i) {
        std::atomic<bool> is_inside{false};
        qorTrigger has_begun(false);
        qorTimerId id = 0;
        ASSERT_TRUE(qorSetupTimer(
            [&](const qorTimerTick& tick) {
                is_inside = true;
                qorCancelTimer(tick.timer);
                has_begun.Set();
                std::this_thread::yield();
                is_inside = false;
            },
            {.delay = 0, .period = 1}, &id));
        has_begun.Wait();
        std::thread other([&] {
            qorCancelTimer(id);
            EXPECT_FALSE(is_inside);
        });
        qorCancelTimer(id);
        EXPECT_FALSE(is_inside);
        other.join();
    }
}

TEST(timer, an_object_may_cancel_its_timer_while_it_is_destroyed) {
    struct own {
        qorTimerId* id;
        explicit own(qorTimerId* of) : id(of) {}
        own(own&& other) noexcept : id(std::exchange(other.id, nullptr)) {}
        ~own() {
            if (id != nullptr)
                qorCancelTimer(*id);
        }
        void operator()() {}
    };
    qorTimerId id = 0;
    ASSERT_TRUE(qorSetupTimer(own(&id), {.delay = an_hour}, &id));
    EXPECT_TRUE(qorCancelTimer(id));
}

TEST(timer, functions_may_set_up_and_cancel_others) {
    std::atomic<int> left{50};
    qorGate gate(false);
    struct chain {
        std::atomic<int>& left;
        qorGate& gate;
        void operator()() {
            qorTimerId other = 0;
            EXPECT_TRUE(qorSetupTimer([] { ADD_FAILURE(); }, {.delay = an_hour}, &other));
            EXPECT_TRUE(qorCancelTimer(other));
            if (--left == 0)
                gate.Open();
            else
                EXPECT_TRUE(qorSetupTimer(chain(*this), {}));
        }
    };
    ASSERT_TRUE(qorSetupTimer(chain{left, gate}, {}));
    gate.Wait();
}

TEST(timer, what_its_function_throws_ends_neither_the_process_nor_the_timer) {
    std::atomic<int> calls{0};
    qorTimer timer;
    ASSERT_TRUE(timer.Every(1ms, [&] {
        ++calls;
        throw 1;
    }));
    while (calls < 2)
        qorSleep(1);
}

TEST(timer, nulls_are_refused) {
    EXPECT_FALSE(qorSetupTimer(qorTimerRoutine{nullptr}, nullptr, qorTimerTimes{}, nullptr));
    EXPECT_FALSE(qorSetupTimer(static_cast<IQORTimerTarget*>(nullptr), qorTimerTimes{}, nullptr));
    EXPECT_FALSE(qorSetupTimerDispatch(nullptr, nullptr, {}, nullptr));
    EXPECT_EQ(qor::test::last_error(), "qorSetupTimerDispatch was called with an invalid argument: queue.");
    EXPECT_FALSE(qorCancelTimer(0));
    EXPECT_FALSE(qorCancelTimer(never));
}

// A queue that a test runs by hand.
class queue final : public qor::object<IQORTimerQueue> {
public:
    queue() : object("queue", "IQORTimerQueue") {}
    void Post(IQORTimerEvent* event) noexcept override {
        event->AddRef();
        const std::lock_guard hold(m_lock);
        m_events.push_back(event);
        m_posted.Set();
    }
    IQORTimerEvent* take() {
        for (;;) {
            {
                const std::lock_guard hold(m_lock);
                if (!m_events.empty()) {
                    IQORTimerEvent* const first = m_events.front();
                    m_events.pop_front();
                    return first;
                }
            }
            m_posted.Wait();
        }
    }
    std::size_t count() {
        const std::lock_guard hold(m_lock);
        return m_events.size();
    }

private:
    std::mutex m_lock;
    std::deque<IQORTimerEvent*> m_events;
    qorTrigger m_posted{false};
};

zetSmartPointer<queue> new_queue() {
    zetSmartPointer<queue> made;
    made.AttachNew(QOR_NEW queue);
    return made;
}

TEST(timer_dispatch, calls_on_the_thread_of_the_queue) {
    const auto own = new_queue();
    std::thread::id where;
    ASSERT_TRUE(qorSetupTimer([&] { where = std::this_thread::get_id(); }, {}, nullptr, *own));
    IQORTimerEvent* const event = own->take();
    event->Run();
    EXPECT_EQ(where, std::this_thread::get_id());
    event->Run(); // the second time it does nothing
    void* same = nullptr;
    EXPECT_EQ(event->QueryInterface("IQORTimerEvent", &same), 1);
    event->Release();
    EXPECT_EQ(event->QueryInterface("nothing", &same), 0);
    event->Release();
}

TEST(timer_dispatch, an_event_of_a_cancelled_timer_does_nothing) {
    const auto own = new_queue();
    std::atomic<int> calls{0};
    qorTimerId id = 0;
    ASSERT_TRUE(qorSetupTimer([&] { ++calls; }, {}, &id, *own));
    IQORTimerEvent* const event = own->take();
    EXPECT_EQ(event->GetTimer(), id);
    EXPECT_TRUE(qorCancelTimer(id));
    event->Run();
    event->Release();
    EXPECT_EQ(calls, 0);
}

TEST(timer_dispatch, a_slow_queue_has_one_event_and_counts_the_others) {
    const auto own = new_queue();
    uint64 missed = 0;
    uint64 first = 0;
    uint64 last = 0;
    const uint64 period = qorTicks(1ms);
    qorTimer timer;
    ASSERT_TRUE(timer.Begin(
        [&](const qorTimerTick& tick) {
            missed += tick.missed;
            first = first == 0 ? tick.due : first;
            last = tick.due;
        },
        {.period = period}, *own));
    for (int i = 0; i < 3; ++i) {
        IQORTimerEvent* const event = own->take();
        qorSleep(10);
        EXPECT_EQ(own->count(), 0u);
        event->Run();
        event->Release();
    }
    timer.Cancel();
    EXPECT_GE(missed, 5u);
    EXPECT_EQ((last - first) % period, 0u);
}

TEST(timer_dispatch, a_dropped_event_ends_a_single_timer_and_not_a_periodic_one) {
    const auto own = new_queue();
    std::atomic<int> alive{0};
    for (const uint64 period : {uint64{0}, qorTicks(1ms)}) {
        zetSmartPointer<target> object;
        object.AttachNew(QOR_NEW target(alive));
        qorTimerId id = 0;
        ASSERT_TRUE(qorSetupTimerDispatch(*own, *object, {.period = period}, &id));
        object.Empty();
        own->take()->Release();
        if (period != 0) {
            own->take()->Release();
        } else {
            while (alive != 0) // the framework's thread may be the last to drop it
                qorSleep(1);
        }
        EXPECT_EQ(qorCancelTimer(id), period != 0);
        EXPECT_EQ(alive, 0);
        while (own->count() != 0)
            own->take()->Release();
    }
}

// Runs what it gets at once, on the thread that posts, and cancels from inside.
class direct final : public qor::object<IQORTimerQueue> {
public:
    direct() : object("direct", "IQORTimerQueue") {}
    void Post(IQORTimerEvent* event) noexcept override {
        event->Run();
        qorCancelTimer(event->GetTimer());
        done.Open();
    }
    qorGate done{false};
};

TEST(timer_dispatch, a_queue_may_run_and_cancel_where_it_posts) {
    zetSmartPointer<direct> own;
    own.AttachNew(QOR_NEW direct);
    std::atomic<int> calls{0};
    qorTimerId id = 0;
    ASSERT_TRUE(qorSetupTimer([&] { ++calls; }, {.period = 1}, &id, *own));
    own->done.Wait();
    qorCancelTimer(id);
    EXPECT_EQ(calls, 1);
}

TEST(timer_dispatch, cancelling_waits_for_a_call_on_another_thread) {
    for (int i = 0; i < 100; ++i) {
        const auto own = new_queue();
        std::atomic<bool> is_inside{false};
        qorTimerId id = 0;
        qorTrigger inside(false);
        ASSERT_TRUE(qorSetupTimer(
            [&] {
                is_inside = true;
                inside.Set();
                std::this_thread::yield();
                is_inside = false;
            },
            {.period = qorTicks(1h)}, &id, *own));
        std::thread runner([&] {
            IQORTimerEvent* const event = own->take();
            event->Run();
            event->Release();
        });
        inside.Wait();
        EXPECT_TRUE(qorCancelTimer(id));
        EXPECT_FALSE(is_inside);
        runner.join();
    }
}

TEST(timer, many_threads_set_up_and_cancel) {
    std::atomic<int> alive{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed)
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            std::vector<qorTimerId> own;
            for (int i = 0; i < 2000; ++i) {
                if (own.size() < 20 || random() % 2 == 0) {
                    zetSmartPointer<target> object;
                    object.AttachNew(QOR_NEW target(alive));
                    qorTimerId id = 0;
                    ASSERT_TRUE(qorSetupTimer(*object, {random() % 1000, random() % 3 * 100}, &id));
                    own.push_back(id);
                } else {
                    const std::size_t at = random() % own.size();
                    qorCancelTimer(own[at]);
                    own[at] = own.back();
                    own.pop_back();
                }
            }
            for (const qorTimerId each : own)
                qorCancelTimer(each);
        });
    for (std::thread& each : threads)
        each.join();
    while (alive != 0) // those that have ended by themselves
        qorSleep(1);
}

TEST(timer, a_thousand_leave_nothing_behind) {
    const auto run = [] {
        qorGate called(false);
        qorTimer once, again, later;
        ASSERT_TRUE(once.Once(0s, [&] { called.Open(); }));
        ASSERT_TRUE(again.Every(1h, [] {}));
        ASSERT_TRUE(later.Once(1h, [] {}));
        called.Wait();
    };
    qor::test::expect_to_leave_nothing(run, [] { qorSleep(1); });
}

} // namespace
