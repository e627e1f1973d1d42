// The grammar of mtrace logs, beside the plain one.
#include "log_run.h"

namespace log_lines = qor::heap::log_lines;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    log_run::compare<log_lines::mtrace_line, plain_log::mtrace_line>(
        std::string(reinterpret_cast<const char*>(data), size),
        [](const log_lines::mtrace_line& line, const plain_log::mtrace_line& plain) {
            return line.caller == plain.caller && line.code[0] == plain.code[0] && line.address == plain.address &&
                   line.size == plain.size && line.is_alloc == plain.is_alloc &&
                   line.is_code_known == plain.is_code_known && (line.is_code_known || line.code == plain.code);
        },
        [](const char* text, const log_lines::entry<log_lines::mtrace_line>& entry,
           const plain_log::mtrace_line& plain) {
            return std::string_view(text + entry.caller_at, entry.caller_size) == plain.caller &&
                   entry.address == plain.address && entry.size == plain.size && entry.is_alloc == plain.is_alloc &&
                   entry.is_code_known == plain.is_code_known;
        });
    return 0;
}
