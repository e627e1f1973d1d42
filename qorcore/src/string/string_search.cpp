// Strings: comparison and searching.
#include "string/string_data.h"
#include "string/unicode.h"

#include <algorithm>

using qor::string::view;

namespace {

int32 position(std::size_t found) noexcept { return found == std::string_view::npos ? -1 : static_cast<int32>(found); }

// The position where a reverse search begins.
std::size_t from(int32 start) noexcept { return start < 0 ? std::string_view::npos : static_cast<std::size_t>(start); }

// The bytes of a character. UTF-8 is self-synchronizing: the bytes of a character never begin inside another one, so a
// byte search finds characters, even in a text with invalid parts. Empty if the value is not a character.
class encoded {
public:
    explicit encoded(uint32 character) noexcept : m_size(qor::string::encode(character, m_bytes)) {}
    bool is_valid() const noexcept { return m_size != 0; }
    std::string_view bytes() const noexcept { return {m_bytes, m_size}; }

private:
    char m_bytes[4];
    uint32 m_size;
};

} // namespace

int qor::string::compare_no_case(std::string_view left, std::string_view right) noexcept {
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i) {
        const int difference =
            static_cast<unsigned char>(to_lower(left[i])) - static_cast<unsigned char>(to_lower(right[i]));
        if (difference != 0)
            return difference;
    }
    return static_cast<int>(left.size() > common) - static_cast<int>(right.size() > common);
}

int qor::glue::qorString_Compare(const qorString* self, const char* text) noexcept {
    return qor::string::compare(view(*self), view(text));
}

int qor::glue::qorString_CompareN(const qorString* self, const char* text, uint32 count) noexcept {
    // Reads at most `count` bytes of the other text, which need not be terminated.
    std::size_t length = 0;
    while (text != nullptr && length < count && text[length] != '\0')
        ++length;
    return qor::string::compare(view(*self).substr(0, count), {text, length});
}

int qor::glue::qorString_CompareNoCase(const qorString* self, const char* text) noexcept {
    return qor::string::compare_no_case(view(*self), view(text));
}

int32 qor::glue::qorString_FindByte(const qorString* self, char byte, uint32 start) noexcept {
    return position(view(*self).find(byte, start));
}

int32 qor::glue::qorString_FindChar(const qorString* self, uint32 character, uint32 start) noexcept {
    const encoded sought(character);
    return sought.is_valid() ? position(view(*self).find(sought.bytes(), start)) : -1;
}

int32 qor::glue::qorString_FindString(const qorString* self, const char* text, uint32 start) noexcept {
    return position(view(*self).find(view(text), start));
}

int32 qor::glue::qorString_ReverseFindByte(const qorString* self, char byte, int32 start) noexcept {
    return position(view(*self).rfind(byte, from(start)));
}

int32 qor::glue::qorString_ReverseFindChar(const qorString* self, uint32 character, int32 start) noexcept {
    const encoded sought(character);
    return sought.is_valid() ? position(view(*self).rfind(sought.bytes(), from(start))) : -1;
}

int32 qor::glue::qorString_ReverseFindString(const qorString* self, const char* text, int32 start) noexcept {
    return position(view(*self).rfind(view(text), from(start)));
}
