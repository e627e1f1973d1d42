#include "exports.h"

#include <ranges>
#include <unordered_map>

namespace qor::heap_tool {

namespace {

// `;` stands between functions, and the number behind the last blank.
void append_name(std::string& line, const std::string& name) {
    for (const char each : name)
        line += each == ';' ? ':' : each;
}

} // namespace

void export_folded(const named_profile& of, measure what, text_sink& out) {
    // Places of one stack differ in types: they are one line.
    std::unordered_map<std::string, std::size_t> known;
    std::vector<std::pair<std::string, uint64>> lines;
    for (const heap::profile::place& place : of.profile().places) {
        const uint64 bytes = counts_of(place, what).bytes;
        if (bytes == 0)
            continue;
        const auto stack = of.stack(place);
        std::string line;
        for (const auto& each : std::views::reverse(stack)) {
            if (!line.empty())
                line += ';';
            append_name(line, of.text(each.name));
        }
        if (line.empty())
            line = "?";
        const auto [at, is_new] = known.try_emplace(std::move(line), lines.size());
        if (is_new)
            lines.emplace_back(at->first, 0);
        lines[at->second].second += bytes;
    }
    for (const auto& [stack, bytes] : lines)
        out.write(stack + ' ' + std::to_string(bytes) + '\n');
}

} // namespace qor::heap_tool
