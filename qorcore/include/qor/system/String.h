// The framework's string: UTF-8 text with a length, and the operations that other systems' strings lack.
//
// Positions, lengths and counts are in bytes. A text may hold NULs; operations that take a plain `const char*`
// read up to the first one. White space is that of the C locale: blank, `\t`, `\n`, `\v`, `\f`, `\r`. Case is that of
// ASCII letters: other bytes have none, in every locale. Strings are not thread-safe; different ones may be used
// on different threads. Operations that need memory which is not there end the process with a report.
#pragma once

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

// A text that knows its length: std::string_view, std::string and their like. Plain C strings and qorString have
// overloads of their own.
template <class VIEW>
concept sized_text =
    std::is_convertible_v<const VIEW&, std::string_view> && !std::is_convertible_v<const VIEW&, const char*>;

// The length as the table takes it. A text that cannot be counted is refused as too long, not cut.
inline uint32 counted_length(std::size_t length) noexcept {
    return length < 0xffffffff ? static_cast<uint32>(length) : 0xffffffff;
}

// Length -1: up to the terminator. A null text is an empty one.
inline uint32 text_length(const char* text, int32 length) noexcept {
    if (text == nullptr)
        return 0;
    return length >= 0 ? static_cast<uint32>(length) : counted_length(std::strlen(text));
}

} // namespace qor::glue

#pragma push_macro("LoadString")
#undef LoadString // windows.h: see below

// A text of UTF-8 that owns its storage. Copies are copies of the text; what a string holds that was moved from is not
// specified.
class qorString {
public:
    qorString() noexcept { qor::glue::qorString_Init(this, 0); }

    // Length -1: up to the terminator. A null text is an empty one, here and everywhere.
    qorString(const char* text, int32 length = -1) noexcept {
        const uint32 count = qor::glue::text_length(text, length);
        qor::glue::qorString_Init(this, count);
        qor::glue::qorString_Set(this, text, count);
    }
    // All bytes, zero bytes among them.
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
    // Becomes a copy of the text, up to its terminator or as long as its view; the text may lie in the string itself.
    qorString& operator=(const char* text) noexcept {
        Set(text, -1);
        return *this;
    }
    template <qor::glue::sized_text VIEW>
    qorString& operator=(const VIEW& text) noexcept {
        Set(text);
        return *this;
    }

    // The text, always terminated; valid until the string changes.
    const char* Text() const noexcept { return m_data.text != nullptr ? m_data.text : ""; }

    // Converts to the text as `const char*` or, with its length, as std::string_view, and to nothing else. These are
    // templates because the compiler would go on from a plain `operator const char*` to bool, to `const void*` and to
    // pointer arithmetic, and std::less<> would compare addresses.
    template <std::same_as<const char*> TYPE>
    operator TYPE() const noexcept {
        return Text();
    }
    template <std::same_as<std::string_view> TYPE>
    operator TYPE() const noexcept {
        return {Text(), m_data.length};
    }

    // IsEmpty() tells whether there is a text; Append and Printf put texts together.
    explicit operator bool() const = delete;
    template <class OTHER>
    friend void operator+(const qorString&, const OTHER&) = delete;
    template <class OTHER>
    requires(!std::same_as<OTHER, qorString>) friend void operator+(const OTHER&, const qorString&) = delete;
    template <class OTHER>
    friend void operator-(const qorString&, const OTHER&) = delete;
    template <class OTHER>
    requires(!std::same_as<OTHER, qorString>) friend void operator-(const OTHER&, const qorString&) = delete;

    // In bytes, without the terminator.
    uint32 Length() const noexcept { return m_data.length; }
    // Whether there is no byte in it.
    bool IsEmpty() const noexcept { return m_data.length == 0; }

    // The byte at `index`. An index that is not below the length is reported and yields a NUL.
    char operator[](int32 index) const noexcept {
        if (index >= static_cast<int32>(m_data.length)) [[unlikely]] {
            qor::glue::assert_failed("index < (int32)m_data.length", "char qorString::operator[](int32) const",
                                     qor::glue::common_file, 71);
            return '\0';
        }
        return index >= 0 ? m_data.text[index] : '\0';
    }

    // ---- assignment and change; every source may lie in the string itself
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
    // An index behind the end means the end.
    void Insert(uint32 index, const char* text, int32 length = -1) noexcept {
        qor::glue::qorString_Insert(this, index, text, qor::glue::text_length(text, length));
    }
    // What lies behind the end does not count.
    void Remove(uint32 index, uint32 count) noexcept { qor::glue::qorString_Remove(this, index, count); }

    // A buffer of `size` bytes and a terminator to write into; it begins with the present text. The string must
    // not be used until UnlockBuffer has said how many bytes count (-1: up to the first NUL in the buffer).
    [[nodiscard]] char* LockBuffer(uint32 size) noexcept { return qor::glue::qorString_LockBuffer(this, size); }
    void UnlockBuffer(int32 length = -1) noexcept { qor::glue::qorString_UnlockBuffer(this, length); }

    // ---- comparison: negative, zero or positive, by unsigned bytes, case-sensitive unless the name says so;
    // without case, letters count as lower case. CompareN compares at most the first `count` bytes of both.
    int Compare(const char* text) const noexcept { return qor::glue::qorString_Compare(this, text); }
    int CompareN(const char* text, uint32 count) const noexcept {
        return qor::glue::qorString_CompareN(this, text, count);
    }
    int CompareNoCase(const char* text) const noexcept { return qor::glue::qorString_CompareNoCase(this, text); }

    // ---- searching: the position, or -1. The forward forms look at `start` and behind it, the reverse forms at
    // `start` and before it (-1: from the end). A character is a Unicode code point; what is none is not found.
    // An empty text is found at `start`.
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

    // ---- slicing: what lies behind the end does not count; a count of -1 means up to the end. The Get forms
    // write into `out`, which may be the string itself; the Set forms keep just that part.
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

    // ---- tokenising; the array's old elements are replaced. The results are true; false is kept for a future
    // in which a split can fail.
    bool Tokenise_WS(qorStringArray& out) const noexcept { return qor::glue::qorString_Tokenise_WS(this, out); }
    // n separators make n + 1 fields; an empty string makes none.
    bool TokeniseAtByte(char separator, qorStringArray& out) const noexcept {
        return qor::glue::qorString_TokeniseAtByte(this, separator, out);
    }
    // At the first separator, which belongs to neither part. False: there is none, `left` is all of it and
    // `right` is empty. One of the parts may be the string itself.
    bool SplitAtByte(char separator, qorString& left, qorString& right) const noexcept {
        return qor::glue::qorString_SplitAtByte(this, separator, left, right);
    }
    // Takes the first word and the white space around it out of the string. False: there is no word, and both
    // are empty then. Where `token` is the string itself, it is the word.
    bool ExtractFirstToken_WS(qorString& token) noexcept {
        return qor::glue::qorString_ExtractFirstToken_WS(this, token);
    }

    // ---- parts of a file name: "dir/archive.tar.gz" is "dir/", "archive.tar" and "gz". Dots in front of the
    // name (".profile", "..") begin no extension. Each result may be the string itself. Windows separates folders
    // by '\\', '/' and a drive's ':' too.
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
    // Arguments may lie in the string itself. A format that the C library refuses leaves the string empty.
    void PrintV(const char* format, std::va_list arguments) noexcept {
        qor::glue::qorString_PrintV(this, format, arguments);
    }
    void FormatInteger(int64 value) noexcept { qor::glue::qorString_FormatInteger(this, value); }
    // Base 2 to 36, digits beyond 9 in lower case; with another base the string is empty.
    void FormatUnsigned(uint64 value, uint32 base = 10) noexcept {
        qor::glue::qorString_FormatUnsigned(this, value, base);
    }

    // Messages of a catalog, in the best language that has them. Inserts stand in a text as {1} to {10}; those
    // not given are empty. False: there is no such message, and the string is empty.
    bool Format(const char* catalog, uint32 number, const char* a1 = nullptr, const char* a2 = nullptr,
                const char* a3 = nullptr, const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                const char* a10 = nullptr) noexcept {
        const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
        return qor::glue::qorString_Format(this, catalog, number, inserts);
    }
    // In `language` ("de", "pt_BR") or what it falls back to; `inserts` are ten, or null.
    bool FormatEx(const char* catalog, uint32 number, const char* language, const char* const* inserts) noexcept {
        return qor::glue::qorString_FormatEx(this, catalog, number, language, inserts);
    }
    // The same for a text at hand, which may lie in the string itself.
    void FormatString(const char* text, const char* a1 = nullptr, const char* a2 = nullptr, const char* a3 = nullptr,
                      const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                      const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                      const char* a10 = nullptr) noexcept {
        const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
        qor::glue::qorString_FormatString(this, text, inserts);
    }
    // A message as it stands in the catalog.
    bool LoadString(const char* catalog, uint32 number) noexcept {
        return qor::glue::qorString_LoadString(this, catalog, number);
    }
    bool LoadStringEx(const char* catalog, uint32 number, const char* language) noexcept {
        return qor::glue::qorString_LoadStringEx(this, catalog, number, language);
    }
#if defined(_WIN32)
    // windows.h makes LoadString a macro for one of these names. A client that includes it, before or after this file,
    // writes LoadString as ever, for the operation of a string as well as for that of Windows.
    bool LoadStringA(const char* catalog, uint32 number) noexcept { return LoadString(catalog, number); }
    bool LoadStringW(const char* catalog, uint32 number) noexcept { return LoadString(catalog, number); }
#endif

    // ---- streams
    // Writes the whole text, NULs included, and a newline behind it if asked, in one go; a terminal gets it as
    // qor/system/Process.h says. False: it could not be written (last error); a buffered stream may find that out
    // later.
    bool Put(std::FILE* stream, bool newline) const noexcept { return qor::glue::qorString_Put(this, stream, newline); }
    // Reads one line, of any length, without its end (LF or CR LF); what follows the last line end is a line
    // too unless it is empty. False: the end of the input, or a read error, which is then the last error; the
    // string is empty. A line may be a password: what reads it leaves no copy behind but the string and the stream's
    // own buffer. Zero bytes are bytes of the line; Text() seems to end there.
    [[nodiscard]] bool GetLine(std::FILE* stream) noexcept { return qor::glue::qorString_GetLine(this, stream); }

    // ---- character sets. Lengths are in units; -1: up to a zero unit. What is no valid character becomes
    // U+FFFD, and the result is false. "UCS2" is UTF-16: characters beyond the first plane are pairs. The blocks
    // end with a zero unit.
    bool SetUCS2(const uint16* text, int32 length = -1) noexcept {
        return qor::glue::qorString_SetUCS2(this, text, length);
    }
    bool SetUCS4(const uint32* text, int32 length = -1) noexcept {
        return qor::glue::qorString_SetUCS4(this, text, length);
    }
    bool GetAsUCS2(qorDataBlock& out) const noexcept { return qor::glue::qorString_GetAsUCS2(this, out); }
    bool GetAsUCS4(qorDataBlock& out) const noexcept { return qor::glue::qorString_GetAsUCS4(this, out); }

    // Part of the contract: the library allocates and frees, inline members read. `text` is null while the string
    // has no storage; `alloc` counts the bytes of the storage, terminator included.
    struct data {
        // The bytes and their terminator.
        char* text = nullptr;
        // Of the text, in bytes.
        uint32 length = 0;
        // Of the storage, in bytes.
        uint32 alloc = 0;
    };
    data m_data; // the text

private:
    static int32 clamp(uint32 count) noexcept { return count > 0x7fffffff ? -1 : static_cast<int32>(count); }
};

#pragma pop_macro("LoadString")

// Strings compare by their bytes, which are unsigned, and then by their lengths; so do a string and a text of another
// kind. A null `const char*` is an empty text.
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

// The hash of the bytes: equal to that of the std::string_view of the same text.
template <>
struct hash<qorString> {
    size_t operator()(const qorString& text) const noexcept { return hash<string_view>()(text); }
};

#ifdef __cpp_lib_format
// std::format takes strings with the options of std::string_view.
template <>
struct formatter<qorString> : formatter<string_view> {
    auto format(const qorString& text, auto& context) const {
        return formatter<string_view>::format(string_view(text), context);
    }
};
#endif

} // namespace std
