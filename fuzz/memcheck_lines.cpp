// The grammar of the framework's allocation logs, beside the plain one, with sizes of both widths.
#include "log_run.h"

namespace {

template <class SIZE>
void compare(const std::string& text) {
    using line_type = qor::heap::log_lines::memcheck_line<SIZE>;
    const auto same = [](const line_type& line, const plain_log::memcheck_line& plain) {
        return line.code == plain.code && line.address == plain.address &&
               line.size == static_cast<SIZE>(plain.wide_size) && line.bt == plain.bt && line.file == plain.file &&
               line.line == plain.line && line.type_name == plain.type_name;
    };
    log_run::compare<line_type, plain_log::memcheck_line>(
        text, same,
        [&](const char*, const line_type& entry, const plain_log::memcheck_line& plain) { return same(entry, plain); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    compare<uint32>(text);
    compare<uint64>(text);
    return 0;
}
