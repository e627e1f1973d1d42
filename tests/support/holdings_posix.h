// What this process holds of the system: for tests that begin and end something many times.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <malloc.h>

namespace qor::test {

struct holdings {
    std::size_t descriptors = entries("/proc/self/fd");
    std::size_t threads = entries("/proc/self/task");
    std::size_t memory = mallinfo2().uordblks; // of the C library's heaps; with a sanitizer always 0

private:
    static std::size_t entries(const char* folder) {
        const std::filesystem::directory_iterator all(folder);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
};

// Expects that a thousand runs leave what a few leave. `settle` is called as long as there is more: threads and
// processes are at their ends for a moment longer.
template <class RUN, class SETTLE>
void expect_to_leave_nothing(RUN run, SETTLE settle) {
    constexpr std::size_t kept_blocks = 64 * 1024; // that the C library keeps for the next request
    for (int i = 0; i < 10; ++i)
        run();
    settle();
    const holdings before;
    for (int i = 0; i < 1000; ++i)
        run();
    holdings after;
    const auto is_more = [&] { return after.threads > before.threads || after.descriptors > before.descriptors; };
    for (int i = 0; i < 10'000 && is_more(); ++i, after = {})
        settle();
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LT(after.memory, before.memory + kept_blocks);
}

} // namespace qor::test
