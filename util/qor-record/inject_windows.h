// Puts the library of the hooks into a process that has not begun to run.
#pragma once

#include <cstdint>
#include <string>

namespace qor::record {

// The library's path, as a list of imports can hold it: in plain characters. False, after a message: the library is
// missing, or has no such path.
bool find_hooks(std::string& path);

enum class injected {
    done,
    is_foreign, // a process of another processor, such as a 32-bit one
    failed,     // the system's last error says why
};

// `process` has all rights, and is held before its first instruction. `arena` is the section that it will record in.
injected inject(void* process, void* arena, const std::string& hooks);

} // namespace qor::record
