// Code whose tables are unusual, wrong or missing. Where they are right, the stack is that of the compiler's run-time;
// elsewhere it may be shorter, but each of its frames is on the stack, in their order.
#include "unwind/machine_code.h"
#include "unwind/places.h"
#include "unwind/untold.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>

namespace {

using namespace qor::test;

// A stack that was found below code without tables, and what it should be.
struct found_below {
    trail way;
    std::vector<std::uintptr_t> ours;

    // As an action.
    static void add(void* argument) {
        found_below& self = *static_cast<found_below*>(argument);
        self.way.add();
        self.ours = our_stack();
    }

    // As an action that made code calls: where that returns to lies behind the word that it keeps on the stack.
    static void add_made(void* argument) {
        found_below& self = *static_cast<found_below*>(argument);
        self.way.returns[self.way.count++] = static_cast<std::uintptr_t*>(__builtin_dwarf_cfa())[1];
        self.way.add();
        self.ours = our_stack();
    }

    // The way, and above it what the caller of this finds.
    [[gnu::noinline]] std::vector<std::uintptr_t> truth() const {
        std::vector<std::uintptr_t> result(ours.begin(), ours.begin() + 1);
        for (unsigned i = way.count; i-- != 0;)
            result.push_back(way.returns[i]);
        const std::vector<std::uintptr_t> above = both_stacks().theirs;
        // The first is here, the second in the caller, which is in the way already.
        result.insert(result.end(), above.begin() + 2, above.end());
        return result;
    }
};

// A page of code that is made here.
class made_code {
public:
    made_code(std::initializer_list<unsigned char> code)
        : m_page(mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        std::memcpy(m_page, code.begin(), code.size());
    }
    made_code(const made_code&) = delete;
    made_code& operator=(const made_code&) = delete;
    ~made_code() { munmap(m_page, 4096); }

    void set(std::size_t offset, std::uintptr_t value) { std::memcpy(static_cast<char*>(m_page) + offset, &value, 8); }

    [[gnu::noinline]] void call(trail& way, action act, void* argument) const {
        way.add();
        reinterpret_cast<void (*)(action, void*)>(m_page)(act, argument);
        __asm__ volatile("" : : : "memory");
    }

private:
    void* m_page;
};

// act and argument are in rdi and rsi.
#define QOR_CALL_BYTES 0x48, 0x89, 0xf8, 0x48, 0x89, 0xf7, 0xff, 0xd0
const made_code with_frame_pointer{0x55, 0x48, 0x89, 0xe5, QOR_CALL_BYTES, 0x5d, 0xc3};
const made_code without_frame_pointer{0x48, 0x83, 0xec, 0x08, QOR_CALL_BYTES, 0x48, 0x83, 0xc4, 0x08, 0xc3};
made_code with_garbage{0x55, 0x48, 0xbd, 0, 0, 0, 0, 0, 0, 0, 0, QOR_CALL_BYTES, 0x5d, 0xc3};
constexpr std::size_t garbage_offset = 3;
#undef QOR_CALL_BYTES

// The code, and what is found below it by way of a function that tells where the code itself is returned to.
struct below_made_code {
    const made_code& code;
    found_below& below;

    static void run(void* argument) {
        const below_made_code& self = *static_cast<below_made_code*>(argument);
        self.code.call(self.below.way, &found_below::add_made, &self.below);
    }
};

} // namespace

TEST(unwound_code, whose_frame_is_found_by_any_register) {
    every_stack stacks;
    const signal_run here(0, &every_stack::add, &stacks);
    for (const auto code : {&code_by_rbx, &code_by_r12, &code_with_garbage_in_rbp, &code_by_expressions}) {
        code(&every_stack::add, &stacks);
        code(&signal_run::raise, nullptr);
    }
    expect_equal(stacks, 8, 8);
}

TEST(unwound_code, that_calls_in_turns) {
    every_stack stacks;
    code_by_rbx(
        [](void* outer) {
            code_by_r12([](void* inner) { code_with_garbage_in_rbp(&every_stack::add, inner); }, outer);
            code_by_expressions([](void* inner) { code_by_rbx(&every_stack::add, inner); }, outer);
        },
        &stacks);
    expect_equal(stacks, 2, 10);
}

TEST(unwound_code, that_changes_stacks) {
    every_stack stacks;
    const signal_run here(0, &every_stack::add, &stacks);
    const stack_memory memory(65536);
    code_on_stack(memory.end(), &every_stack::add, &stacks);
    code_on_stack(memory.end(), &signal_run::raise, nullptr);
    context_run(
        stack_memory(65536),
        [](void* argument) {
            const stack_memory other(65536);
            code_on_stack(other.end(), &every_stack::add, argument);
        },
        &stacks);
    expect_equal(stacks, 3, 4);
}

TEST(unwound_code, that_nobody_called) {
    every_stack stacks;
    code_without_caller(&every_stack::add, &stacks);
    expect_equal(stacks, 1, 2);
    EXPECT_EQ(stacks.found[0].ours.size(), 2u);
}

// The compiler's run-time does not survive these.
TEST(unwound_code, whose_tables_are_wrong) {
    const stack_memory memory(65536);
    for (const action act : {action{[](void* argument) { code_far_up(&take_ours, argument); }},
                             action{[](void* argument) { code_across_page(&take_ours, argument); }},
                             action{[](void* argument) { code_circle(&take_ours, argument); }}}) {
        std::vector<std::uintptr_t> frames;
        // The end of the stack is near, and so is the page behind it.
        context_run(memory, act, &frames);
        EXPECT_GE(frames.size(), 2u);
        EXPECT_LE(frames.size(), 3u);
    }
}

TEST(unwound_code, that_is_said_to_return_to_data) {
    std::vector<std::uintptr_t> frames;
    code_to_data(&take_ours, &frames);
    EXPECT_EQ(frames.size(), 2u);
}

TEST(unwound_code, whose_registers_are_lost) {
    const stack_memory memory(8192);
    std::uintptr_t own[4] = {};
    for (const std::uintptr_t garbage :
         {std::uintptr_t{0}, std::uintptr_t{1}, std::uintptr_t{8}, ~std::uintptr_t{0}, ~std::uintptr_t{7},
          std::uintptr_t{1} << 47, std::uintptr_t{1} << 63, reinterpret_cast<std::uintptr_t>(memory.begin()),
          reinterpret_cast<std::uintptr_t>(memory.begin()) - 8, reinterpret_cast<std::uintptr_t>(memory.end()),
          reinterpret_cast<std::uintptr_t>(memory.end()) - 16, reinterpret_cast<std::uintptr_t>(memory.end()) - 8,
          reinterpret_cast<std::uintptr_t>(own), reinterpret_cast<std::uintptr_t>(own) + 3}) {
        std::vector<std::uintptr_t> frames;
        code_by_lost_rbp(garbage, &take_ours, &frames);
        EXPECT_EQ(frames.size(), 2u) << std::hex << garbage;
        code_read_from(garbage, &take_ours, &frames);
        EXPECT_EQ(frames.size(), 2u) << std::hex << garbage;
    }
}

TEST(unwound_code, without_tables_by_its_frame_pointers) {
    found_below below{};
    untold_with_frame_pointers(5, below.way, &found_below::add, &below);
    EXPECT_EQ(below.ours, below.truth());
}

TEST(unwound_code, without_tables_and_frame_pointers) {
    found_below below{};
    untold_without_frame_pointers(5, below.way, &found_below::add, &below);
    EXPECT_TRUE(is_part_of(below.ours, below.truth(), 2));
}

TEST(unwound_code, that_was_made_while_the_program_runs) {
    found_below below{};
    with_frame_pointer.call(below.way, &found_below::add_made, &below);
    EXPECT_EQ(below.ours, below.truth());
    below = {};
    without_frame_pointer.call(below.way, &found_below::add_made, &below);
    EXPECT_TRUE(is_part_of(below.ours, below.truth(), 2));
    // One below the other.
    below = {};
    below_made_code inner{with_frame_pointer, below};
    trail ignored{};
    with_frame_pointer.call(ignored, &below_made_code::run, &inner);
    EXPECT_GT(below.ours.size(), 6u);
}

TEST(unwound_code, that_was_made_and_has_garbage_in_its_frame_pointer) {
    const stack_memory memory(8192);
    // On the stack, and like frames: without a return address, with one that is a function, and with itself above.
    std::uintptr_t fake[8] = {};
    fake[0] = fake[2] = fake[4] = reinterpret_cast<std::uintptr_t>(fake);
    fake[3] = reinterpret_cast<std::uintptr_t>(&code_after_call);
    fake[5] = reinterpret_cast<std::uintptr_t>(memory.begin());
    __asm__ volatile("" : : "r"(fake) : "memory");
    const auto at = [](const void* address) { return reinterpret_cast<std::uintptr_t>(address); };
    for (const std::uintptr_t garbage :
         {std::uintptr_t{0}, std::uintptr_t{1}, std::uintptr_t{8}, ~std::uintptr_t{0}, ~std::uintptr_t{7},
          std::uintptr_t{1} << 47, at(memory.begin()), at(memory.begin() - 8), at(memory.end()), at(memory.end() - 8),
          at(memory.end() - 16), at(fake), at(fake) + 3, at(fake + 2), at(fake + 4),
          reinterpret_cast<std::uintptr_t>(&take_both)}) {
        found_below below{};
        with_garbage.set(garbage_offset, garbage);
        with_garbage.call(below.way, &found_below::add_made, &below);
        EXPECT_TRUE(is_part_of(below.ours, below.truth(), 2)) << std::hex << garbage;
        // On a stack whose end is near.
        struct call {
            found_below* below;
        } now{&below};
        below = {};
        context_run(
            memory,
            [](void* argument) {
                found_below& inside = *static_cast<call*>(argument)->below;
                with_garbage.call(inside.way, &found_below::add_made, &inside);
            },
            &now);
        EXPECT_GE(below.ours.size(), 2u);
        EXPECT_LE(below.ours.size(), 4u);
    }
}
