// The files of a recording, by their names and first bytes.
#include "heap/log/file_bytes.h"
#include "heap/log/file_kind.h"
#include "heap/log/stacks_log.h"
#include "message_names.h"
#include "recording.h"
#include "regular_file.h"
#include "terminal.h"
#include "text.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace qor::heap_tool {

namespace message = qor::messages::heap;
namespace tool = qor::messages::tool;

namespace {

enum class log_kind : uint8 { unknown, mtrace, memcheck, stacks };

bool is_regular(const std::string& path) { return size_of_regular_file(path).has_value(); }

// A pipe is not read yet: its beginning could not be read again.
log_kind kind_of(const std::string& path) {
    if (!is_regular(path))
        return log_kind::unknown;
    heap::file_bytes file;
    if (!file.open(path.c_str()))
        return log_kind::unknown;
    std::string beginning(4096, '\0');
    std::size_t size = 0;
    while (const std::size_t count = file.read(beginning.data() + size, beginning.size() - size))
        size += count;
    beginning.resize(size);
    if (beginning.starts_with("QORSTK"))
        return log_kind::stacks;
    switch (heap::guess_file_kind(beginning).kind) {
    case heap::file_kind::mtrace_log:
        return log_kind::mtrace;
    case heap::file_kind::memcheck_log:
        return log_kind::memcheck;
    default:
        return log_kind::unknown;
    }
}

std::string_view without_compression(std::string_view path) {
    for (const std::string_view suffix : {".gz", ".zst"})
        if (path.ends_with(suffix))
            path.remove_suffix(suffix.size());
    return path;
}

// PREFIX.mtrace.12 is PREFIX.stacks.12; empty if the name has no such part.
std::string renamed(std::string_view path, std::string_view from, std::string_view to) {
    const std::size_t folder = path.find_last_of("/\\") + 1;
    const std::size_t at = path.rfind(from);
    if (at == path.npos || at < folder)
        return {};
    return std::string(path.substr(0, at)).append(to).append(path.substr(at + from.size()));
}

std::string find_stacks(const std::string& log) {
    std::string same = renamed(log, ".mtrace", ".stacks");
    if (same.empty() || is_regular(same))
        return same;
    const std::string plain = renamed(without_compression(log), ".mtrace", ".stacks");
    for (const char* const suffix : {"", ".zst", ".gz"})
        if (is_regular(plain + suffix))
            return plain + suffix;
    return {};
}

bool belongs_to(const std::string& memcheck, const std::string& log) {
    return renamed(without_compression(memcheck), ".memcheck", ".mtrace") == without_compression(log);
}

// The blocks that a child inherited are in the log of its parent.
void look_at_parents(std::vector<process_logs>& sorted) {
    std::vector<std::pair<uint64, uint64>> processes;
    for (const process_logs& each : sorted) {
        heap::stacks_log stacks;
        const bool is_open = !each.stacks.empty() && stacks.open(each.stacks.c_str());
        processes.emplace_back(is_open ? stacks.of().pid : 0, is_open ? stacks.of().parent : 0);
    }
    for (std::size_t i = 0; i < sorted.size(); ++i)
        sorted[i].leaves_out_inherited =
            processes[i].second != 0 &&
            std::ranges::any_of(processes, [&](const auto& each) { return each.first == processes[i].second; });
}

void join_memchecks(const std::vector<std::string>& memchecks, std::vector<process_logs>& sorted) {
    const std::size_t logs = sorted.size();
    for (const std::string& memcheck : memchecks) {
        const auto begin = sorted.begin(), end = sorted.begin() + static_cast<std::ptrdiff_t>(logs);
        auto found = std::find_if(begin, end, [&](const process_logs& each) {
            return each.memcheck.empty() && belongs_to(memcheck, each.log);
        });
        if (found == end && logs == 1 && memchecks.size() == 1)
            found = begin;
        if (found != end)
            found->memcheck = memcheck;
        else
            sorted.push_back({.log = memcheck});
    }
}

// The name for the kind of a file that is no log, in the user's language.
std::string name_of(const heap::file_guess& found) {
    const auto number = [&]() -> uint32 {
        switch (found.kind) {
        case heap::file_kind::elf:
            return tool::looks_like_elf;
        case heap::file_kind::compressed:
            return tool::looks_compressed;
        case heap::file_kind::html:
            return tool::looks_like_html;
        case heap::file_kind::utf_16:
            return tool::looks_like_utf16;
        case heap::file_kind::zero_bytes:
            return tool::looks_zeroed;
        case heap::file_kind::blank_lines:
            return tool::looks_blank;
        case heap::file_kind::text:
            return tool::looks_like_other_text;
        default:
            return tool::looks_binary;
        }
    }();
    qorString name;
    name.Format(tool::catalog, number, found.compressor);
    return name.Text();
}

} // namespace

int sort_logs(const std::vector<std::string>& files, std::vector<process_logs>& sorted) {
    std::vector<std::string> memchecks, stacks;
    for (const std::string& each : files) {
        const log_kind kind = kind_of(each);
        if (kind == log_kind::memcheck)
            memchecks.push_back(each);
        else if (kind == log_kind::stacks)
            stacks.push_back(each);
        else
            sorted.push_back({.log = each, .stacks = find_stacks(each)});
    }
    // A pattern of names takes in the files of stacks, too.
    for (const std::string& each : stacks) {
        const bool is_known =
            std::ranges::any_of(sorted, [&](const process_logs& logs) { return logs.stacks == each; });
        if (!is_known && sorted.size() == 1 && sorted.front().stacks.empty()) {
            sorted.front().stacks = each;
        } else if (!is_known) {
            say(message::stacks_without_log, {each});
            return exit_failure;
        }
    }
    join_memchecks(memchecks, sorted);
    if (sorted.size() > 1)
        look_at_parents(sorted);
    return no_exit_code;
}

bool open_logs(const process_logs& logs, heap::profile_builder& builder) {
    using opened = heap::profile_builder::engine::opened;
    std::string beginning;
    const opened found = builder.open(logs.log == "-" ? standard_input() : logs.log, beginning);
    if (found == opened::neither && !beginning.empty()) {
        say(message::not_a_log, {logs.log, name_of(heap::guess_file_kind(beginning))});
        return false;
    }
    qorString reason;
    if (found == opened::failed || (found == opened::neither && qorGetLastError(reason) != qorError_none)) {
        fputerr(stderr, true);
        return false;
    }
    if (found == opened::neither) {
        say(message::empty_log, {logs.log});
        return false;
    }
    if (found == opened::mtrace && !logs.memcheck.empty() && !builder.open_memcheck(logs.memcheck)) {
        fputerr(stderr, true);
        return false;
    }
    if (found == opened::mtrace && !logs.stacks.empty() && !builder.open_stacks(logs.stacks))
        say(message::no_stacks, {logs.stacks});
    return true;
}

} // namespace qor::heap_tool
