// The functions that stand before those of the C run-times and of the system.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qor::record {

enum runtime_function : unsigned {
#define QOR_FUNCTION(name, exported) fn_##name,
#include "runtime_functions.def"
#undef QOR_FUNCTION
    runtime_function_count
};
extern const char* const runtime_function_names[runtime_function_count];

// Several run-times may be there at the same time. Each has functions of its own.
inline constexpr unsigned most_runtimes = 8;
struct runtime {
    const void* base; // null: none is here
    std::uintptr_t begin, end;
    void* original[runtime_function_count]; // null: it does not export this one
};
extern runtime runtimes[most_runtimes];
// As many as a run-time has functions.
void* const* hooks_of_runtime(unsigned number) noexcept;

// Functions of the system, which libraries of several names may lead to.
struct system_function {
    const char* name;
    void* hook;
    void* original[2]; // of kernelbase.dll and kernel32.dll; null: not hooked
};
inline constexpr unsigned heap_function_count = 4;
extern system_function heap_functions[heap_function_count];
inline constexpr unsigned start_function_count = 4;
extern system_function start_functions[start_function_count];

} // namespace qor::record
