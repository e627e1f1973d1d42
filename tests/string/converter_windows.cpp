#include "converter.h"

#include <cstring>
#include <windows.h>

// The system converts between UTF-8 and UTF-16; the step between UTF-16 and UTF-32 is simple.

namespace {

// Surrogates come in pairs here, because the system has checked or written them.
std::string utf32_of(const std::wstring& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t character = text[i];
        if (character >= 0xd800 && character <= 0xdbff)
            character = 0x10000 + ((character - 0xd800) << 10) + (text[++i] - 0xdc00u);
        out.append(reinterpret_cast<const char*>(&character), sizeof character);
    }
    return out;
}

std::wstring utf16_of(const std::string& text) {
    std::wstring out;
    for (std::size_t at = 0; at < text.size(); at += sizeof(char32_t)) {
        char32_t character;
        std::memcpy(&character, text.data() + at, sizeof character);
        if (character >= 0x10000) {
            out += static_cast<wchar_t>(0xd800 + ((character - 0x10000) >> 10));
            character = 0xdc00 + ((character - 0x10000) & 0x3ff);
        }
        out += static_cast<wchar_t>(character);
    }
    return out;
}

} // namespace

bool qor::test::utf8_to_utf32(const std::string& in, std::string& out) {
    out.clear();
    if (in.empty())
        return true;
    std::wstring wide(in.size(), L'\0');
    wide.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, in.data(),
                                                             static_cast<int>(in.size()), wide.data(),
                                                             static_cast<int>(wide.size()))));
    out = utf32_of(wide);
    return !wide.empty();
}

bool qor::test::utf32_to_utf8(const std::string& in, std::string& out) {
    const std::wstring wide = utf16_of(in);
    out.assign(wide.size() * 3, '\0');
    out.resize(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(),
                                                            static_cast<int>(wide.size()), out.data(),
                                                            static_cast<int>(out.size()), nullptr, nullptr)));
    return !out.empty();
}

bool qor::test::utf32_to_utf16(const std::string& in, std::string& out) {
    const std::wstring wide = utf16_of(in);
    out.assign(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t));
    return true;
}
