// Inside the library: the inserts in the text of a message.
#pragma once

#include <cstddef>
#include <string_view>

namespace qor::catalog {

inline constexpr std::size_t max_inserts = 10;

struct insert {
    std::size_t number; // 1 to 10
    std::size_t length; // in the text, including the braces; 0 if there is no insert
};

// Returns the insert at the beginning of `text`: exactly "{1}" to "{10}".
constexpr insert leading_insert(std::string_view text) noexcept {
    if (text.starts_with("{10}"))
        return {10, 4};
    if (text.size() >= 3 && text[0] == '{' && text[1] >= '1' && text[1] <= '9' && text[2] == '}')
        return {static_cast<std::size_t>(text[1] - '0'), 3};
    return {0, 0};
}

} // namespace qor::catalog
