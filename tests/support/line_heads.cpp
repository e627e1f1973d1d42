#include "support/line_heads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string_view>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Takes a piece of this form off the beginning; '0' stands for a digit.
bool take_form(std::string_view& text, std::string_view form) {
    const std::string_view piece = text.substr(0, form.size());
    const auto fits = [](char c, char wanted) { return wanted == '0' ? is_digit(c) : c == wanted; };
    if (!std::equal(piece.begin(), piece.end(), form.begin(), form.end(), fits))
        return false;
    text.remove_prefix(form.size());
    return true;
}

bool take_number(std::string_view& text) {
    const auto digits = static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_digit) - text.begin());
    text.remove_prefix(digits);
    return digits != 0;
}

} // namespace

std::vector<std::string> qor::test::bodies(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        std::string_view rest = line;
        const bool has_head = take_form(rest, "0000-00-00T00:00:00.000000Z ") && take_number(rest) &&
                              take_form(rest, ":") && take_number(rest) && take_form(rest, " ");
        EXPECT_TRUE(has_head) << line;
        result.emplace_back(has_head ? rest : std::string_view(line));
    }
    return result;
}
