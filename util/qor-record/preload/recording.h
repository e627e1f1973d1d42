// The recording of this process, for the hooks. All of it is safe in a signal handler, takes no lock, allocates
// nothing and leaves errno alone.
#pragma once

#include "shared/arena.h"
#include "unwind.h"

namespace qor::record {

// A new block, after the allocator has returned it.
void record_allocation(record_kind kind, const void* block, std::size_t size, const machine_context& caller) noexcept;

// A block that is about to be released (record_kind::release or moved_from).
void record_release(record_kind kind, const void* block, const machine_context& caller) noexcept;

// Returns the number of records of this thread. A hook compares it before and after a call to see whether another hook
// has recorded the block.
unsigned long records_of_this_thread() noexcept;

// Whether this thread has recorded BLOCK as a new one, and not as released afterwards, since it had recorded SINCE
// blocks. A signal handler may have recorded its own blocks meanwhile, so the number alone does not tell.
bool has_recorded(const void* block, unsigned long since) noexcept;

// The same for a block that contains BLOCK: an operator new may put a header of its own before it.
bool has_recorded_around(const void* block, unsigned long since) noexcept;

// A block whose release is recorded, and which another function is about to release: if that function calls a hook
// with the block, the hook must not record it again.
inline __thread const void* announced __attribute__((tls_model("initial-exec")));

class announced_release {
public:
    explicit announced_release(const void* block) noexcept : m_block(block), m_outer(announced) { announced = block; }
    // A block that an inner function has released is released for the outer one, too.
    ~announced_release() { announced = announced != m_block && m_outer == m_block ? nullptr : m_outer; }
    announced_release(const announced_release&) = delete;
    announced_release& operator=(const announced_release&) = delete;

private:
    const void* m_block;
    const void* m_outer;
};

// A function of an allocator that a hook has called, as long as it runs. It may call hooks in turn: its block is then
// recorded once, by the hook that the program has called.
inline __thread const void* called_allocator __attribute__((tls_model("initial-exec")));

// A function of the C library that makes a text, such as strdup, as long as it runs. Blocks that it allocates belong to
// the caller of its hook.
inline __thread const void* called_text_function __attribute__((tls_model("initial-exec")));

class call_scope {
public:
    template <class Function>
    call_scope(const void*& called, Function* function) noexcept : m_called(called), m_outer(called) {
        called = reinterpret_cast<const void*>(function);
    }
    ~call_scope() { m_called = m_outer; }
    call_scope(const call_scope&) = delete;
    call_scope& operator=(const call_scope&) = delete;

private:
    const void*& m_called;
    const void* m_outer;
};

// Whether the caller is `called_allocator` or a function that it has called in its own library. A signal handler that
// has interrupted it is not.
bool is_called_by_allocator(const machine_context& caller) noexcept;
inline bool belongs_to_outer_call(const machine_context& caller) noexcept {
    return called_allocator != nullptr && is_called_by_allocator(caller);
}

// Before and after the program unloads a library.
void modules_are_going() noexcept;
void modules_have_gone() noexcept;

// The process gives up the right to call the system, but for reading, writing and its end (SECCOMP_MODE_STRICT), or has
// its calls filtered (SECCOMP_MODE_FILTER). The system may end it for any other call.
void confine(bool is_strict) noexcept;

// Once, before any library of the program is initialised.
void start_recording(char** environment) noexcept;

} // namespace qor::record
