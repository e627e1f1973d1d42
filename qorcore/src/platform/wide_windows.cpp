// UTF-8 from and to the system's UTF-16.
#include "platform/wide_windows.h"

#include "qor/glue/wide_path_windows.h"

#include <windows.h>

namespace {

bool is_high(wchar_t unit) noexcept { return unit >= 0xd800 && unit < 0xdc00; }
bool is_low(wchar_t unit) noexcept { return unit >= 0xdc00 && unit < 0xe000; }

void add_utf8(unsigned long character, std::string& out) {
    const auto add = [&](unsigned shift, unsigned mark) {
        out += static_cast<char>(mark | ((character >> shift) & (mark == 0x80 ? 0x3f : 0x7f)));
    };
    if (character < 0x80) {
        out += static_cast<char>(character);
        return;
    }
    if (character < 0x800) {
        add(6, 0xc0);
    } else {
        if (character < 0x10000) {
            add(12, 0xe0);
        } else {
            add(18, 0xf0);
            add(12, 0x80);
        }
        add(6, 0x80);
    }
    add(0, 0x80);
}

// Returns where the three bytes of a single surrogate begin, or npos.
std::size_t find_surrogate(std::string_view text) noexcept {
    for (std::size_t i = 0; i + 2 < text.size(); ++i)
        if (text[i] == '\xed' && (text[i + 1] & 0xe0) == 0xa0 && (text[i + 2] & 0xc0) == 0x80)
            return i;
    return text.npos;
}

// The reverse of name_from_wide().
bool name_to_wide(std::string_view text, std::wstring& out) {
    out.clear();
    std::wstring piece;
    for (;;) {
        const std::size_t at = find_surrogate(text);
        if (!qor::platform::to_wide(text.substr(0, at), piece))
            return false;
        out += piece;
        if (at == text.npos)
            return true;
        out += static_cast<wchar_t>(0xd000 | ((text[at + 1] & 0x3f) << 6) | (text[at + 2] & 0x3f));
        text.remove_prefix(at + 3);
    }
}

} // namespace

bool qor::platform::to_wide(std::string_view text, std::wstring& out) {
    out.clear();
    if (text.empty())
        return true;
    if (text.find('\0') != text.npos)
        return false;
    // A character takes at most as many units in UTF-16 as bytes in UTF-8.
    out.resize(text.size());
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                                           out.data(), static_cast<int>(out.size()));
    out.resize(static_cast<std::size_t>(length));
    return length != 0;
}

std::string qor::platform::from_wide(std::wstring_view text) {
    // A unit of UTF-16 takes at most three bytes in UTF-8.
    std::string out(text.size() * 3, '\0');
    const int length = text.empty() ? 0
                                    : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::string qor::platform::name_from_wide(std::wstring_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        unsigned long character = name[i];
        if (is_high(name[i]) && i + 1 < name.size() && is_low(name[i + 1]))
            character = 0x10000 + ((character - 0xd800) << 10) + (name[++i] - 0xdc00ul);
        add_utf8(character, out);
    }
    return out;
}

bool qor::platform::to_wide_path(std::string_view path, std::wstring& out) {
    if (!name_to_wide(path, out))
        return false;
    glue::lift_path_limit(out);
    return true;
}
