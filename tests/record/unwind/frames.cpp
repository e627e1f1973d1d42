#include "frames.h"
#include "qor-record/preload/unwind.h"

#include <gtest/gtest.h>

#include <unwind.h>

namespace qor::test {
namespace {

[[maybe_unused]] const bool prepared = (record::prepare_unwinder(), true);

// Not by backtrace(), of which sanitizers have their own.
struct theirs {
    std::vector<std::uintptr_t>& frames;
    std::size_t limit;

    static _Unwind_Reason_Code add(_Unwind_Context* context, void* argument) {
        const theirs& self = *static_cast<theirs*>(argument);
        if (self.frames.size() == self.limit)
            return _URC_END_OF_STACK;
        if (const std::uintptr_t pc = _Unwind_GetIP(context); pc != 0)
            self.frames.push_back(pc);
        return _URC_NO_REASON;
    }
};

} // namespace

two_stacks both_stacks(unsigned depth) {
    two_stacks result;
    result.ours.resize(depth);
    result.ours.resize(record::unwind(record::capture_context(), result.ours.data(), depth));
    theirs found{result.theirs, depth + 1};
    _Unwind_Backtrace(&theirs::add, &found);
    // The first of theirs is here.
    result.theirs.erase(result.theirs.begin());
    return result;
}

std::vector<std::uintptr_t> our_stack() {
    std::vector<std::uintptr_t> frames(64);
    frames.resize(record::unwind(record::capture_context(), frames.data(), 64));
    return frames;
}

void take_ours(void* argument) { *static_cast<std::vector<std::uintptr_t>*>(argument) = our_stack(); }

void take_both(void* argument) { *static_cast<two_stacks*>(argument) = both_stacks(); }

void expect_equal(const two_stacks& stacks, std::size_t at_least) {
    EXPECT_EQ(stacks.ours, stacks.theirs);
    EXPECT_GE(stacks.ours.size(), at_least);
}

bool is_part_of(const std::vector<std::uintptr_t>& frames, const std::vector<std::uintptr_t>& truth, std::size_t sure) {
    if (frames.size() < sure)
        return false;
    std::size_t at = 0;
    for (std::size_t i = 0; i < frames.size(); ++i, ++at) {
        while (at < truth.size() && truth[at] != frames[i])
            ++at;
        if (at == truth.size() || (i < sure && at != i))
            return false;
    }
    return true;
}

void every_stack::add(void* self) { static_cast<every_stack*>(self)->found.push_back(both_stacks()); }

void expect_equal(const every_stack& stacks, std::size_t count, std::size_t at_least) {
    EXPECT_EQ(stacks.found.size(), count);
    for (const two_stacks& each : stacks.found)
        expect_equal(each, at_least);
}

} // namespace qor::test
