// What this process holds of the system: for tests that begin and end something many times.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>

namespace qor::test {

struct holdings {
    std::size_t handles = 0; // or descriptors
    std::size_t threads = 0;
    std::size_t memory = 0; // in bytes, of the heap; with a sanitizer always 0
};

holdings own_holdings();

// Expects that `count` runs leave what a few leave. `settle` is called as long as there is more: threads and processes
// are at their ends for a moment longer.
template <class RUN, class SETTLE>
void expect_to_leave_nothing(RUN run, SETTLE settle, int count = 1000) {
    for (int i = 0; i < 10; ++i)
        run();
    settle();
    const holdings before = own_holdings();
    for (int i = 0; i < count; ++i)
        run();
    holdings after = own_holdings();
    const auto is_more = [&] { return after.threads > before.threads || after.handles > before.handles; };
    for (int i = 0; i < 10'000 && is_more(); ++i, after = own_holdings())
        settle();
    EXPECT_LE(after.handles, before.handles);
    EXPECT_LE(after.threads, before.threads);
    // The heap keeps some blocks for the next request.
    EXPECT_LT(after.memory, before.memory + 64u * static_cast<std::size_t>(count));
}

} // namespace qor::test
