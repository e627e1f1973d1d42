// Inside tracing: patterns for names. `*` stands for any bytes, including none. Every other byte stands for itself; a
// star cannot be escaped. Patterns may come from strangers, who can also influence names, so a match must be cheap: it
// takes at most twice as many comparisons as the name has bytes.
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

    // The same with the caller's comparison.
    template <class SAME>
    bool matches(std::string_view name, SAME same) const noexcept;

    // Returns whether this pattern matches everything that the other one matches. It does if it matches the other's
    // text, with its stars taken literally.
    bool covers(const trace_pattern& other) const noexcept { return matches(other.m_text); }

private:
    // A literal text between two stars. `shorter` is the failure function of the Knuth-Morris-Pratt algorithm: if a
    // byte differs after i matching bytes, shorter[i] of them still match.
    struct piece {
        std::string text;
        std::vector<uint32> shorter;
    };

    std::string m_text;
    std::string m_first, m_last; // before the first star and after the last one; without a star, m_first is everything
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
    // Match each piece at its first occurrence, which leaves the most bytes for the following ones.
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
