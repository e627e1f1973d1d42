#include "walks.h"

#include <coroutine>
#include <exception>

namespace qor::test {
namespace {

// Keeps a call from being the last thing that a function does.
template <class VALUE>
[[gnu::always_inline]] inline void use(VALUE& value) {
    __asm__ volatile("" : : "r"(&value) : "memory");
}

[[gnu::noinline]] void descend(unsigned levels, action act, void* argument) {
    unsigned kept[3] = {levels, levels, levels};
    use(kept);
    if (levels == 0)
        act(argument);
    else
        descend(levels - 1, act, argument);
    use(kept);
}

[[gnu::noinline]] void with_arrays(unsigned size, action act, void* argument) {
    auto* const bytes = static_cast<unsigned char*>(__builtin_alloca(size));
    use(*bytes);
    descend(2, act, argument);
    use(*bytes);
}

[[gnu::noinline]] void aligned(action act, void* argument) {
    struct alignas(64) wide {
        unsigned char bytes[64];
    } block{};
    use(block);
    descend(1, act, argument);
    use(block);
}

struct acts_at_end {
    action act;
    void* argument;
    ~acts_at_end() { descend(1, act, argument); }
};

[[gnu::noinline]] void fail(unsigned levels) {
    use(levels);
    if (levels == 0)
        throw levels;
    fail(levels - 1);
    use(levels);
}

[[gnu::noinline]] void through_exception(action act, void* argument) {
    try {
        const acts_at_end guard{act, argument};
        fail(3);
    } catch (unsigned) {
    }
}

[[gnu::noinline]] void in_handler(action act, void* argument) {
    try {
        fail(3);
    } catch (unsigned) {
        descend(1, act, argument);
    }
}

struct task {
    struct promise_type {
        task get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_always initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

task act_twice(action act, void* argument) {
    descend(1, act, argument);
    co_await std::suspend_always{};
    descend(2, act, argument);
}

[[gnu::noinline]] void in_coroutine(action act, void* argument) {
    const task running = act_twice(act, argument);
    while (!running.handle.done())
        running.handle.resume();
    running.handle.destroy();
}

} // namespace

#define QOR_TEXT_OF(name) #name
#define QOR_TEXT(name) QOR_TEXT_OF(name)
extern const walks WALKS;
const walks WALKS{QOR_TEXT(WALKS), &descend, &with_arrays, &aligned, &through_exception, &in_handler, &in_coroutine};
#undef QOR_TEXT
#undef QOR_TEXT_OF

} // namespace qor::test
