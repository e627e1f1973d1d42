// The unwinder beside the compiler's run-time, which finds the same frames in twenty times the time.
#include "qor-record/preload/unwind.h"
#include "support/scenes.h"
#include "unwind/places.h"
#include "unwind/walks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace qor::test;

class unwound : public testing::TestWithParam<const walks*> {
public:
    const walks& code() const { return *GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(compiled, unwound, testing::ValuesIn(all_walks),
                         [](const auto& each) { return std::string(each.param->name); });

} // namespace

TEST_P(unwound, functions) {
    every_stack stacks;
    for (const unsigned levels : {0, 1, 10})
        code().descend(levels, &every_stack::add, &stacks);
    expect_equal(stacks, 3, 8);
}

TEST_P(unwound, frames_of_a_size_that_is_found_out) {
    every_stack stacks;
    for (const unsigned size : {16u, 1000u, 5000u, 300000u})
        code().with_arrays(size, &every_stack::add, &stacks);
    expect_equal(stacks, 4, 8);
}

TEST_P(unwound, frames_that_are_aligned) {
    every_stack stacks;
    code().aligned(&every_stack::add, &stacks);
    expect_equal(stacks, 1, 8);
}

TEST_P(unwound, while_an_exception_is_on_its_way) {
    every_stack stacks;
    code().through_exception(&every_stack::add, &stacks);
    code().in_handler(&every_stack::add, &stacks);
    expect_equal(stacks, 2, 8);
}

TEST_P(unwound, coroutines_of_the_language) {
    every_stack stacks;
    code().in_coroutine(&every_stack::add, &stacks);
    expect_equal(stacks, 2, 8);
}

TEST_P(unwound, contexts) {
    every_stack stacks;
    for (const std::size_t size : {65536u, 262144u}) {
        const stack_memory stack(size);
        struct call {
            const walks& code;
            every_stack& stacks;
        } now{code(), stacks};
        context_run(
            stack,
            [](void* argument) {
                const call& inside = *static_cast<call*>(argument);
                inside.code.descend(100, &every_stack::add, &inside.stacks);
                inside.code.with_arrays(20000, &every_stack::add, &inside.stacks);
            },
            &now);
    }
    expect_equal(stacks, 4, 5);
}

TEST_P(unwound, signal_handlers) {
    every_stack stacks;
    const signal_run here(0, &every_stack::add, &stacks);
    code().descend(3, &signal_run::raise, nullptr);
    expect_equal(stacks, 1, 10);
}

TEST_P(unwound, signal_handlers_on_a_stack_of_their_own) {
    every_stack stacks;
    const stack_memory memory(65536);
    stack_t before;
    const stack_t alternate{memory.begin(), 0, memory.size()};
    sigaltstack(&alternate, &before);
    {
        const signal_run here(SA_ONSTACK, &every_stack::add, &stacks);
        code().descend(3, &signal_run::raise, nullptr);
        // And from one strange stack to another.
        const stack_memory other(65536);
        context_run(
            other, [](void* argument) { static_cast<const walks*>(argument)->descend(3, &signal_run::raise, nullptr); },
            const_cast<walks*>(GetParam()));
    }
    sigaltstack(&before, nullptr);
    expect_equal(stacks, 2, 8);
}

TEST_P(unwound, threads) {
    every_stack stacks;
    std::thread([&] { code().descend(3, &every_stack::add, &stacks); }).join();
    expect_equal(stacks, 1, 8);
}

TEST_P(unwound, recursion) {
    struct measure {
        two_stacks some;
        two_stacks all;
    } found;
    code().descend(
        10000,
        [](void* argument) {
            measure& result = *static_cast<measure*>(argument);
            result.some = both_stacks(64);
            result.all = both_stacks(20000);
        },
        &found);
    EXPECT_EQ(found.some.ours.size(), 64u);
    expect_equal(found.some, 64);
    expect_equal(found.all, 10005);
}

TEST(unwinder, leaves_errno_alone) {
    // Where it has to ask what can be read: on several pages of a strange stack.
    const stack_memory stack(65536);
    int after = 0;
    context_run(
        stack,
        [](void* argument) {
            walks_o2.descend(
                300,
                [](void* result) {
                    std::uintptr_t frames[310];
                    errno = 4711;
                    const unsigned count = qor::record::unwind(qor::record::capture_context(), frames, 310);
                    *static_cast<int*>(result) = count > 300 ? errno : -1;
                },
                argument);
        },
        &after);
    EXPECT_EQ(after, 4711);
}

TEST(unwinder, works_in_a_forked_child) {
    const pid_t child = fork();
    if (child == 0) {
        qor::record::prepare_unwinder();
        const two_stacks stacks = both_stacks();
        _exit(stacks.ours == stacks.theirs && stacks.ours.size() > 5 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

namespace {

// Outside of main: before it, at the end of a thread, and at the end of the process.
two_stacks before_main;
[[maybe_unused]] const bool taken = (qor::record::prepare_unwinder(), take_both(&before_main), true);

struct acts_at_end_of_thread {
    two_stacks* result = nullptr;
    ~acts_at_end_of_thread() {
        if (result != nullptr)
            take_both(result);
    }
};
thread_local acts_at_end_of_thread at_end_of_thread;

bool are_equal(const two_stacks& stacks) { return stacks.ours == stacks.theirs && stacks.ours.size() > 3; }

// The function that is registered last is called first.
struct acts_at_end_of_process {
    ~acts_at_end_of_process() {
        const two_stacks stacks = both_stacks();
        if (!are_equal(stacks))
            _exit(1);
        std::atexit([] { _exit(are_equal(both_stacks()) ? 7 : 2); });
    }
};

const scene ends("unwinder_at_the_end", [](const words&) -> int {
    static const acts_at_end_of_process last;
    std::exit(0);
});

} // namespace

TEST(unwinder, before_main) { expect_equal(before_main, 4); }

TEST(unwinder, at_the_end_of_a_thread) {
    two_stacks stacks;
    std::thread([&] { at_end_of_thread.result = &stacks; }).join();
    expect_equal(stacks, 3);
}

TEST(unwinder, at_the_end_of_the_process) { EXPECT_EQ(play(ends).code, 7); }
