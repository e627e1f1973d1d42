// Values of the whole process, by name.
#include "component/scanner.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::test::last_error;

// What the plain form needs: a function that counts its calls and may fail.
struct maker {
    std::atomic<int> calls{0};
    std::atomic<int> failures_left{0};
    int value = 0;

    static bool run(void* context, qorGlobalValue& made) noexcept {
        auto& self = *static_cast<maker*>(context);
        ++self.calls;
        std::this_thread::yield();
        if (self.failures_left > 0 && self.failures_left-- > 0) {
            qorSetLastError(qorError_cannot_open_file, "the value", "not yet");
            return false;
        }
        made.value = &self.value;
        return true;
    }
};

bool get(const char* name, maker& by, void** out) { return qorGetGlobalSlot(name, "int", &maker::run, &by, out); }

TEST(global_slot, is_made_once) {
    maker by;
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_TRUE(get("once", by, &first));
    ASSERT_TRUE(get("once", by, &second));
    EXPECT_EQ(first, &by.value);
    EXPECT_EQ(second, first);
    EXPECT_EQ(by.calls, 1);
    void* other = nullptr;
    ASSERT_TRUE(get("another one", by, &other));
    EXPECT_EQ(by.calls, 2);
    qorCleanup();
}

TEST(global_slot, is_made_by_one_of_many_threads) {
    for (int round = 0; round < 50; ++round) {
        const std::string name = "race " + std::to_string(round);
        maker by;
        by.failures_left = round % 3;
        std::atomic<int> failed{0};
        std::atomic<int> right{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] {
                void* value = nullptr;
                if (!get(name.c_str(), by, &value))
                    ++failed;
                else if (value == &by.value)
                    ++right;
            });
        for (std::thread& each : threads)
            each.join();
        // Each failure is the error of the thread that has failed, and the next one tries.
        EXPECT_EQ(failed, round % 3);
        EXPECT_EQ(right, 8 - round % 3);
        EXPECT_EQ(by.calls, round % 3 + 1);
    }
    qorCleanup();
}

TEST(global_slot, is_unmade_after_a_failure) {
    maker by;
    by.failures_left = 1;
    void* value = &by;
    EXPECT_FALSE(get("failing", by, &value));
    EXPECT_EQ(last_error(), "Cannot open 'the value': not yet.");
    EXPECT_EQ(value, &by);
    EXPECT_FALSE(qorGetGlobalSlot("failing", "int", nullptr, nullptr, &value));
    EXPECT_EQ(last_error(), "Nobody has made the value 'failing'.");
    EXPECT_TRUE(get("failing", by, &value));
    EXPECT_TRUE(qorGetGlobalSlot("failing", "int", nullptr, nullptr, &value));
    EXPECT_EQ(value, &by.value);
    qorCleanup();
}

TEST(global_slot, has_one_type) {
    maker by;
    void* value = nullptr;
    ASSERT_TRUE(get("typed", by, &value));
    value = nullptr;
    EXPECT_FALSE(qorGetGlobalSlot("typed", "float", &maker::run, &by, &value));
    EXPECT_EQ(last_error(), "The value 'typed' is of the type 'int', not 'float'.");
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(by.calls, 1);
    for (const char* const name : {"", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(qorGetGlobalSlot(name, "int", &maker::run, &by, &value));
    EXPECT_FALSE(qorGetGlobalSlot("typed", nullptr, &maker::run, &by, &value));
    EXPECT_EQ(last_error(), "qorGetGlobalSlot was called with an invalid argument: type.");
    qorCleanup();
}

bool want_oneself(void* context, qorGlobalValue&) noexcept {
    void* value = nullptr;
    const bool got = qorGetGlobalSlot("oneself", "int", &want_oneself, context, &value);
    return got;
}

TEST(global_slot, cannot_want_itself) {
    void* value = nullptr;
    EXPECT_FALSE(qorGetGlobalSlot("oneself", "int", &want_oneself, nullptr, &value));
    EXPECT_EQ(last_error(),
              "The value 'oneself' is wanted while it is being made, by something that the making waits for.");
    maker by;
    EXPECT_TRUE(get("oneself", by, &value));
    qorCleanup();
}

// Two values whose makers want each other's, on two threads that have both begun.
struct crossed {
    const char* other;
    std::atomic<int>& begun;
    std::atomic<int>& refused;
    static bool run(void* context, qorGlobalValue& made) noexcept {
        const auto& self = *static_cast<const crossed*>(context);
        ++self.begun;
        while (self.begun < 2)
            std::this_thread::yield();
        void* value = nullptr;
        maker by;
        if (!get(self.other, by, &value)) {
            qorString text;
            if (qorGetLastError(text) == qorError_global_slot_circular)
                ++self.refused;
        }
        made.value = const_cast<crossed*>(&self);
        return true;
    }
};

TEST(global_slot, two_that_want_each_other_do_not_wait_for_ever) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> begun{0};
        std::atomic<int> refused{0};
        const std::string names[] = {"left " + std::to_string(round), "right " + std::to_string(round)};
        crossed contexts[] = {{names[1].c_str(), begun, refused}, {names[0].c_str(), begun, refused}};
        std::atomic<int> made{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&, i] {
                void* value = nullptr;
                // Of the other type, since each maker asks for that of `maker`.
                made += qorGetGlobalSlot(names[i].c_str(), "crossed", &crossed::run, &contexts[i], &value) ? 1 : 0;
            });
        for (std::thread& each : threads)
            each.join();
        EXPECT_EQ(made, 2);
        EXPECT_EQ(refused, 1) << "one of them is refused, and the other one waits for it";
    }
    qorCleanup();
}

// ---- the end

std::vector<std::string>& ends() {
    static std::vector<std::string> all;
    return all;
}

struct named {
    std::string name;
    bool looks_for_others = false;
    explicit named(std::string called, bool looks = false) : name(std::move(called)), looks_for_others(looks) {}
    ~named() {
        ends().push_back(name);
        if (!looks_for_others)
            return;
        // One that was made earlier is still there; one that was made later is gone, and cannot be made again.
        for (const char* const other : {"first", "third"}) {
            const auto make = [other] { return std::make_unique<named>(other); };
            const named* const found = qorGetGlobalSlot<named>(other, make);
            ends().push_back(found != nullptr ? "found " + found->name : last_error());
        }
    }
};

TEST(global_slot, ends_in_the_opposite_order) {
    ends().clear();
    const auto make = [](const char* name, bool looks) {
        return qorGetGlobalSlot<named>(name, [=] { return std::make_unique<named>(name, looks); });
    };
    ASSERT_NE(make("first", false), nullptr);
    ASSERT_NE(make("second", true), nullptr);
    ASSERT_NE(make("third", false), nullptr);
    EXPECT_TRUE(ends().empty());
    qorCleanup();
    const std::vector<std::string> expected = {
        "third", "second", "found first",
        "The value 'third' cannot be made, because qorCleanup is destroying the values.", "first"};
    EXPECT_EQ(ends(), expected);

    // Then they can be made anew.
    ASSERT_NE(make("third", false), nullptr);
    ends().clear();
    qorCleanup();
    EXPECT_EQ(ends(), std::vector<std::string>{"third"});
}

TEST(global_slot, is_there_for_the_clean_up_routines) {
    static named* seen = nullptr;
    ASSERT_NE(qorGetGlobalSlot<named>("routine", [] { return std::make_unique<named>("routine"); }), nullptr);
    ASSERT_TRUE(qorRegisterCleanupRoutine(
        [](void*) noexcept {
            seen = qorGetGlobalSlot<named>("routine", [] { return std::unique_ptr<named>(); });
            EXPECT_EQ(seen != nullptr ? seen->name : "", "routine");
        },
        nullptr));
    qorCleanup();
    EXPECT_NE(seen, nullptr);
}

TEST(global_slot, exceptions_of_its_maker_are_errors) {
    EXPECT_EQ(qorGetGlobalSlot<int>("thrown", []() -> std::unique_ptr<int> { throw std::runtime_error("no paper"); }),
              nullptr);
    EXPECT_EQ(last_error(), "The value 'thrown' could not be made: no paper.");
    EXPECT_EQ(qorGetGlobalSlot<int>("thrown", []() -> std::unique_ptr<int> { throw std::bad_alloc(); }), nullptr);
    EXPECT_EQ(last_error(), "There is not enough memory.");
    const int* const value = qorGetGlobalSlot<int>("thrown");
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, 0);
    qorCleanup();
}

} // namespace
