// The framework's string: UTF-8 text with a length, and its operations.
//
// Positions, lengths and counts are in bytes. A text may contain NULs; operations that take a plain `const char*` read
// up to the first one. White space is that of the C locale: blank, `\t`, `\n`, `\v`, `\f`, `\r`. Case conversion and
// case-insensitive comparison only affect ASCII letters, in every locale. A string is not thread-safe; different
// strings may be used on different threads. If memory runs out, the process ends with a report.
#pragma once

#include "qor/glue/c_stream.h"
#include "qor/glue/impl_common.h"

#include <compare>
#include <concepts>
#include <cstring>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <version>
#ifdef __cpp_lib_format
#include <format>
#endif

namespace qor::glue {

// A text that knows its length: std::string_view, std::string and similar types. Plain C strings and qorString have
// separate overloads.
template <class VIEW>
concept sized_text =
    std::is_convertible_v<const VIEW&, std::string_view> && !std::is_convertible_v<const VIEW&, const char*>;

// Converts a length to the type that the table takes. A length beyond its range becomes the largest value; the library
// then refuses the text instead of truncating it.
inline uint32 counted_length(std::size_t length) noexcept {
    return length < 0xffffffff ? static_cast<uint32>(length) : 0xffffffff;
}

// Length -1 means up to the terminator. A null text counts as empty.
inline uint32 text_length(const char* text, int32 length) noexcept {
    if (text == nullptr)
        return 0;
    return length >= 0 ? static_cast<uint32>(length) : counted_length(std::strlen(text));
}

} // namespace qor::glue

#pragma push_macro("LoadString")
#undef LoadString // windows.h: see LoadStringA below

// A UTF-8 text that owns its storage. Copying copies the text; the content of a moved-from string is unspecified.
class qorString {
public:
    qorString() noexcept { qor::glue::qorString_Init(this, 0); }

    // Length -1 means up to the terminator. A null text counts as empty, here and everywhere.
    qorString(const char* text, int32 length = -1) noexcept {
        const uint32 count = qor::glue::text_length(text, length);
        qor::glue::qorString_Init(this, count);
        qor::glue::qorString_Set(this, text, count);
    }
    // Copies all bytes, including NULs.
    template <qor::glue::sized_text VIEW>
    explicit qorString(const VIEW& text) noexcept : qorString() {
        Set(text);
    }
    qorString(const qorString& other) noexcept {
        qor::glue::qorString_Init(this, other.m_data.length);
        qor::glue::qorString_Set(this, other.Text(), other.m_data.length);
    }
    qorString(qorString&& other) noexcept : m_data(std::exchange(other.m_data, {})) {}
    ~qorString() { qor::glue::qorString_Destroy(this); }

    qorString& operator=(const qorString& other) noexcept {
        qor::glue::qorString_Set(this, other.Text(), other.m_data.length);
        return *this;
    }
    qorString& operator=(qorString&& other) noexcept {
        std::swap(m_data, other.m_data);
        return *this;
    }
    // Becomes a copy of a text, up to its terminator or with the length of its view. The text may lie in the string
    // itself.
    qorString& operator=(const char* text) noexcept {
        Set(text, -1);
        return *this;
    }
    template <qor::glue::sized_text VIEW>
    qorString& operator=(const VIEW& text) noexcept {
        Set(text);
        return *this;
    }

    // The text, always terminated. Valid until the string changes.
    const char* Text() const noexcept { return m_data.text != nullptr ? m_data.text : ""; }

    // Converts to `const char*` and to std::string_view, and to nothing else. The operators are templates because the
    // compiler would convert further from a plain `operator const char*`: to bool, to `const void*` and in pointer
    // arithmetic; and std::less<> would compare addresses.
    template <std::same_as<const char*> TYPE>
    operator TYPE() const noexcept {
        return Text();
    }
    template <std::same_as<std::string_view> TYPE>
    operator TYPE() const noexcept {
        return {Text(), m_data.length};
    }

    // Deleted to avoid misuse: IsEmpty() tests for a text, and Append and Printf join texts.
    explicit operator bool() const = delete;
    template <class OTHER>
    friend void operator+(const qorString&, const OTHER&) = delete;
    template <class OTHER>
    requires(!std::same_as<OTHER, qorString>) friend void operator+(const OTHER&, const qorString&) = delete;
    template <class OTHER>
    friend void operator-(const qorString&, const OTHER&) = delete;
    template <class OTHER>
    requires(!std::same_as<OTHER, qorString>) friend void operator-(const OTHER&, const qorString&) = delete;

    // The length in bytes, without the terminator.
    uint32 Length() const noexcept { return m_data.length; }
    // Returns whether the length is 0.
    bool IsEmpty() const noexcept { return m_data.length == 0; }

    // Returns the byte at `index`. An index at or beyond the length is reported and yields a NUL.
    char operator[](int32 index) const noexcept {
        if (index >= static_cast<int32>(m_data.length)) [[unlikely]] {
            qor::glue::assert_failed("index < (int32)m_data.length", "char qorString::operator[](int32) const",
                                     qor::glue::common_file, 71);
            return '\0';
        }
        return index >= 0 ? m_data.text[index] : '\0';
    }

    // ---- assignment and change. The text may lie in the string itself. Empty keeps the storage.
    void Empty() noexcept { qor::glue::qorString_Set(this, "", 0); }
    void Reserve(uint32 capacity) noexcept { qor::glue::qorString_Reserve(this, capacity); }
    void Set(const char* text, int32 length = -1) noexcept {
        qor::glue::qorString_Set(this, text, qor::glue::text_length(text, length));
    }
    template <qor::glue::sized_text VIEW>
    void Set(const VIEW& text) noexcept {
        const std::string_view view(text);
        qor::glue::qorString_Set(this, view.data(), qor::glue::counted_length(view.size()));
    }
    void Append(const char* text, int32 length = -1) noexcept {
        qor::glue::qorString_Append(this, text, qor::glue::text_length(text, length));
    }
    template <qor::glue::sized_text VIEW>
    void Append(const VIEW& text) noexcept {
        const std::string_view view(text);
        qor::glue::qorString_Append(this, view.data(), qor::glue::counted_length(view.size()));
    }
    void AppendString(const qorString& other) noexcept {
        qor::glue::qorString_Append(this, other.Text(), other.m_data.length);
    }
    void AppendByte(char last) noexcept { qor::glue::qorString_Append(this, &last, 1); }
    // An index beyond the end means the end.
    void Insert(uint32 index, const char* text, int32 length = -1) noexcept {
        qor::glue::qorString_Insert(this, index, text, qor::glue::text_length(text, length));
    }
    // The range is cut at the end of the text.
    void Remove(uint32 index, uint32 count) noexcept { qor::glue::qorString_Remove(this, index, count); }

    // LockBuffer returns a buffer of `size` bytes and a terminator; it begins with the present text. The string must
    // not be used until UnlockBuffer sets the new length (-1: up to the first NUL in the buffer).
    [[nodiscard]] char* LockBuffer(uint32 size) noexcept { return qor::glue::qorString_LockBuffer(this, size); }
    void UnlockBuffer(int32 length = -1) noexcept { qor::glue::qorString_UnlockBuffer(this, length); }

    // ---- comparison: negative, zero or positive, by unsigned bytes. Case-sensitive unless the name says otherwise;
    // without case, letters compare as lower case. CompareN compares at most the first `count` bytes of both.
    int Compare(const char* text) const noexcept { return qor::glue::qorString_Compare(this, text); }
    int CompareN(const char* text, uint32 count) const noexcept {
        return qor::glue::qorString_CompareN(this, text, count);
    }
    int CompareNoCase(const char* text) const noexcept { return qor::glue::qorString_CompareNoCase(this, text); }

    // ---- searching: returns the position, or -1. The forward functions search from `start` on. The reverse functions
    // search from `start` backwards; -1 means the end. A character is a Unicode code point; an invalid one is never
    // found. An empty text is found at `start`.
    int32 FindByte(char sought, uint32 start = 0) const noexcept {
        return qor::glue::qorString_FindByte(this, sought, start);
    }
    int32 FindChar(uint32 character, uint32 start = 0) const noexcept {
        return qor::glue::qorString_FindChar(this, character, start);
    }
    int32 FindString(const char* text, uint32 start = 0) const noexcept {
        return qor::glue::qorString_FindString(this, text, start);
    }
    int32 ReverseFindByte(char sought, int32 start = -1) const noexcept {
        return qor::glue::qorString_ReverseFindByte(this, sought, start);
    }
    int32 ReverseFindChar(uint32 character, int32 start = -1) const noexcept {
        return qor::glue::qorString_ReverseFindChar(this, character, start);
    }
    int32 ReverseFindString(const char* text, int32 start = -1) const noexcept {
        return qor::glue::qorString_ReverseFindString(this, text, start);
    }

    // ---- slicing. Ranges are cut at the end of the text; a count of -1 means up to the end. The Get functions write
    // into `out`, which may be the string itself; the Set functions keep only that part of the string.
    void GetLeft(qorString& out, uint32 count) const noexcept { GetMid(out, 0, clamp(count)); }
    void GetMid(qorString& out, uint32 start, int32 count) const noexcept {
        qor::glue::qorString_GetMid(this, out, start, count);
    }
    void GetRight(qorString& out, uint32 count) const noexcept { qor::glue::qorString_GetRight(this, out, count); }
    qorString Left(uint32 count) const noexcept { return Mid(0, clamp(count)); }
    qorString Mid(uint32 start, int32 count = -1) const noexcept {
        qorString part;
        GetMid(part, start, count);
        return part;
    }
    qorString Right(uint32 count) const noexcept {
        qorString part;
        GetRight(part, count);
        return part;
    }
    void SetLeft(uint32 count) noexcept { GetLeft(*this, count); }
    void SetMid(uint32 start, int32 count) noexcept { GetMid(*this, start, count); }
    void SetRight(uint32 count) noexcept { GetRight(*this, count); }

    // ---- case and trimming
    void ToUpper() noexcept { qor::glue::qorString_ToUpper(this); }
    void ToLower() noexcept { qor::glue::qorString_ToLower(this); }
    void TrimLeft() noexcept { qor::glue::qorString_TrimLeft(this); }
    void TrimRight() noexcept { qor::glue::qorString_TrimRight(this); }
    void TrimBoth() noexcept { qor::glue::qorString_TrimBoth(this); }

    // ---- splitting. The elements of the array are replaced. Tokenise_WS and TokeniseAtByte always return true so far;
    // false is reserved for failures.
    bool Tokenise_WS(qorStringArray& out) const noexcept { return qor::glue::qorString_Tokenise_WS(this, out); }
    // n separators make n + 1 fields. An empty string makes no fields.
    bool TokeniseAtByte(char separator, qorStringArray& out) const noexcept {
        return qor::glue::qorString_TokeniseAtByte(this, separator, out);
    }
    // Splits at the first separator, which belongs to neither part. Returns false if it does not occur; then `left` is
    // the whole text and `right` is empty. One of the parts may be the string itself.
    bool SplitAtByte(char separator, qorString& left, qorString& right) const noexcept {
        return qor::glue::qorString_SplitAtByte(this, separator, left, right);
    }
    // Removes the first word and the white space around it from the string. Returns false if there is no word; both
    // strings are then empty. If `token` is the string itself, it becomes the word.
    bool ExtractFirstToken_WS(qorString& token) noexcept {
        return qor::glue::qorString_ExtractFirstToken_WS(this, token);
    }

    // ---- parts of a file name: "dir/archive.tar.gz" splits into "dir/", "archive.tar" and "gz". Leading dots
    // (".profile", "..") begin no extension. Each result may be the string itself. On Windows, '\\' and the ':' of a
    // drive separate folders, too.
    void FileName(qorString& out) const noexcept { qor::glue::qorString_FileName(this, out); }
    void FilePath(qorString& out) const noexcept { qor::glue::qorString_FilePath(this, out); }
    void FileExtension(qorString& out) const noexcept { qor::glue::qorString_FileExtension(this, out); }
    void FileNameAndExt(qorString& out) const noexcept { qor::glue::qorString_FileNameAndExt(this, out); }
    void FileSplitName(qorString& path, qorString& name, qorString& extension) const noexcept {
        qor::glue::qorString_FileSplitName(this, path, name, extension);
    }

    // ---- formatting
    void Printf(const char* format, ...) noexcept QOR_PRINTF(2, 3) {
        std::va_list arguments;
        va_start(arguments, format);
        qor::glue::qorString_PrintV(this, format, arguments);
        va_end(arguments);
    }
    // Arguments may lie in the string itself. The string becomes empty if the C library rejects the format.
    void PrintV(const char* format, std::va_list arguments) noexcept {
        qor::glue::qorString_PrintV(this, format, arguments);
    }
    void FormatInteger(int64 value) noexcept { qor::glue::qorString_FormatInteger(this, value); }
    // Bases 2 to 36, digits above 9 in lower case. The string becomes empty for any other base.
    void FormatUnsigned(uint64 value, uint32 base = 10) noexcept {
        qor::glue::qorString_FormatUnsigned(this, value, base);
    }

    // Messages of a catalog, in the best available language. Inserts appear in a text as {1} to {10}; a missing insert
    // is empty. Returns false and leaves the string empty if there is no such message.
    bool Format(const char* catalog, uint32 number, const char* a1 = nullptr, const char* a2 = nullptr,
                const char* a3 = nullptr, const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                const char* a10 = nullptr) noexcept {
        const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
        return qor::glue::qorString_Format(this, catalog, number, inserts);
    }
    // In `language` ("de", "pt_BR") or its fallbacks; `inserts` is an array of ten texts, or null.
    bool FormatEx(const char* catalog, uint32 number, const char* language, const char* const* inserts) noexcept {
        return qor::glue::qorString_FormatEx(this, catalog, number, language, inserts);
    }
    // The same for a given text, which may lie in the string itself.
    void FormatString(const char* text, const char* a1 = nullptr, const char* a2 = nullptr, const char* a3 = nullptr,
                      const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                      const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                      const char* a10 = nullptr) noexcept {
        const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
        qor::glue::qorString_FormatString(this, text, inserts);
    }
    // Gets a message as it stands in the catalog, with its inserts not replaced.
    bool LoadString(const char* catalog, uint32 number) noexcept {
        return qor::glue::qorString_LoadString(this, catalog, number);
    }
    bool LoadStringEx(const char* catalog, uint32 number, const char* language) noexcept {
        return qor::glue::qorString_LoadStringEx(this, catalog, number, language);
    }
#if defined(_WIN32)
    // windows.h defines LoadString as a macro for one of these names. A client that includes it, before or after this
    // file, can still write LoadString, for this operation and for that of Windows.
    bool LoadStringA(const char* catalog, uint32 number) noexcept { return LoadString(catalog, number); }
    bool LoadStringW(const char* catalog, uint32 number) noexcept { return LoadString(catalog, number); }
#endif

    // ---- streams
    // Writes the whole text in one piece, including NULs, followed by a newline if `newline` is true. A terminal gets
    // it as described in qor/system/Process.h. Returns false if it could not be written (last error); a buffered stream
    // may notice a failure only later.
    bool Put(std::FILE* stream, bool newline) const noexcept {
        qor::glue::stream_sink sink(stream);
        return qor::glue::qorString_Put_sink(this, &sink, newline);
    }
    // Reads one line of any length, without its end (LF or CR LF). Text behind the last line end counts as a line.
    // Returns false and leaves the string empty at the end of the input, or on a read error, which is then the last
    // error. Because a line may be a password, no copy remains except in the string and in the stream's own buffer.
    // NULs in the line are kept; Text() seems to end at the first.
    [[nodiscard]] bool GetLine(std::FILE* stream) noexcept {
        qor::glue::stream_source source(stream);
        return qor::glue::qorString_GetLine_source(this, &source);
    }

    // ---- character sets. Lengths are in code units; -1 means up to a zero unit. Invalid characters become U+FFFD, and
    // the result is then false. "UCS2" is UTF-16: characters beyond U+FFFF are surrogate pairs. The blocks end with a
    // zero unit.
    bool SetUCS2(const uint16* text, int32 length = -1) noexcept {
        return qor::glue::qorString_SetUCS2(this, text, length);
    }
    bool SetUCS4(const uint32* text, int32 length = -1) noexcept {
        return qor::glue::qorString_SetUCS4(this, text, length);
    }
    bool GetAsUCS2(qorDataBlock& out) const noexcept { return qor::glue::qorString_GetAsUCS2(this, out); }
    bool GetAsUCS4(qorDataBlock& out) const noexcept { return qor::glue::qorString_GetAsUCS4(this, out); }

    // Part of the binary contract: the library allocates and frees, inline members read. `text` is null if the string
    // has no storage; `alloc` counts the bytes of the storage, including the terminator.
    struct data {
        // The bytes and their terminator.
        char* text = nullptr;
        // The length of the text in bytes.
        uint32 length = 0;
        // The size of the storage in bytes.
        uint32 alloc = 0;
    };
    data m_data; // the text

private:
    static int32 clamp(uint32 count) noexcept { return count > 0x7fffffff ? -1 : static_cast<int32>(count); }
};

#pragma pop_macro("LoadString")

// Strings compare by unsigned bytes and then by length, also with other kinds of text. A null `const char*` counts as
// empty.
inline bool operator==(const qorString& left, const qorString& right) noexcept {
    return std::string_view(left) == std::string_view(right);
}
inline bool operator==(const qorString& left, const char* right) noexcept {
    return std::string_view(left) == std::string_view(right != nullptr ? right : "");
}
template <qor::glue::sized_text VIEW>
bool operator==(const qorString& left, const VIEW& right) noexcept {
    return std::string_view(left) == std::string_view(right);
}
inline std::strong_ordering operator<=>(const qorString& left, const qorString& right) noexcept {
    return std::string_view(left) <=> std::string_view(right);
}
inline std::strong_ordering operator<=>(const qorString& left, const char* right) noexcept {
    return std::string_view(left) <=> std::string_view(right != nullptr ? right : "");
}
template <qor::glue::sized_text VIEW>
std::strong_ordering operator<=>(const qorString& left, const VIEW& right) noexcept {
    return std::string_view(left) <=> std::string_view(right);
}

namespace std {

// The hash of the bytes, equal to that of a std::string_view of the same text.
template <>
struct hash<qorString> {
    size_t operator()(const qorString& text) const noexcept { return hash<string_view>()(text); }
};

#ifdef __cpp_lib_format
// std::format accepts strings with the options of std::string_view.
template <>
struct formatter<qorString> : formatter<string_view> {
    auto format(const qorString& text, auto& context) const {
        return formatter<string_view>::format(string_view(text), context);
    }
};
#endif

} // namespace std
