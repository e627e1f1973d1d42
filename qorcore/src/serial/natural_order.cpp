#include "serial/natural_order.h"

#include <algorithm>

namespace {

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

// Removes a number from the front of the text and returns it without leading zeros, so that the longer of two numbers
// is the greater one.
std::string_view take_number(std::string_view& text) noexcept {
    const auto end = std::find_if_not(text.begin(), text.end(), is_digit);
    std::string_view number(text.begin(), end);
    text.remove_prefix(number.size());
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    return number;
}

} // namespace

bool qor::serial::comes_before(std::string_view left, std::string_view right) noexcept {
    std::string_view a = left;
    std::string_view b = right;
    while (!a.empty() && !b.empty()) {
        if (is_digit(a[0]) && is_digit(b[0])) {
            const std::string_view m = take_number(a);
            const std::string_view n = take_number(b);
            if (m != n)
                return m.size() != n.size() ? m.size() < n.size() : m < n;
        } else if (a[0] != b[0]) {
            return static_cast<unsigned char>(a[0]) < static_cast<unsigned char>(b[0]);
        } else {
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
    }
    // "COM01" and "COM1" differ only in their zeros.
    return a.empty() && b.empty() ? left < right : a.empty();
}
