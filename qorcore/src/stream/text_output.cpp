#include "stream/text_output.h"

#include "qor/qor.h"
#include "stream/terminal.h"
#include "string/unicode.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32 escape_size = 4; // for one byte: "\x1b"
constexpr std::size_t most_at_once = 1u << 31;

// Bytes that can be shown without further checks.
constexpr bool is_plain(char c) noexcept { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; }

bool each_is_plain(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(), [](char c) { return is_plain(c); });
}

bool is_plain(std::string_view text) noexcept {
    // Tests eight bytes at a time: one of the three terms sets the high bit of a byte that is beyond ASCII, below a
    // blank, or DEL. A carry can only mark the neighbour of such a byte as well, and the exact check below clears up a
    // wrong mark.
    constexpr uint64 each = 0x0101010101010101;
    for (; text.size() >= sizeof each; text.remove_prefix(sizeof each)) {
        uint64 bytes;
        std::memcpy(&bytes, text.data(), sizeof bytes);
        if (((bytes | (bytes - 0x20 * each) | (bytes + each)) & 0x80 * each) != 0 &&
            !each_is_plain(text.substr(0, sizeof each)))
            return false;
    }
    return each_is_plain(text);
}

bool is_shown(const qor::string::decoded& next) noexcept {
    const uint32 c = next.character;
    if (c < 0x20)
        return c == '\n' || c == '\t';
    return next.valid && !(c >= 0x7f && c <= 0x9f) && !(c >= 0x202a && c <= 0x202e) && !(c >= 0x2066 && c <= 0x2069);
}

// Calls `add(piece, shown)` for each piece in turn.
template <class ADD>
void divide(std::string_view text, ADD add) {
    while (!text.empty()) {
        const qor::string::decoded next = qor::string::decode(text);
        add(text.substr(0, next.size), is_shown(next));
        text.remove_prefix(next.size);
    }
}

// Returns the terminal that is to show the text; -1 without one, or if the text is plain. The system call costs as much
// as checking some hundred bytes, so a short text is checked first. If it is plain, it means the same in every encoding
// that a terminal may have.
int64 terminal_for(IQORStreamSink& sink, std::string_view text) noexcept {
    constexpr std::size_t short_text = 512;
    return text.size() > short_text || !is_plain(text) ? sink.GetTerminal() : -1;
}

// A stream of the library's own.
class own_stream final : public qor::glue::c_stream<IQORStreamSink> {
public:
    explicit own_stream(std::FILE* stream) noexcept : c_stream(stream) {}
    bool Write(const void* bytes, uint32 size) noexcept override {
        return std::fwrite(bytes, 1, size, m_stream) == size;
    }
    bool Flush() noexcept override { return std::fflush(m_stream) == 0; }
    int64 GetTerminal() noexcept override { return qor::glue::stream_terminal(m_stream); }
};

} // namespace

std::string_view qor::stream::visible(std::string_view text, string::working_memory& memory) noexcept {
    std::size_t size = 0;
    divide(text,
           [&](std::string_view piece, bool shown) { size += shown ? piece.size() : escape_size * piece.size(); });
    if (size == text.size())
        return text;
    char* const begin = memory.get(size);
    char* at = begin;
    divide(text, [&](std::string_view piece, bool shown) {
        constexpr char digits[] = "0123456789abcdef";
        if (shown) {
            at = std::copy(piece.begin(), piece.end(), at);
            return;
        }
        for (const char c : piece)
            for (const char part : {'\\', 'x', digits[c >> 4 & 15], digits[c & 15]})
                *at++ = part;
    });
    return {begin, size};
}

bool qor::stream::write_text(IQORStreamSink& sink, std::string_view text, int& failure) noexcept {
    string::working_memory memory;
    if (const int64 terminal = terminal_for(sink, text); terminal != -1)
        return write_to_terminal(sink, terminal, visible(text, memory), failure);
    return write_bytes(sink, text, failure);
}

bool qor::stream::write_text(IQORStreamSink& sink, std::string_view text) noexcept {
    int failure;
    return write_text(sink, text, failure);
}

// Calls the sink even for no text: standard output is flushed all the same.
bool qor::stream::write_bytes(IQORStreamSink& sink, std::string_view text, int& failure) noexcept {
    do {
        const auto size = static_cast<uint32>(std::min<std::size_t>(text.size(), most_at_once));
        if (!sink.Write(text.data(), size)) {
            failure = sink.GetFailure();
            return false;
        }
        text.remove_prefix(size);
    } while (!text.empty());
    return true;
}

bool qor::stream::write_this_text_only(std::FILE* stream, std::string_view text) noexcept {
    own_stream sink(stream);
    return write_text(sink, text);
}

bool qor::glue::fputtext_sink(IQORStreamSink* sink, const char* text, uint64 length) noexcept {
    return qor::stream::write_text(*sink, {text, length});
}

bool qor::glue::fputtext(std::FILE* stream, const char* text, uint64 length) noexcept {
    return ::fputtext(stream, text, length);
}
