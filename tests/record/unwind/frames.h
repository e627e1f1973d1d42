// A stack as the unwinder sees it beside the same as the compiler's own run-time sees it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qor::test {

using action = void (*)(void* argument);

struct two_stacks {
    std::vector<std::uintptr_t> ours;
    std::vector<std::uintptr_t> theirs;
};

// The frames above this call, at most `depth` of them.
[[gnu::noinline]] two_stacks both_stacks(unsigned depth = 64);

// Ours alone.
[[gnu::noinline]] std::vector<std::uintptr_t> our_stack();

// As actions: `argument` is what they fill.
void take_both(void* argument);
void take_ours(void* argument);

void expect_equal(const two_stacks& stacks, std::size_t at_least);

// Whether the first `sure` frames are those of `truth`, and all others among the rest of it in their order.
bool is_part_of(const std::vector<std::uintptr_t>& frames, const std::vector<std::uintptr_t>& truth, std::size_t sure);

// Collects what several calls of an action find.
struct every_stack {
    std::vector<two_stacks> found;

    static void add(void* self);
};

void expect_equal(const every_stack& stacks, std::size_t count, std::size_t at_least);

} // namespace qor::test
