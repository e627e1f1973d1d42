#include "log/daemon_forms_posix.h"

#include "log/line_text.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace {

constexpr unsigned facility_user = 1;

void append_field(std::string& out, std::string_view name, std::string_view value) {
    out.append(name);
    if (value.find('\n') == value.npos) {
        out.push_back('=');
    } else {
        out.push_back('\n');
        for (unsigned shift = 0; shift != 64; shift += 8)
            out.push_back(static_cast<char>(uint64{value.size()} >> shift & 0xff));
    }
    out.append(value).push_back('\n');
}

} // namespace

std::string qor::log::journal_form(const system_entry& entry) {
    std::string out;
    append_field(out, "MESSAGE", entry.text);
    append_field(out, "PRIORITY", std::to_string(static_cast<uint32>(entry.level)));
    append_field(out, "SYSLOG_IDENTIFIER", entry.program);
    append_field(out, "TID", std::to_string(entry.thread));
    if (!entry.file.empty()) {
        append_field(out, "CODE_FILE", entry.file);
        append_field(out, "CODE_LINE", std::to_string(entry.line));
    }
    if (!entry.function.empty())
        append_field(out, "CODE_FUNC", entry.function);
    if (entry.has_waited)
        append_field(out, "QOR_TIME", debug::time_text(entry.time));
    for (const field& each : entry.fields)
        append_field(out, each.name, each.value);
    return out;
}

std::string qor::log::syslog_form(const system_entry& entry, const std::tm& when, std::size_t most) {
    // The names of the C locale, whatever locale is set.
    constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char head[64];
    std::snprintf(head, sizeof head, "<%u>%s %2d %02d:%02d:%02d ",
                  facility_user * 8 + static_cast<unsigned>(entry.level), months[std::clamp(when.tm_mon, 0, 11)],
                  when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
    std::string out = head;
    append_line_text(out, cut_text(entry.program, 64), " :[]");
    out.append("[").append(std::to_string(entry.process)).append("]: ");
    append_line_text(out, entry.text);
    if (!entry.fields.empty()) {
        std::string fields;
        append_fields(fields, entry.fields);
        out.append(" [").append(fields, 1).append("]");
    }
    constexpr std::string_view is_cut = "...";
    if (out.size() > most) {
        out.erase(cut_text(out, most - is_cut.size()).size());
        out.append(is_cut);
    }
    return out;
}
