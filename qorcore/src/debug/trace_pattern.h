// Inside tracing: names with `*`, which stands for any bytes, also for none. Every other byte stands for itself, and
// nothing takes a star's meaning away. Strangers may give both patterns and, by what they make a process do, names: a
// match takes no more comparisons than twice the bytes of the name.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::debug {

class trace_pattern {
public:
    explicit trace_pattern(std::string_view text);

    const std::string& text() const noexcept { return m_text; }
    bool has_star() const noexcept { return m_has_star; }

    bool matches(std::string_view name) const noexcept {
        return matches(name, [](char one, char other) { return one == other; });
    }

    // With a comparison of the caller's.
    template <class SAME>
    bool matches(std::string_view name, SAME same) const noexcept;

    // Whether it matches all that the other one does: a pattern that matches the other's text, stars as they stand,
    // does.
    bool covers(const trace_pattern& other) const noexcept { return matches(other.m_text); }

private:
    // A text between two stars, which may begin anywhere. After as many bytes of it as its index tells, a byte that
    // differs makes it go on with `shorter` bytes found: the longest beginning of it that is an end of what was found.
    struct piece {
        std::string text;
        std::vector<uint32> shorter;
    };

    std::string m_text;
    std::string m_first, m_last; // before the first star and behind the last one; without a star all is the first
    std::vector<piece> m_pieces;
    std::size_t m_least = 0; // bytes that are not stars
    bool m_has_star = false;
};

template <class SAME>
bool trace_pattern::matches(std::string_view name, SAME same) const noexcept {
    if (name.size() < m_least || (!m_has_star && name.size() != m_least))
        return false;
    for (std::size_t i = 0; i < m_first.size(); ++i)
        if (!same(m_first[i], name[i]))
            return false;
    const std::size_t end = name.size() - m_last.size();
    for (std::size_t i = 0; i < m_last.size(); ++i)
        if (!same(m_last[i], name[end + i]))
            return false;
    // Each piece where it comes first: that leaves most for those behind it.
    std::size_t at = m_first.size();
    for (const piece& each : m_pieces) {
        std::size_t found = 0;
        while (found < each.text.size()) {
            if (at == end)
                return false;
            if (same(each.text[found], name[at])) {
                ++found;
                ++at;
            } else if (found == 0) {
                ++at;
            } else {
                found = each.shorter[found];
            }
        }
    }
    return true;
}

} // namespace qor::debug
