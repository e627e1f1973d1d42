// DWARF in memory, read by libbacktrace.
#pragma once

#include "heap/symbols/pe_file.h"

#include <functional>
#include <memory>
#include <string>

namespace qor::heap {

class backtrace_reader {
public:
    // Null: `reason` says why the debug information cannot be read. The file and its bytes must outlive the reader,
    // which takes no more than `memory` bytes.
    static std::unique_ptr<backtrace_reader> make(const pe_file& file, uint64 memory, std::string& reason);

    virtual ~backtrace_reader() = default;

    // Calls `place` for each place of an address, the innermost first. Any text may be null.
    using place = std::function<void(const char* function, const char* file, int line)>;
    virtual void find(uint64 address, const place& tell) = 0;
};

} // namespace qor::heap
