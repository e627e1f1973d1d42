// The fields of perftools.profiles.Profile, by their numbers in its published schema.
#include "exports.h"

#include "protobuf.h"
#include "safe_text.h"

#include "compression/compressor.h"

#include <map>
#include <string>

namespace qor::heap_tool {

namespace {

using compression::compressor;
using heap::profile;

class exporter {
public:
    exporter(const named_profile& of, text_sink& out) : m_names(of), m_profile(of.profile()), m_out(out) {}

    bool write(const label_list& labels, std::string_view generator, std::string& reason);

private:
    // Numbers of texts in the string table.
    uint64 number_of(std::string_view text);
    uint64 number_of(uint32 text) { return number_of(std::string_view(m_names.text(text))); }

    protobuf value_type(std::string_view type, std::string_view unit);
    void write_mappings();
    void write_locations();
    void write_samples(const label_list& labels);
    uint64 function_of(const named_profile::function& one);
    uint64 location_of(const named_profile::function& one);
    void pass_on(bool is_end);

    const named_profile& m_names;
    const profile& m_profile;
    text_sink& m_out;
    compressor m_compressor;
    protobuf m_message;
    std::string m_compressed;
    bool m_is_whole = true;

    std::map<std::string, uint64, std::less<>> m_texts;
    std::vector<const std::string*> m_table; // the keys of m_texts
    std::map<std::pair<uint32, uint32>, uint64> m_functions;
    std::map<std::pair<uint64, uint32>, uint64> m_extra_locations;
};

uint64 exporter::number_of(std::string_view text) {
    const auto known = m_texts.find(text);
    if (known != m_texts.end())
        return known->second;
    const auto made = m_texts.emplace(text, m_table.size()).first;
    m_table.push_back(&made->first);
    return made->second;
}

void exporter::pass_on(bool is_end) {
    if (!is_end && m_message.data().size() < 64U << 10)
        return;
    using ending = compressor::ending;
    m_is_whole = m_compressor.add(m_message.data(), is_end ? ending::whole : ending::none, m_compressed) && m_is_whole;
    m_message.clear();
    m_out.write(m_compressed);
    m_compressed.clear();
}

protobuf exporter::value_type(std::string_view type, std::string_view unit) {
    protobuf value;
    value.number(1, number_of(type)).number(2, number_of(unit));
    return value;
}

bool exporter::write(const label_list& labels, std::string_view generator, std::string& reason) {
    constexpr int level = 6;
    if (!m_compressor.start(compression::format::gzip, level)) {
        reason = m_compressor.reason();
        return false;
    }
    number_of("");
    m_message.message(1, value_type("alloc_objects", "count")).message(1, value_type("alloc_space", "bytes"));
    m_message.message(1, value_type("inuse_objects", "count")).message(1, value_type("inuse_space", "bytes"));
    write_mappings();
    write_locations();
    write_samples(labels);
    if (!m_profile.processes.empty())
        m_message.number(9, m_profile.processes.front().start_ns);
    if (!m_profile.timeline.empty())
        m_message.number(10, m_profile.timeline.back().time_ns);
    m_message.message(11, value_type("space", "bytes")).number(12, 1); // each byte is recorded
    std::vector<uint64> comments = {number_of(generator)};
    if (m_profile.is_partial)
        comments.push_back(number_of("The recording is not complete."));
    m_message.packed(13, comments);
    m_message.number(14, number_of("inuse_space"));
    for (const std::string* each : m_table) {
        m_message.bytes(6, *each);
        pass_on(false);
    }
    pass_on(true);
    if (!m_is_whole)
        reason = m_compressor.reason();
    return m_is_whole;
}

void exporter::write_mappings() {
    struct known_parts {
        bool functions = false, files = false, lines = false, inlined = false;
    };
    std::vector<known_parts> known(m_profile.modules.size());
    for (uint32 i = 1; i < m_profile.frames.size(); ++i) {
        if (m_names.is_nameless(i))
            continue;
        known_parts& parts = known[m_profile.frames[i].module];
        parts.functions = true;
        const auto functions = m_names.functions(i);
        parts.inlined = parts.inlined || functions.size() > 1;
        for (const named_profile::function& one : functions) {
            parts.files = parts.files || one.file != 0;
            parts.lines = parts.lines || one.line != 0;
        }
    }
    for (uint32 i = 1; i < m_profile.modules.size(); ++i) {
        const profile::module& each = m_profile.modules[i];
        protobuf mapping;
        mapping.number(1, i).number(2, each.begin).number(3, each.end);
        mapping.number(5, number_of(m_names.module_path(i))).number(6, number_of(m_names.build_id(i)));
        mapping.number(7, known[i].functions).number(8, known[i].files).number(9, known[i].lines);
        mapping.number(10, known[i].inlined);
        m_message.message(3, mapping);
        pass_on(false);
    }
}

uint64 exporter::function_of(const named_profile::function& one) {
    const auto [known, is_new] = m_functions.try_emplace({one.name, one.file}, m_functions.size() + 1);
    if (is_new) {
        protobuf function;
        function.number(1, known->second).number(2, number_of(one.name)).number(3, number_of(one.name));
        function.number(4, number_of(one.file));
        m_message.message(5, function);
    }
    return known->second;
}

// Each frame is a location with its number. The address is that of the call, which ends at the return address.
void exporter::write_locations() {
    for (uint32 i = 1; i < m_profile.frames.size(); ++i) {
        const profile::frame& frame = m_profile.frames[i];
        const uint64 base = m_profile.modules[frame.module].base;
        protobuf location;
        location.number(1, i).number(2, frame.module).number(3, base + frame.address - (frame.address > 0 ? 1 : 0));
        if (!m_names.is_nameless(i)) {
            for (const named_profile::function& one : m_names.functions(i)) {
                protobuf line;
                line.number(1, function_of(one)).number(2, one.line);
                location.message(4, line);
            }
        }
        m_message.message(4, location);
        pass_on(false);
    }
}

// A location that is no frame: a caller of a log without stacks, or a source line that the program itself gave.
uint64 exporter::location_of(const named_profile::function& one) {
    const uint64 function = function_of(one);
    const uint64 next = m_profile.frames.size() + m_extra_locations.size();
    const auto [known, is_new] = m_extra_locations.try_emplace({function, one.line}, next);
    if (is_new) {
        protobuf line, location;
        line.number(1, function).number(2, one.line);
        location.number(1, next).message(4, line);
        m_message.message(4, location);
    }
    return known->second;
}

void exporter::write_samples(const label_list& labels) {
    protobuf common;
    for (const auto& [key, value] : labels) {
        protobuf label;
        label.number(1, number_of(safe_text(key))).number(2, number_of(safe_text(value)));
        common.message(3, label);
    }
    const uint64 type = number_of("type");
    std::vector<uint64> locations;
    for (const profile::place& place : m_profile.places) {
        locations.clear();
        for (uint32 node = place.node; node != 0; node = m_profile.nodes[node].parent)
            locations.push_back(m_profile.nodes[node].frame);
        const auto stack = m_names.stack(place);
        if (locations.empty() && !stack.empty())
            locations.push_back(location_of(stack.front()));
        const uint64 values[] = {place.allocated.blocks, place.allocated.bytes, place.live.blocks, place.live.bytes};
        protobuf sample;
        sample.packed(1, locations).packed(2, values);
        if (m_names.type_name(place) != 0) {
            protobuf label;
            label.number(1, type).number(2, number_of(m_names.type_name(place)));
            sample.message(3, label);
        }
        m_message.bytes(2, sample.data() + common.data());
        pass_on(false);
    }
}

} // namespace

bool export_pprof(const named_profile& of, const label_list& labels, std::string_view generator, text_sink& out,
                  std::string& reason) {
    return exporter(of, out).write(labels, generator, reason);
}

} // namespace qor::heap_tool
