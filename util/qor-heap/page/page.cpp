#include "page.h"

#include "base64.h"
#include "page_data.h"
#include "page_parts.h"

#include "qor-heap/export/safe_text.h"

#include "compression/compressor.h"
#include "message_names.h"
#include "qor/qor.h"

#include <algorithm>
#include <ctime>

namespace qor::heap_tool {

namespace {

namespace message = qor::messages::heap_page;
using heap::profile;

struct named_message {
    std::string_view name;
    uint32 number;
};

constexpr named_message names[] = {
#define QOR_MESSAGE(number, name, text) {#name, number},
#include "qor-heap-page.def"
#undef QOR_MESSAGE
};

std::string text_of(uint32 number) {
    qorString text;
    text.LoadString(message::catalog, number);
    return text.Text();
}

std::string text_of(uint32 number, std::string_view insert) {
    std::string text = text_of(number);
    const std::size_t at = text.find("{1}");
    return at == std::string::npos ? text : text.replace(at, 3, insert);
}

std::string escaped(std::string_view text) {
    std::string html;
    for (const char each : text) {
        switch (each) {
        case '<':
            html += "&lt;";
            break;
        case '>':
            html += "&gt;";
            break;
        case '&':
            html += "&amp;";
            break;
        case '"':
            html += "&quot;";
            break;
        default:
            html += each;
        }
    }
    return html;
}

// The bytes of hexadecimal digits.
std::string from_hexadecimal(std::string_view digits) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
    return bytes;
}

std::string policy() {
    const auto source = [](std::string_view hash) { return "'sha256-" + base64(from_hexadecimal(hash)) + '\''; };
    return "default-src 'none'; script-src " + source(page_parts::script_hash) + "; style-src " +
           source(page_parts::style_hash) +
           "; img-src data:; base-uri 'none'; form-action 'none'; require-trusted-types-for 'script'; "
           "trusted-types 'none'";
}

std::string program_of(const named_profile& of) {
    const auto& processes = of.profile().processes;
    const std::string program = processes.empty() ? std::string() : of.program(0);
    return program.empty() ? text_of(message::unknown_program) : std::string(file_name(program));
}

std::string moment_of(uint64 start_ns) {
    const auto seconds = static_cast<std::time_t>(start_ns / 1'000'000'000);
    char text[40] = "";
    if (const std::tm* parts = std::gmtime(&seconds); parts != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", parts);
    return text;
}

// The program, its process and its log, when it was recorded.
std::string about(const named_profile& of) {
    std::string text;
    const auto add = [&text](const std::string& more) {
        if (!more.empty())
            text += (text.empty() ? "" : " · ") + more;
    };
    const auto& processes = of.profile().processes;
    if (processes.empty())
        return text;
    const profile::process& first = processes.front();
    add(of.program(0));
    add(of.log(0));
    if (processes.size() > 1)
        add(text_of(message::processes, std::to_string(processes.size())));
    else if (first.pid != 0)
        add(text_of(message::process, std::to_string(first.pid)));
    if (first.start_ns != 0)
        add(text_of(message::recorded_at, moment_of(first.start_ns)));
    return text;
}

std::string compressed(const std::string& data) {
    constexpr int level = 9;
    compression::compressor gzip;
    std::string out;
    if (gzip.start(compression::format::gzip, level) && gzip.add(data, compression::compressor::ending::whole, out))
        return out;
    return data; // the script reads it as it is
}

class page_writer {
public:
    page_writer(const named_profile& now, const named_profile* earlier, std::string_view generator)
        : m_now(now), m_earlier(earlier), m_generator(generator), m_data(now, earlier) {}

    void write(text_sink& out) {
        const std::string data = packed();
        for (std::string_view rest = page_parts::html; !rest.empty();) {
            const std::size_t begin = rest.find("{{");
            out.write(rest.substr(0, begin));
            if (begin == std::string_view::npos)
                break;
            const std::size_t end = rest.find("}}", begin);
            fill(rest.substr(begin + 2, end - begin - 2), data, out);
            rest.remove_prefix(end + 2);
        }
    }

private:
    std::string packed() const;
    std::string heading() const { return text_of(message::heading, program_of(m_now)); }
    void fill(std::string_view name, std::string_view data, text_sink& out) const;
    void write_head(json_writer& head, std::size_t further) const;

    const named_profile& m_now;
    const named_profile* m_earlier;
    std::string_view m_generator;
    page_data m_data;
};

// As many places as the size of the page allows.
std::string page_writer::packed() const {
    constexpr std::size_t room = most_page_bytes - (256U << 10); // for the script and the texts
    const auto others = [](std::size_t count) { return text_of(message::further_places, std::to_string(count)); };
    for (std::size_t most = std::min(most_page_places, m_data.size());;) {
        const std::size_t further = m_data.size() - most;
        std::string data =
            base64(compressed(m_data.pack(most, others, [&](json_writer& head) { write_head(head, further); })));
        if (data.size() <= room || most == 0)
            return data;
        // A tenth less than what would fit if all were of one size.
        most = static_cast<std::size_t>(0.9 * static_cast<double>(most) * room / static_cast<double>(data.size()));
    }
}

void page_writer::write_head(json_writer& head, std::size_t further) const {
    head.key("labels").begin('{');
    for (const named_message& each : names)
        head.key(each.name).text(text_of(each.number));
    head.end('}').key("notes").begin('[');
    const profile& of = m_now.profile();
    const auto note = [&head](uint32 number, uint64 count) {
        if (count != 0)
            head.text(text_of(number, std::to_string(count)));
    };
    note(message::note_partial, of.is_partial);
    note(message::note_lost, of.totals.lost_records);
    note(message::note_bad_frees, of.totals.bad_frees);
    note(message::note_processes, of.processes.size() > 1);
    note(message::note_further, further);
    head.end(']');
}

void page_writer::fill(std::string_view name, std::string_view data, text_sink& out) const {
    if (name == "policy")
        return out.write(policy());
    if (name == "style")
        return out.write(page_parts::style);
    if (name == "script")
        return out.write(page_parts::script);
    if (name == "data")
        return out.write(data);
    if (name == "title" || name == "heading")
        return out.write(escaped(heading()));
    if (name == "about")
        return out.write(escaped(about(m_now)));
    if (name == "compared")
        return m_earlier == nullptr ? void() : out.write(escaped(text_of(message::compared_with, about(*m_earlier))));
    if (name == "footer")
        return out.write(escaped(text_of(message::footer, m_generator)));
    for (const named_message& each : names)
        if (each.name == name)
            return out.write(escaped(text_of(each.number)));
}

} // namespace

void write_page(const named_profile& now, const named_profile* earlier, std::string_view generator, text_sink& out) {
    page_writer(now, earlier, generator).write(out);
}

} // namespace qor::heap_tool
