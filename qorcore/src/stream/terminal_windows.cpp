#include "stream/terminal.h"

#include "stream/text_output.h"
#include "string/working_memory.h"

#include <algorithm>
#include <windows.h>

namespace {

constexpr wchar_t control_z = L'\x1a';

// While it lives, other threads wait with what they do to the stream.
template <class STREAM>
class stream_lock {
public:
    explicit stream_lock(STREAM& stream) noexcept : m_stream(stream) { m_stream.Lock(); }
    stream_lock(const stream_lock&) = delete;
    stream_lock& operator=(const stream_lock&) = delete;
    ~stream_lock() { m_stream.Unlock(); }

private:
    STREAM& m_stream;
};

// Older consoles take at most 64 KiB in one call.
constexpr std::size_t longest_piece = 8 * 1024;

// Takes as much of the text as one call may have. A piece does not end inside a character.
std::string_view take_piece(std::string_view& text) noexcept {
    std::size_t size = std::min(text.size(), longest_piece);
    while (size < text.size() && (text[size] & 0xc0) == 0x80)
        --size;
    const std::string_view piece = text.substr(0, size);
    text.remove_prefix(size);
    return piece;
}

bool write_wide(HANDLE console, std::wstring_view text) noexcept {
    while (!text.empty()) {
        DWORD written = 0;
        if (!WriteConsoleW(console, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) || written == 0)
            return false;
        text.remove_prefix(written);
    }
    return true;
}

// Appends a newline as the two characters that the C library would write: a console that obeys control sequences may
// take the second alone for a step down. Returns the end.
wchar_t* append_lines(std::wstring_view text, wchar_t* to) noexcept {
    for (const wchar_t unit : text) {
        if (unit == L'\n')
            *to++ = L'\r';
        *to++ = unit;
    }
    return to;
}

// Text that was typed, on its way from the console. A line comes in pieces if it is long.
class typed_text {
    static constexpr DWORD longest_read = 512;

public:
    typed_text() noexcept = default;
    typed_text(const typed_text&) = delete;
    typed_text& operator=(const typed_text&) = delete;
    ~typed_text() {
        SecureZeroMemory(m_units, sizeof m_units);
        SecureZeroMemory(m_bytes, sizeof m_bytes);
    }

    // Waits for the next piece. Returns false at the end of the input, or after a failure.
    bool read(HANDLE console, DWORD mode) noexcept {
        // By lines, the console gives at most one line. Otherwise it gives all that was typed, and what stands behind
        // the end of the line would be lost.
        const DWORD most = (mode & ENABLE_LINE_INPUT) != 0 ? longest_read : 1;
        DWORD count = 0;
        do {
            SetLastError(ERROR_SUCCESS);
            if (!ReadConsoleW(console, m_units + m_kept, most, &count, nullptr))
                return false;
        } while (count == 0 && GetLastError() == ERROR_OPERATION_ABORTED); // Ctrl-C, which a handler has taken
        SetLastError(ERROR_SUCCESS);
        m_size = m_kept + count;
        return count != 0;
    }

    std::wstring_view units() const noexcept { return {m_units, m_size}; }

    // Returns the first `size` units in UTF-8. If they end within a character, its first unit is kept for the next
    // piece.
    std::string_view bytes(std::size_t size) noexcept {
        const bool is_cut = size == m_size && size != 0 && m_units[size - 1] >= 0xd800 && m_units[size - 1] < 0xdc00;
        const int count = WideCharToMultiByte(CP_UTF8, 0, m_units, static_cast<int>(size - is_cut), m_bytes,
                                              sizeof m_bytes, nullptr, nullptr);
        if (is_cut)
            m_units[0] = m_units[size - 1];
        m_kept = is_cut;
        return {m_bytes, static_cast<std::size_t>(count)};
    }

private:
    wchar_t m_units[longest_read + 1];
    char m_bytes[3 * (longest_read + 1)]; // a unit takes at most three
    std::size_t m_kept = 0;
    std::size_t m_size = 0;
};

} // namespace

bool qor::stream::write_to_terminal(IQORStreamSink& sink, int64 terminal, std::string_view text,
                                    int& failure) noexcept {
    const auto console = reinterpret_cast<HANDLE>(terminal);
    if (DWORD mode; !GetConsoleMode(console, &mode))
        return write_bytes(sink, text, failure); // some other terminal of the client's
    // A unit for each byte, and twice as many for lines.
    string::working_memory memory;
    const std::size_t room = std::min(text.size(), longest_piece);
    auto* const units = reinterpret_cast<wchar_t*>(memory.get(3 * room * sizeof(wchar_t)));
    wchar_t* const lines = units + room;
    const stream_lock hold(sink);
    if (!sink.Flush()) {
        failure = sink.GetFailure();
        return false;
    }
    while (!text.empty()) {
        const std::string_view piece = take_piece(text);
        const int length = MultiByteToWideChar(CP_UTF8, 0, piece.data(), static_cast<int>(piece.size()), units,
                                               static_cast<int>(room));
        const wchar_t* const end = append_lines({units, static_cast<std::size_t>(length)}, lines);
        if (!write_wide(console, {lines, end})) {
            failure = static_cast<int>(GetLastError());
            return false;
        }
    }
    return true;
}

qor::stream::line_end qor::stream::read_terminal_line(IQORStreamSource& source, qorString& line,
                                                      void (*append)(qorString& line, const char* bytes,
                                                                     uint32 size) noexcept,
                                                      int& failure) noexcept {
    const stream_lock hold(source);
    const auto console = reinterpret_cast<HANDLE>(source.GetTerminal());
    DWORD mode;
    if (console == INVALID_HANDLE_VALUE || !GetConsoleMode(console, &mode))
        return line_end::use_stream;
    typed_text text;
    // What stands behind Ctrl-Z on its line is not used.
    bool has_ended = false;
    while (text.read(console, mode)) {
        const std::wstring_view units = text.units();
        const std::size_t newline = units.find(L'\n');
        const std::size_t end = std::min({units.find(control_z), newline, units.size()});
        if (!has_ended) {
            const std::string_view bytes = text.bytes(end);
            append(line, bytes.data(), static_cast<uint32>(bytes.size()));
        }
        has_ended = has_ended || (end < units.size() && units[end] == control_z);
        if (newline != units.npos)
            return has_ended ? line_end::end_of_input : line_end::newline;
    }
    failure = static_cast<int>(GetLastError());
    return failure == 0 ? line_end::end_of_input : line_end::failed;
}
