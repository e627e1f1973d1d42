// What a file is that was given in place of a heap log, from its first bytes.
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace qor::heap {

enum class file_kind : uint8 {
    mtrace_log,
    memcheck_log,
    elf,
    compressed,
    html,
    utf_16,
    binary,
    zero_bytes,
    blank_lines,
    text,
};

struct file_guess {
    file_kind kind;
    const char* compressor = nullptr; // the program that compressed the file
    bool operator==(const file_guess&) const = default;
};

// True: the file begins like one that cannot be a log, such as a program, whatever its lines look like.
bool has_foreign_signature(std::string_view beginning) noexcept;

// A guess. It contains no bytes of the file, which may not be fit for a terminal.
file_guess guess_file_kind(std::string_view beginning);

} // namespace qor::heap
