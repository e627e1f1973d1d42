// Strings: splitting into words and fields.
#include "string/array_data.h"
#include "string/string_data.h"

#include <algorithm>

using qor::string::assign;
using qor::string::view;

namespace {

// Returns the first word at or after `at` and moves `at` behind it; empty if there is no word.
std::string_view next_word(std::string_view text, std::size_t& at) noexcept {
    while (at < text.size() && qor::string::is_white_space(text[at]))
        ++at;
    const std::size_t begin = at;
    while (at < text.size() && !qor::string::is_white_space(text[at]))
        ++at;
    return text.substr(begin, at - begin);
}

void add(qorStringArray& out, std::string_view text) noexcept {
    qor::glue::qorStringArray_Append(&out, text.data(), static_cast<uint32>(text.size()));
}

} // namespace

bool qor::glue::qorString_Tokenise_WS(const qorString* self, qorStringArray& out) noexcept {
    if (qor::string::is_element(out, *self)) {
        const qorString copy(*self);
        return qorString_Tokenise_WS(&copy, out);
    }
    qor::string::restart(out);
    std::size_t at = 0;
    for (std::string_view word; !(word = next_word(view(*self), at)).empty();)
        add(out, word);
    return true;
}

bool qor::glue::qorString_TokeniseAtByte(const qorString* self, char byte, qorStringArray& out) noexcept {
    if (qor::string::is_element(out, *self)) {
        const qorString copy(*self);
        return qorString_TokeniseAtByte(&copy, byte, out);
    }
    qor::string::restart(out);
    std::string_view rest = view(*self);
    if (rest.empty())
        return true;
    for (std::size_t end; (end = rest.find(byte)) != rest.npos; rest.remove_prefix(end + 1))
        add(out, rest.substr(0, end));
    add(out, rest);
    return true;
}

bool qor::glue::qorString_SplitAtByte(const qorString* self, char byte, qorString& left, qorString& right) noexcept {
    const std::string_view text = view(*self);
    const std::size_t found = text.find(byte);
    const std::string_view head = text.substr(0, found);
    const std::string_view tail = text.substr(found == text.npos ? text.size() : found + 1);
    // If one of the outputs is the string itself, assign it last, because the other one is still read from the string.
    if (&right == self) {
        assign(left, head);
        assign(right, tail);
    } else {
        assign(right, tail);
        assign(left, head);
    }
    return found != text.npos;
}

bool qor::glue::qorString_ExtractFirstToken_WS(qorString* self, qorString& token) noexcept {
    const std::string_view text = view(*self);
    std::size_t end = 0;
    const std::string_view word = next_word(text, end);
    const bool found = !word.empty();
    std::size_t rest = end;
    while (rest < text.size() && qor::string::is_white_space(text[rest]))
        ++rest;
    assign(token, word);
    if (&token != self)
        assign(*self, text.substr(rest));
    return found;
}
