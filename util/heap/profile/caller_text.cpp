#include "caller_text.h"

#include <charconv>

namespace qor::heap {

namespace {

std::optional<uint64> hexadecimal(std::string_view text) noexcept {
    uint64 value = 0;
    if (text.starts_with("0x"))
        text.remove_prefix(2);
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return fault == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

} // namespace

std::optional<caller_place> place_in_caller(std::string_view caller) noexcept {
    const std::size_t bracket = caller.rfind('[');
    if (bracket == caller.npos || !caller.ends_with(']'))
        return {};
    std::string_view path = caller.substr(0, bracket);
    std::optional<uint64> address = hexadecimal(caller.substr(bracket + 1, caller.size() - bracket - 2));
    if (path.ends_with(')')) {
        const std::size_t round = path.rfind('(');
        if (round == path.npos)
            return {};
        const std::string_view inner = path.substr(round + 1, path.size() - round - 2);
        path = path.substr(0, round);
        if (!path.ends_with(':')) {
            if (!inner.starts_with('+'))
                return {};
            address = hexadecimal(inner.substr(1));
        }
    } else if (!path.ends_with(':')) {
        return {};
    }
    if (path.ends_with(':'))
        path.remove_suffix(1);
    if (path.empty() || !address)
        return {};
    return caller_place{path, *address};
}

} // namespace qor::heap
