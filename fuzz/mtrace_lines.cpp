// The grammar of mtrace logs, beside the plain one, with sizes of both widths.
#include "log_run.h"

namespace {

template <class SIZE>
void compare(const std::string& text) {
    using line_type = qor::heap::log_lines::mtrace_line<SIZE>;
    const auto same_block = [](const auto& one, const plain_log::mtrace_line& plain) {
        const SIZE size = static_cast<SIZE>(plain.wide_size);
        return one.address == plain.address && one.size == size && one.is_code_known == plain.is_code_known &&
               one.is_alloc == (plain.is_code_known ? plain.is_alloc : size != 0);
    };
    log_run::compare<line_type, plain_log::mtrace_line>(
        text,
        [&](const line_type& line, const plain_log::mtrace_line& plain) {
            return same_block(line, plain) && line.caller == plain.caller && line.code[0] == plain.code[0] &&
                   (line.is_code_known || line.code == plain.code);
        },
        [&](const char* begin, const qor::heap::log_lines::entry<line_type>& entry,
            const plain_log::mtrace_line& plain) {
            return same_block(entry, plain) &&
                   std::string_view(begin + entry.caller_at, entry.caller_size) == plain.caller;
        });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    compare<uint32>(text);
    compare<uint64>(text);
    return 0;
}
