// Guesses from its first bytes the kind of a file that was given in place of a heap log.
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

// Returns true if the file begins like one that cannot be a log, such as a program, even if its lines look like one.
bool has_foreign_signature(std::string_view beginning) noexcept;

// The result is a guess. It contains no bytes of the file, which may be unsafe to print on a terminal.
file_guess guess_file_kind(std::string_view beginning);

} // namespace qor::heap
