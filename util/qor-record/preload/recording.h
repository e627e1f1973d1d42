// The recording of this process: what the hooks call. All of it is safe in a signal handler, takes no lock, allocates
// nothing and leaves errno alone.
#pragma once

#include "shared/arena.h"
#include "unwind.h"

namespace qor::record {

// A new block, after the allocator has returned it.
void record_allocation(record_kind kind, const void* block, std::size_t size, const machine_context& caller) noexcept;

// A block that is about to be released (record_kind::release or moved_from).
void record_release(record_kind kind, const void* block, const machine_context& caller) noexcept;

// How much this thread has recorded: a hook sees by it whether the function that it called has done so.
struct thread_counts {
    unsigned long allocations;
    unsigned long releases;
};
const thread_counts& counts_of_this_thread() noexcept;

// A function of the C library that allocates for its caller, such as strdup: as long as this lives, blocks belong to
// the caller of the hook that it stands in.
class allocating_for_caller {
public:
    allocating_for_caller() noexcept;
    ~allocating_for_caller();
    allocating_for_caller(const allocating_for_caller&) = delete;
    allocating_for_caller& operator=(const allocating_for_caller&) = delete;

private:
    std::uintptr_t m_outer;
};

// Before and after the program unloads a library.
void modules_are_going() noexcept;
void modules_have_gone() noexcept;

// No more calls of the system from now on: a filter would end the process for one.
void make_no_system_calls() noexcept;

// Once, before any library of the program is initialised.
void start_recording(char** environment) noexcept;

} // namespace qor::record
