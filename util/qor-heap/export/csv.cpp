#include "exports.h"

#include "safe_text.h"

#include <cinttypes>
#include <cstdio>
#include <ranges>

namespace qor::heap_tool {

namespace {

constexpr std::string_view column_names =
    "function,source_file,source_line,module,build_id,address,caller,type_name,block_type,growth,stack,"
    "live_bytes,live_blocks,peak_bytes,peak_blocks,allocated_bytes,allocated_blocks,temporary_bytes,temporary_"
    "blocks\r\n";

// Spreadsheets take a cell that begins so for a formula, with the full-width forms of some languages too.
bool is_formula(std::string_view text) {
    for (const std::string_view sign :
         {"=", "+", "-", "@", "\t", "\r", "\xef\xbc\x9d", "\xef\xbc\x8b", "\xef\xbc\x8d", "\xef\xbc\xa0"})
        if (text.starts_with(sign))
            return true;
    return false;
}

void append_text(std::string& line, std::string_view text) {
    line += '"';
    if (is_formula(text))
        line += '\'';
    for (const char each : text) {
        if (each == '"')
            line += '"';
        line += each;
    }
    line += "\",";
}

void append_number(std::string& line, uint64 number) {
    line += std::to_string(number);
    line += ',';
}

const char* name_of(heap::profile::growth growth) {
    switch (growth) {
    case heap::profile::growth::growing:
        return "growing";
    case heap::profile::growth::once:
        return "once";
    case heap::profile::growth::none:
        break;
    }
    return "";
}

} // namespace

void export_csv(const named_profile& of, text_sink& out) {
    const heap::profile& profile = of.profile();
    out.write(column_names);
    std::string line, names;
    for (const heap::profile::place& place : profile.places) {
        const auto stack = of.stack(place);
        const named_profile::function inner = stack.empty() ? named_profile::function() : stack.front();
        line.clear();
        append_text(line, of.text(inner.name));
        append_text(line, of.text(inner.file));
        if (inner.line != 0)
            line += std::to_string(inner.line);
        line += ',';
        append_text(line, of.text(inner.module));
        const heap::profile::frame frame = profile.frames[profile.nodes[place.node].frame];
        append_text(line, frame.module == 0 ? std::string() : of.build_id(frame.module));
        char address[24] = "";
        if (place.node != 0)
            std::snprintf(address, sizeof address, "0x%" PRIx64, static_cast<std::uint64_t>(frame.address));
        append_text(line, address);
        append_text(line, of.text(of.caller(place)));
        append_text(line, of.text(of.type_name(place)));
        append_number(line, place.type);
        append_text(line, name_of(place.growth));
        names.clear();
        for (const auto& each : std::views::reverse(stack))
            names += (names.empty() ? "" : ";") + of.text(each.name);
        append_text(line, names);
        for (const measure each : measures) {
            append_number(line, counts_of(place, each).bytes);
            append_number(line, counts_of(place, each).blocks);
        }
        line.back() = '\r';
        line += '\n';
        out.write(line);
    }
}

} // namespace qor::heap_tool
