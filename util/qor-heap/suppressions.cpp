#include "suppressions.h"

#include <algorithm>
#include <charconv>

namespace qor::heap_tool {

constexpr std::string_view built_in_suppressions =
    R"(# What the system's libraries keep to the end of a process.

# libstdc++: the pool for exceptions that are thrown when memory is exhausted.
innermost object */libstdc++.so.6* size 72704
innermost object */libstdc++.so.6* size 73728
innermost function "*(anonymous namespace)::pool::*" size 72704
innermost function *_GLOBAL__sub_I_eh_alloc.cc* size 72704
function __do_global_ctors size 74752

# The loader: its lists of libraries, and the storage of threads.
innermost object */ld-linux*.so.*
innermost object */ld-2.*.so

# stdio: the buffers of the standard streams.
innermost function *_IO_file_doallocate
)";

namespace {

// The next word; one in quotation marks may hold blanks. Empty at the end of the line.
std::string_view next_word(std::string_view& rest) noexcept {
    const std::size_t begin = rest.find_first_not_of(" \t\r");
    if (begin == rest.npos || rest[begin] == '#') {
        rest = {};
        return {};
    }
    rest.remove_prefix(begin);
    const bool is_quoted = rest.front() == '"';
    if (is_quoted)
        rest.remove_prefix(1);
    std::size_t end = is_quoted ? rest.find('"') : rest.find_first_of(" \t\r");
    if (end == rest.npos)
        end = rest.size();
    const std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end == rest.size() ? end : end + 1);
    return word;
}

} // namespace

bool matches_pattern(std::string_view text, std::string_view pattern) noexcept {
    std::size_t t = 0, p = 0, star = pattern.npos, after_star = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            after_star = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != pattern.npos) {
            p = star + 1;
            t = ++after_star;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

bool suppressions::parse(std::string_view line, rule& out) {
    bool has_condition = false;
    for (std::string_view word = next_word(line); !word.empty(); word = next_word(line)) {
        if (word == "innermost") {
            out.is_innermost = true;
            continue;
        }
        const std::string_view value = next_word(line);
        if (value.empty())
            return false;
        if (word == "function") {
            out.function = value;
        } else if (word == "object") {
            out.object = value;
        } else if (word == "file") {
            out.file = value;
        } else if (word == "size") {
            const auto [end, fault] = std::from_chars(value.data(), value.data() + value.size(), out.size);
            if (fault != std::errc() || end != value.data() + value.size() || out.size == 0)
                return false;
        } else {
            return false;
        }
        has_condition = true;
    }
    return has_condition;
}

std::size_t suppressions::add(std::string_view text) {
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        std::string_view rest = line;
        if (next_word(rest).empty())
            continue;
        rule read;
        if (!parse(line, read))
            return number;
        m_rules.push_back(std::move(read));
    }
    return 0;
}

bool suppressions::matches(const rule& wanted, const named_profile& in, const named_profile::function& frame) {
    const auto fits = [&](const std::string& pattern, uint32 text) {
        return pattern.empty() || matches_pattern(in.text(text), pattern);
    };
    return fits(wanted.function, frame.name) && fits(wanted.object, frame.module) && fits(wanted.file, frame.file);
}

bool suppressions::matches(const named_profile& in, const heap::profile::place& place) const {
    if (m_rules.empty())
        return false;
    const std::vector<named_profile::function> stack =
        in.stack(place, std::ranges::all_of(m_rules, &rule::is_innermost) ? 1 : named_profile::all_frames);
    for (const rule& each : m_rules) {
        if (each.size != 0 && place.live.bytes != each.size * place.live.blocks)
            continue;
        for (const named_profile::function& frame : stack) {
            if (matches(each, in, frame))
                return true;
            if (each.is_innermost)
                break;
        }
    }
    return false;
}

} // namespace qor::heap_tool
