// The reader of files of Windows over damaged ones: it stays in their bytes, and what it says agrees with itself.
#include "heap/symbols/pe_file.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

bool is_within(std::string_view text, std::string_view bytes) {
    return text.empty() || (text.data() >= bytes.data() && text.data() + text.size() <= bytes.data() + bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using qor::heap::pe_file;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    pe_file file;
    if (!file.parse(bytes))
        return 0;
    require(file.build_id().empty() || file.build_id().size() == 16);
    for (const char* const name : {".debug_info", ".debug_line", ".text", ""}) {
        const std::string_view content = file.content(name);
        require(is_within(content, bytes));
    }
    const auto& all = file.all_exported();
    require(std::is_sorted(all.begin(), all.end(), [](const pe_file::exported& one, const pe_file::exported& other) {
        return one.address < other.address;
    }));
    for (const pe_file::exported& one : all) {
        require(is_within(one.name, bytes) && one.name.size() <= pe_file::longest_name);
        require(file.is_code(one.address));
        const std::string_view found = file.exported_at(one.address);
        require(std::any_of(all.begin(), all.end(), [&](const pe_file::exported& other) {
            return other.address == one.address && other.name == found;
        }));
    }
    for (std::uint64_t address : {std::uint64_t{0}, std::uint64_t{0x1000}, std::uint64_t{0x1044}, ~std::uint64_t{0}})
        require(is_within(file.exported_at(address), bytes));
    return 0;
}
