// Keeping a thread off a processor, compared with the kernel's data on the thread.
#include "heap/log/thread_place.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace qor::heap;

cpu_set_t open_to_caller() {
    cpu_set_t open;
    EXPECT_EQ(sched_getaffinity(0, sizeof open, &open), 0);
    return open;
}

bool same(const cpu_set_t& one, const cpu_set_t& other) { return CPU_EQUAL(&one, &other) != 0; }

TEST(thread_place, the_processor_is_one_that_is_open) {
    const cpu_set_t open = open_to_caller();
    EXPECT_TRUE(CPU_ISSET(static_cast<unsigned>(current_processor()), &open));
}

// With all processors that this process may use; if there is only one, the thread stays on it.
TEST(thread_place, a_thread_keeps_off_one_and_then_another) {
    const cpu_set_t all = open_to_caller();
    std::thread([&all] {
        thread_place place;
        for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (!CPU_ISSET(static_cast<unsigned>(processor), &all))
                continue;
            place.keep_off(processor);
            cpu_set_t expected = all;
            if (CPU_COUNT(&all) > 1)
                CPU_CLR(static_cast<unsigned>(processor), &expected);
            EXPECT_TRUE(same(open_to_caller(), expected)) << processor;
            EXPECT_TRUE(CPU_COUNT(&all) == 1 || current_processor() != processor);
        }
    }).join();
    EXPECT_TRUE(same(open_to_caller(), all));
}

TEST(thread_place, a_processor_that_is_not_known) {
    const cpu_set_t all = open_to_caller();
    std::thread([&all] {
        thread_place place;
        for (const int processor : {-1, CPU_SETSIZE, 1 << 30}) {
            place.keep_off(processor);
            EXPECT_TRUE(same(open_to_caller(), all));
        }
    }).join();
}

// The process may use only one processor.
TEST(thread_place, the_only_processor) {
    const cpu_set_t all = open_to_caller();
    const int processor = current_processor();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(processor), &one);
    ASSERT_EQ(sched_setaffinity(getpid(), sizeof one, &one), 0);
    std::thread([&one, processor] {
        thread_place place;
        place.keep_off(processor);
        EXPECT_TRUE(same(open_to_caller(), one));
    }).join();
    EXPECT_EQ(sched_setaffinity(getpid(), sizeof all, &all), 0);
}

} // namespace
