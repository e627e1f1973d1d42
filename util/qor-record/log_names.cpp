#include "log_names.h"

#include "file_system.h"
#include "messages.h"
#include "stacks_file.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qor::record {

namespace {

enum class content { nothing, log, other, no_file };

// The first bytes decide. A compressed file counts as a log, because its name is that of one.
content content_of(const std::string& path) {
    if (const file_type type = type_of(path); type != file_type::regular)
        return type == file_type::nothing ? content::nothing : content::no_file;
    raw_file file;
    if (file.open(path) != 0)
        return content::other;
    char begin[16];
    const std::size_t size = file.read(begin, sizeof begin);
    const std::string_view text(begin, size);
    const bool is_log = text.empty() || text.starts_with("= Start\n") ||
                        text.starts_with(std::string_view(stacks_magic, 6)) || text.starts_with("\x28\xb5\x2f\xfd") ||
                        text.starts_with("\x1f\x8b");
    return is_log ? content::log : content::other;
}

bool is_number(std::string_view text) { return !text.empty() && text.find_first_not_of("0123456789") == text.npos; }

// "1234", "1234.2" and the like.
bool is_process_part(std::string_view text) {
    const std::size_t dot = text.find('.');
    return is_number(text.substr(0, dot)) && (dot == text.npos || is_number(text.substr(dot + 1)));
}

} // namespace

const char* suffix_of(compression::format kind) noexcept {
    return kind == compression::format::zstd ? ".zst" : kind == compression::format::gzip ? ".gz" : "";
}

bool log_names::set(const std::string& prefix, const std::string& program, compression::format kind) {
    m_kind = kind;
    m_prefix = prefix.empty() || last_separator(prefix) == prefix.size() - 1 ? prefix + program : prefix;
    const std::size_t separator = last_separator(m_prefix);
    m_path = path_of_folder(separator == std::string::npos ? "." : m_prefix.substr(0, separator + 1));
    if (m_path.empty()) {
        say(message::no_folder, {prefix});
        return false;
    }
    if (last_separator(m_path) != m_path.size() - 1)
        m_path += separators[0];
    m_path += m_prefix.substr(separator == std::string::npos ? 0 : separator + 1);
    return true;
}

std::string log_names::of(std::int32_t process, int attempt) const {
    std::string text = ".";
    text += std::to_string(process);
    if (attempt > 1)
        (text += '.') += std::to_string(attempt);
    return text += suffix_of(m_kind);
}

std::vector<std::string> log_names::memchecks_of_children() const {
    std::vector<std::string> found;
    const std::string folder = m_path.substr(0, last_separator(m_path) + 1);
    const std::string begin = memcheck().substr(folder.size()) + '.';
    for (const std::string& entry : names_in(folder))
        if (entry.starts_with(begin) && is_process_part(std::string_view(entry).substr(begin.size())))
            found.push_back(folder + entry);
    std::ranges::sort(found);
    return found;
}

bool log_names::clear(bool replaces_anything) const {
    // In whatever way an earlier run has compressed them.
    std::vector<std::string> found;
    const std::size_t separator = last_separator(m_path);
    const std::string folder = m_path.substr(0, separator + 1);
    const std::string name = m_path.substr(separator + 1);
    for (const std::string& entry : names_in(folder)) {
        std::string_view rest = entry;
        if (!rest.starts_with(name))
            continue;
        rest.remove_prefix(name.size());
        for (const std::string_view kind : {".mtrace", ".stacks", ".memcheck"}) {
            if (!rest.starts_with(kind))
                continue;
            std::string_view tail = rest.substr(kind.size());
            for (const std::string_view suffix : {".zst", ".gz"})
                if (tail.ends_with(suffix) && kind != ".memcheck")
                    tail.remove_suffix(suffix.size());
            const bool is_first = tail.empty();
            if (!is_first && (tail.front() != '.' || !is_process_part(tail.substr(1))))
                continue;
            const std::string path = folder + entry;
            const content what = kind == ".memcheck" ? content::log : content_of(path);
            if (what == content::no_file && is_first) {
                say(message::not_regular, {shown(path)});
                return false;
            }
            if (what == content::other && is_first && !replaces_anything) {
                say(message::not_a_log, {shown(path)});
                return false;
            }
            if (what == content::log || (is_first && replaces_anything))
                found.push_back(path);
        }
    }
    for (const std::string& each : found)
        if (const int reason = remove_file(each); reason != 0 && !is_missing(reason)) {
            say(message::cannot_create, {shown(each), reason_of(reason)});
            return false;
        }
    return true;
}

} // namespace qor::record
