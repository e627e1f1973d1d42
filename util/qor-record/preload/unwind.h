// Call stacks of the calling thread, from inside its allocation functions and signal handlers.
//
// On x86-64 a frame costs a look into a cache from program counter to the rule that finds the caller. A rule that is
// not in the cache is read from the .eh_frame of its module. Code without such a table is followed by its frame
// pointers, as long as they lead to return addresses; there the stack may be shorter than it is, but has no frame that
// is not on it. On other processors a stack has one frame, the caller.
#pragma once

#include <cstdint>

namespace qor::record {

// The registers of the caller as they will be after the return.
struct machine_context {
    std::uintptr_t pc;
    std::uintptr_t sp;
    std::uintptr_t fp;
};

// The context of the caller of the function that contains the call. That function gets a frame pointer by it.
[[gnu::always_inline]] inline machine_context capture_context() noexcept {
    return {reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)),
            reinterpret_cast<std::uintptr_t>(__builtin_dwarf_cfa()),
            *static_cast<std::uintptr_t*>(__builtin_frame_address(0))};
}

// Called by the main thread before it runs code of the program, and again by the child after fork.
void prepare_unwinder() noexcept;

// Writes at most `depth` program counters to `frames`: that of `context`, then those of its callers, innermost first,
// and returns their number. All but the first are return addresses, except behind the frame of a signal, where the
// program counter is that of the interrupted instruction. The call stands in the function that captured the context, or
// in one that it called. It is safe in signal handlers, takes no lock, allocates nothing and leaves errno alone. Memory
// that is not known to be the stack of the thread is read only after the kernel was asked whether it can be.
unsigned unwind(const machine_context& context, std::uintptr_t* frames, unsigned depth) noexcept;

// Around each dlopen, dlmopen and dlclose, on whichever thread: the first before, the second after it. In between,
// rules of libraries that can be unloaded are read anew each time, as another library may come to lie at the same
// address.
void modules_changing() noexcept;
void modules_changed() noexcept;

struct module_info {
    std::uintptr_t base;  // an address in memory minus an address in the file
    std::uintptr_t begin; // the range of the executable segments
    std::uintptr_t end;
    const char* path; // the program's is the kernel's; that of the kernel's own library is a name alone
    const unsigned char* build_id;
    unsigned build_id_size; // 0: it has no build id
};

// Calls `visitor` for each module of the process, the program first. It holds the loader's lock meanwhile: the visitor
// must not wait for another thread. The pointers are valid during the call.
void visit_modules(void (*visitor)(const module_info&, void*), void* argument) noexcept;

} // namespace qor::record
