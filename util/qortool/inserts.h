// Texts with inserts, for programs that also work without libqor.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

// Puts the inserts into the places {1} to {9} of a text.
inline std::string with_inserts(std::string_view text, std::initializer_list<std::string> inserts) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::size_t insert = at + 2 < text.size() && text[at] == '{' && text[at + 2] == '}'
                                       ? static_cast<std::size_t>(text[at + 1] - '1')
                                       : inserts.size();
        if (insert >= inserts.size()) {
            result += text[at];
            continue;
        }
        result += inserts.begin()[insert];
        at += 2;
    }
    return result;
}
