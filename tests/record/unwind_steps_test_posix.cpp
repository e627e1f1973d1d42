// The unwinder at every instruction: the processor stops behind each, and the handler compares the stacks. So it sees
// prologues and epilogues, the stubs of calls into libraries, the loader that resolves them, and assembler code.
#include "qor-record/preload/unwind.h"
#include "unwind/frames.h"
#include "unwind/walks.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ucontext.h>
#include <unwind.h>

namespace {

using namespace qor::test;

constexpr unsigned depth = 40;

// Nothing in the handler may allocate: the steps go through malloc as well.
struct report {
    unsigned steps;
    unsigned wrong;
    std::uintptr_t at; // the first that was wrong
    unsigned our_count;
    unsigned their_count;
    std::uintptr_t ours[depth];
    std::uintptr_t theirs[depth];
} found;

// Not by backtrace(), of which sanitizers have their own.
struct their_frames {
    std::uintptr_t frames[depth + 1];
    unsigned count = 0;

    static _Unwind_Reason_Code add(_Unwind_Context* context, void* argument) {
        their_frames& self = *static_cast<their_frames*>(argument);
        if (self.count == depth + 1)
            return _URC_END_OF_STACK;
        if (const std::uintptr_t pc = _Unwind_GetIP(context); pc != 0)
            self.frames[self.count++] = pc;
        return _URC_NO_REASON;
    }
};

void compare(int, siginfo_t*, void* context) {
    std::uintptr_t ours[depth];
    const unsigned our_count = qor::record::unwind(qor::record::capture_context(), ours, depth);
    their_frames all;
    _Unwind_Backtrace(&their_frames::add, &all);
    const std::uintptr_t* const frames = all.frames;
    const unsigned their_count = all.count - 1;
    ++found.steps;
    if (our_count == their_count && std::memcmp(ours, frames + 1, their_count * sizeof *ours) == 0)
        return;
    if (found.wrong++ == 0) {
        found.at = static_cast<std::uintptr_t>(static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
        found.our_count = our_count;
        found.their_count = their_count;
        std::memcpy(found.ours, ours, sizeof ours);
        std::memcpy(found.theirs, frames + 1, sizeof ours);
    }
}

// The bit of the flags that makes the processor stop behind each instruction. Their tables are right in between, too.
extern "C" void step_from_here();
extern "C" void run_from_here();
#define QOR_FLAGS(name, change)                                                                                        \
    __asm__(".text\n" #name ":\n.cfi_startproc\npushfq\n.cfi_adjust_cfa_offset 8\n" change                             \
            ", (%rsp)\npopfq\n.cfi_adjust_cfa_offset -8\nret\n.cfi_endproc\n")
QOR_FLAGS(step_from_here, "orq $0x100");
QOR_FLAGS(run_from_here, "andq $~0x100");

// Runs `act` in steps, and gives their number.
unsigned expect_right_steps(void (*act)()) {
    // The loader resolves what the handler calls before that.
    compare(0, nullptr, nullptr);
    struct sigaction handling {};
    struct sigaction before;
    handling.sa_sigaction = &compare;
    handling.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &handling, &before);
    found = {};
    step_from_here();
    act();
    run_from_here();
    sigaction(SIGTRAP, &before, nullptr);
    EXPECT_EQ(found.wrong, 0u) << "first at " << std::hex << found.at << " of " << found.steps;
    if (found.wrong != 0) {
        EXPECT_EQ(std::vector<std::uintptr_t>(found.ours, found.ours + found.our_count),
                  std::vector<std::uintptr_t>(found.theirs, found.theirs + found.their_count));
    }
    return found.steps;
}

class unwound_in_steps : public testing::TestWithParam<const walks*> {};

INSTANTIATE_TEST_SUITE_P(compiled, unwound_in_steps, testing::ValuesIn(all_walks),
                         [](const auto& each) { return std::string(each.param->name); });

const walks* stepped;

void nothing(void*) {}

} // namespace

TEST_P(unwound_in_steps, functions) {
    stepped = GetParam();
    EXPECT_GT(expect_right_steps([] {
                  stepped->descend(5, &nothing, nullptr);
                  stepped->with_arrays(5000, &nothing, nullptr);
                  stepped->aligned(&nothing, nullptr);
                  stepped->in_coroutine(&nothing, nullptr);
              }),
              200u);
}

TEST(unwinder_in_steps, the_c_library) {
    EXPECT_GT(expect_right_steps([] {
                  char text[100];
                  std::snprintf(text, sizeof text, "%.20g %s %p", 1.0 / 3, "text", static_cast<void*>(text));
                  int numbers[] = {3, 1, 2, 7, 5};
                  std::qsort(numbers, 5, sizeof *numbers, [](const void* a, const void* b) {
                      return *static_cast<const int*>(a) - *static_cast<const int*>(b);
                  });
                  std::free(std::malloc(100000));
                  std::memmove(text + 1, text, 90);
                  timespec now;
                  clock_gettime(CLOCK_MONOTONIC, &now); // the kernel's own library
              }),
              2000u);
}
