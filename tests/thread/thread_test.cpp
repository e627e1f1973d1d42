// Threads: results, exceptions, waits, and what a start refuses.
#include "qor/qor.h"
#include "support/holdings.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

uint32 last_number() {
    qorString text;
    return qorGetLastError(text);
}

TEST(thread, gives_its_result_to_all_who_wait) {
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([] { return 42u; }, made.Out(), {.name = "answer"}));
    uint32 results[4] = {};
    std::vector<std::thread> waiters;
    for (uint32& each : results)
        waiters.emplace_back([&made, &each] { EXPECT_TRUE(qorWaitThread(*made, 0, &each)); });
    for (std::thread& each : waiters)
        each.join();
    for (const uint32 each : results)
        EXPECT_EQ(each, 42u);
    EXPECT_TRUE(qorWaitThread(*made));
    EXPECT_FALSE(made->IsRunning());
    EXPECT_NE(made->GetId(), 0u);
    qorString name;
    made->GetName(name);
    EXPECT_EQ(name, "answer");
}

TEST(thread, runs_a_plain_function_with_its_context) {
    int context = 0;
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread(
        [](void* given, qorThreadEnd& end) noexcept {
            *static_cast<int*>(given) = 5;
            end.result = 6;
        },
        &context, qorThreadOptions{}, made.Out()));
    uint32 result = 0;
    EXPECT_TRUE(qorWaitThread(*made, 0, &result));
    EXPECT_EQ(context, 5);
    EXPECT_EQ(result, 6u);
}

class work final : public qor::object<IQORThreadWork> {
public:
    work(std::atomic<int>& gone, bool throws) : object("work", "IQORThreadWork"), m_gone(gone), m_throws(throws) {}
    ~work() { ++m_gone; }
    uint32 Run() override {
        if (m_throws)
            throw std::runtime_error("no more paper");
        return 7;
    }

private:
    std::atomic<int>& m_gone;
    bool m_throws;
};

TEST(thread, runs_an_object_and_lets_it_go_before_a_wait_returns) {
    std::atomic<int> gone{0};
    for (const bool throws : {false, true}) {
        gone = 0;
        zetSmartPointer<work> object;
        object.AttachNew(QOR_NEW work(gone, throws));
        zetSmartPointer<IQORThread> made;
        ASSERT_TRUE(qorBeginThread(*object, {.name = "printer"}, made.Out()));
        object.Empty();
        uint32 result = 0;
        EXPECT_EQ(qorWaitThread(*made, 0, &result), !throws);
        EXPECT_EQ(gone, 1);
        EXPECT_EQ(result, throws ? 0u : 7u);
        if (throws) {
            EXPECT_EQ(qor::test::last_error(), "An exception has ended the thread 'printer': no more paper");
        }
    }
}

TEST(thread, an_exception_is_an_error_of_each_who_waits) {
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([] { throw 7; }, made.Out(), {.name = "odd"}));
    for (int i = 0; i < 2; ++i) {
        qorClearLastError();
        EXPECT_FALSE(qorWaitThread(*made));
        EXPECT_EQ(last_number(), uint32{qorError_thread_failed});
    }
    EXPECT_EQ(qor::test::last_error(), "An exception has ended the thread 'odd': it is not one of the C++ library's");
}

TEST(thread, a_wait_ends_with_its_time) {
    qorGate gate(false);
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([&] { gate.Wait(); }, made.Out()));
    EXPECT_FALSE(qorWaitThread(*made, 1));
    EXPECT_EQ(last_number(), uint32{qorError_timed_out});
    EXPECT_TRUE(made->IsRunning());
    gate.Open();
    EXPECT_TRUE(qorWaitThread(*made, 0xffffffff));
}

TEST(thread, does_not_wait_for_itself) {
    zetSmartPointer<IQORThread> made;
    qorGate is_known(false);
    uint32 number = 0;
    ASSERT_TRUE(qorBeginThread(
        [&] {
            is_known.Wait();
            EXPECT_FALSE(qorWaitThread(*made));
            number = last_number();
        },
        made.Out()));
    is_known.Open();
    EXPECT_TRUE(qorWaitThread(*made));
    EXPECT_EQ(number, uint32{qorError_thread_waits_for_itself});
}

TEST(thread, nobody_waits_for_a_detached_one) {
    qorGate gate(false);
    qorGate done(false);
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([&] { gate.Wait(), done.Open(); }, made.Out()));
    EXPECT_TRUE(qorDetachThread(*made));
    EXPECT_FALSE(qorWaitThread(*made));
    EXPECT_EQ(last_number(), uint32{qorError_thread_detached});
    EXPECT_FALSE(qorDetachThread(*made));
    gate.Open();
    done.Wait();
}

TEST(thread, one_without_an_object_goes_on_alone) {
    qorGate done(false);
    ASSERT_TRUE(qorBeginThread([&] { done.Open(); }, nullptr));
    done.Wait();
}

TEST(thread, takes_an_exception_of_a_detached_one_with_it) {
    qorGate gate(false);
    zetSmartPointer<IQORThread> made;
    std::atomic<int> gone{0};
    zetSmartPointer<work> object;
    object.AttachNew(QOR_NEW work(gone, true));
    ASSERT_TRUE(qorBeginThread(*object, {}, made.Out()));
    object.Empty();
    made.Empty();
    while (gone == 0)
        qorSleep(1);
}

TEST(thread, has_the_stack_that_was_wished) {
    const auto use = [](std::size_t size) {
        const std::unique_ptr<char[]> nothing; // the frame below is what counts
        volatile char* const room = static_cast<volatile char*>(__builtin_alloca(size));
        for (std::size_t i = 0; i < size; i += 4096)
            room[i] = 1;
    };
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([&] { use(30 << 20); }, made.Out(), {.stack_size = 40 << 20}));
    EXPECT_TRUE(qorWaitThread(*made));
    // The smallest one is what the system needs.
    ASSERT_TRUE(qorBeginThread([] { return 1u; }, made.Out(), {.stack_size = 1}));
    EXPECT_TRUE(qorWaitThread(*made));
}

TEST(thread, an_impossible_stack_is_an_error_of_the_start) {
    std::atomic<int> gone{0};
    for (const uint64 size : {~uint64{0}, uint64{1} << 62}) {
        zetSmartPointer<work> object;
        object.AttachNew(QOR_NEW work(gone, false));
        IQORThread* made = nullptr;
        EXPECT_FALSE(qorBeginThread(*object, {.name = "big", .stack_size = size}, &made));
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(last_number(), uint32{qorError_cannot_start_thread});
    }
    EXPECT_EQ(gone, 2);
}

TEST(thread, a_lower_priority_is_everybodys_right) {
    for (const qorThreadPriority each : {qorThreadPriority::low, qorThreadPriority::lowest}) {
        zetSmartPointer<IQORThread> made;
        ASSERT_TRUE(qorBeginThread([] { return 3u; }, made.Out(), {.priority = each}));
        uint32 result = 0;
        EXPECT_TRUE(qorWaitThread(*made, 0, &result));
        EXPECT_EQ(result, 3u);
    }
}

TEST(thread, null_is_refused) {
    EXPECT_FALSE(qorBeginThread(qorThreadRoutine{nullptr}, nullptr, qorThreadOptions{}, nullptr));
    EXPECT_FALSE(qorBeginThread(static_cast<IQORThreadWork*>(nullptr), qorThreadOptions{}, nullptr));
    EXPECT_FALSE(qorWaitThread(nullptr));
    EXPECT_FALSE(qorDetachThread(nullptr));
    EXPECT_EQ(last_number(), uint32{qorError_invalid_argument});
}

TEST(thread, as_a_member_is_waited_for) {
    bool has_run = false;
    {
        qorThread member;
        EXPECT_FALSE(member.IsRunning());
        ASSERT_TRUE(member.Begin([&] { qorSleep(1), has_run = true; }));
    }
    EXPECT_TRUE(has_run);
    qorThread none;
    EXPECT_FALSE(none.Wait());
    none.Detach();
}

TEST(thread, a_thousand_come_and_go) {
    std::atomic<uint32> sum{0};
    for (uint32 i = 0; i < 1000; ++i) {
        zetSmartPointer<IQORThread> made;
        ASSERT_TRUE(qorBeginThread([&sum] { ++sum; }, made.Out()));
        if (i % 3 == 0) {
            EXPECT_TRUE(qorWaitThread(*made));
        }
    }
    while (sum != 1000)
        qorSleep(1);
}

TEST(thread, a_thousand_leave_nothing_behind) {
    const auto run = [] {
        zetSmartPointer<IQORThread> awaited;
        ASSERT_TRUE(qorBeginThread([] {}, awaited.Out(), {.name = "awaited"}));
        ASSERT_TRUE(qorBeginThread([] {}, nullptr, {.name = "alone"}));
        EXPECT_TRUE(qorWaitThread(*awaited));
    };
    qor::test::expect_to_leave_nothing(run, [] { qorSleep(1); });
}

} // namespace
