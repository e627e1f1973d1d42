#include "exports.h"

#include "json_writer.h"

#include "safe_text.h"

#include <cinttypes>
#include <cstdio>

namespace qor::heap_tool {

namespace {

using heap::profile;

class exporter {
public:
    exporter(const named_profile& of, text_sink& out) : m_names(of), m_profile(of.profile()), m_out(out) {}

    void write(std::string_view generator) {
        m_json.begin('{');
        text("format", "qor-heap").number("version", json_version).text("generator", generator);
        write_totals();
        write_processes();
        write_modules();
        write_frames();
        write_stacks();
        write_places();
        write_timeline();
        write_bad_frees();
    }

private:
    exporter& text(std::string_view key, std::string_view value) {
        m_json.key(key).text(value);
        return *this;
    }
    exporter& known_text(std::string_view key, std::string_view value) {
        return value.empty() ? *this : text(key, value);
    }
    exporter& number(std::string_view key, uint64 value) {
        m_json.key(key).number(value);
        return *this;
    }
    exporter& flag(std::string_view key, bool value) {
        m_json.key(key).flag(value);
        return *this;
    }
    exporter& counts(std::string_view key, const profile::counts& value) {
        m_json.key(key).begin('{');
        return number("bytes", value.bytes).number("blocks", value.blocks).end();
    }
    exporter& end() {
        m_json.end('}');
        return *this;
    }
    void open_list(std::string_view key) { m_json.line().key(key).begin('['); }
    void close_list() { m_json.end(']'); }
    exporter& entry() {
        if (m_json.size() >= 64U << 10)
            m_out.write(m_json.take());
        m_json.line().begin('{');
        return *this;
    }

    static std::string hexadecimal(uint64 value) {
        char digits[24];
        std::snprintf(digits, sizeof digits, "0x%" PRIx64, static_cast<std::uint64_t>(value));
        return digits;
    }

    void write_totals();
    void write_processes();
    void write_modules();
    void write_frames();
    void write_stacks();
    void write_places();
    void write_timeline();
    void write_bad_frees();

    const named_profile& m_names;
    const profile& m_profile;
    text_sink& m_out;
    json_writer m_json;
};

void exporter::write_totals() {
    const profile::sums& sums = m_profile.totals;
    m_json.line().key("totals").begin('{');
    counts("live", sums.live).counts("peak", sums.peak.live).counts("allocated", sums.allocated);
    counts("temporary", sums.temporary).counts("inherited", sums.inherited);
    number("peak_time_ns", sums.peak.time_ns).number("peak_record", sums.peak.records);
    number("records", sums.records).number("lost_records", sums.lost_records).number("bad_frees", sums.bad_frees).end();
    m_json.line();
    flag("has_stacks", m_profile.has_stacks)
        .flag("has_times", m_profile.has_times)
        .flag("is_partial", m_profile.is_partial);
}

void exporter::write_processes() {
    open_list("processes");
    for (std::size_t i = 0; i < m_profile.processes.size(); ++i) {
        const profile::process& each = m_profile.processes[i];
        entry().number("pid", each.pid).number("parent", each.parent).number("start_ns", each.start_ns);
        text("program", m_names.program(i)).known_text("log", m_names.log(i)).end();
    }
    close_list();
}

void exporter::write_modules() {
    open_list("modules");
    for (uint32 i = 0; i < m_profile.modules.size(); ++i) {
        const profile::module& each = m_profile.modules[i];
        entry().text("path", m_names.text(m_names.module_path(i))).known_text("build_id", m_names.build_id(i));
        text("base", hexadecimal(each.base))
            .text("begin", hexadecimal(each.begin))
            .text("end", hexadecimal(each.end))
            .end();
    }
    close_list();
}

void exporter::write_frames() {
    open_list("frames");
    for (uint32 i = 0; i < m_profile.frames.size(); ++i) {
        entry().number("module", m_profile.frames[i].module).text("address", hexadecimal(m_profile.frames[i].address));
        m_json.key("functions").begin('[');
        for (const named_profile::function& each :
             i == 0 ? std::span<const named_profile::function>() : m_names.functions(i)) {
            m_json.begin('{');
            text("name", m_names.text(each.name)).known_text("file", m_names.text(each.file));
            if (each.line != 0)
                number("line", each.line);
            end();
        }
        close_list();
        end();
    }
    close_list();
}

void exporter::write_stacks() {
    open_list("stacks");
    for (const profile::node& each : m_profile.nodes)
        entry().number("parent", each.parent).number("frame", each.frame).end();
    close_list();
}

void exporter::write_places() {
    open_list("places");
    for (const profile::place& each : m_profile.places) {
        entry().number("stack", each.node).known_text("caller", m_names.text(m_names.caller(each)));
        known_text("type_name", m_names.text(m_names.type_name(each)))
            .known_text("file", m_names.text(m_names.file(each)));
        if (each.line > 0)
            number("line", static_cast<uint64>(each.line));
        number("block_type", each.type);
        if (each.growth != profile::growth::none)
            text("growth", each.growth == profile::growth::growing ? "growing" : "once");
        counts("live", each.live).counts("at_peak", each.at_peak).counts("allocated", each.allocated);
        counts("temporary", each.temporary).end();
    }
    close_list();
}

void exporter::write_timeline() {
    open_list("timeline");
    for (const profile::moment& each : m_profile.timeline)
        entry().number("time_ns", each.time_ns).number("record", each.records).counts("live", each.live).end();
    close_list();
}

void exporter::write_bad_frees() {
    open_list("bad_frees");
    for (const profile::bad_free& each : m_profile.bad_frees)
        entry()
            .text("caller", m_names.text(m_names.text_number(each.caller)))
            .text("address", hexadecimal(each.address))
            .number("record", each.records)
            .end();
    close_list();
    m_json.end('}');
    m_out.write(m_json.take() + '\n');
}

} // namespace

void export_json(const named_profile& of, std::string_view generator, text_sink& out) {
    exporter(of, out).write(generator);
}

} // namespace qor::heap_tool
