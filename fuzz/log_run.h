// For the targets of both grammars: a run of lines through the analyser's parser and through the plain one.
#pragma once

#include "heap/log/log_fields.h"
#include "heap/log/log_lines.h"
#include "plain_log.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace log_run {

namespace log_fields = qor::heap::log_fields;
namespace log_lines = qor::heap::log_lines;

inline void require(bool agreed) {
    if (!agreed)
        std::abort();
}

// Every line of the text the way the analyser takes it and, once more, by the general parser alone. `same(a,
// b)` compares the fields of two records, `kept(text, entry, b)` what a batch keeps of one.
template <class LINE, class PLAIN, class SAME, class KEPT>
void compare(const std::string& text, SAME same, KEPT kept) {
    // As ReadLines hands it out, of just its size.
    const std::string ended = text.empty() || text.back() == '\n' ? text : text + '\n';
    std::vector<char> run(ended.begin(), ended.end());
    run.resize(run.size() + qorReadLinesPadding);
    const char* next = run.data();
    const char* const end = next + ended.size();
    for (const std::string& plain_line : plain_log::lines(text)) {
        PLAIN expected;
        const auto expected_kind = static_cast<int>(plain_log::parse(plain_line, expected));
        const bool is_record = expected_kind == static_cast<int>(plain_log::kind::record);
        LINE canonical;
        const char* behind = next;
        const bool is_canonical = log_lines::parse_canonical(behind, canonical);
        std::string_view line;
        require(log_fields::next_line(next, end, line) && line == plain_line);
        if (is_canonical)
            require(behind == next && is_record && same(canonical, expected));
        LINE any;
        require(static_cast<int>(log_lines::parse(line, any)) == expected_kind);
        if (is_record)
            require(same(any, expected));
    }
    require(next == end);

    // All of them at once, so many at a time that the text is not the limit.
    next = run.data();
    std::vector<log_lines::entry<LINE>> entries(3);
    const char* behind = run.data();
    uint32 count = 0;
    uint32 at = 0;
    for (const std::string& plain_line : plain_log::lines(text)) {
        PLAIN expected;
        const auto expected_kind = static_cast<int>(plain_log::parse(plain_line, expected));
        std::string_view line;
        log_fields::next_line(next, end, line);
        if (expected_kind == static_cast<int>(plain_log::kind::no_meaning))
            continue;
        if (at == count) {
            count = log_lines::parse_lines<LINE>(run.data(), behind, end, entries.data(), 3);
            at = 0;
            require(count != 0);
        }
        const auto& each = entries[at++];
        require(static_cast<int>(each.kind) == expected_kind && run.data() + each.end == next);
        if (expected_kind == static_cast<int>(plain_log::kind::record))
            require(kept(run.data(), each, expected));
    }
    require(at == count && log_lines::parse_lines<LINE>(run.data(), behind, end, entries.data(), 3) == 0 &&
            behind == end);
}

} // namespace log_run
