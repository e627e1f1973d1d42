// The grammar of the framework's allocation logs, beside the plain one.
#include "log_run.h"

using qor::heap::log_lines::memcheck_line;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto same = [](const memcheck_line& line, const plain_log::memcheck_line& plain) {
        return line.code == plain.code && line.address == plain.address && line.size == plain.size &&
               line.bt == plain.bt && line.file == plain.file && line.line == plain.line &&
               line.type_name == plain.type_name;
    };
    log_run::compare<memcheck_line, plain_log::memcheck_line>(
        std::string(reinterpret_cast<const char*>(data), size), same,
        [&](const char*, const memcheck_line& entry, const plain_log::memcheck_line& plain) {
            return same(entry, plain);
        });
    return 0;
}
