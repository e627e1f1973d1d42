#include "debug/trace_output.h"

#include "debug/line_output.h"

namespace {

// A trace that cannot be written must not disturb the process, so failures of the file are not reported.
qor::debug::line_output& output() {
    static auto* const made = new qor::debug::line_output;
    return *made;
}

} // namespace

void qor::debug::write_line(const char* code_name, std::string_view text) noexcept {
    output().write({code_name, " ", text});
}

int qor::debug::attach_file(const char* path) noexcept { return output().attach(path); }
void qor::debug::detach_file() noexcept { output().detach(); }
