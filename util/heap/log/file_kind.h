// What a file is that was given in place of a heap log, from its first bytes.
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace qor::heap {

// Each value is the number of the message that names the kind; `compressed` takes the program as an insert.
enum class file_kind : uint32 {
    mtrace_log = 94,
    memcheck_log = 95,
    elf = 97,
    compressed = 98,
    html = 99,
    utf_16 = 100,
    binary = 101,
    zero_bytes = 102,
    blank_lines = 103,
    text = 104,
};

struct looks {
    file_kind kind;
    const char* program = nullptr; // that has compressed it
    bool operator==(const looks&) const = default;
};

// True: this is a file of which a log cannot be part, such as a program, whatever its lines begin with.
bool begins_another_file(std::string_view beginning) noexcept;

// A guess, and never anything that the file says of itself: its bytes are not for a terminal.
looks looks_of(std::string_view beginning);

} // namespace qor::heap
