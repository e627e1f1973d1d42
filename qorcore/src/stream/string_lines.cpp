// Strings: reading from and writing to C streams.
#include "error/error.h"
#include "stream/terminal.h"
#include "stream/text_output.h"
#include "string/string_data.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using qor::stream::line_end;

// A line may be a password, so no copy of it may stay in memory.
void wipe(char* bytes, std::size_t size) noexcept {
    for (volatile char* at = bytes; size != 0; --size)
        *at++ = '\0';
}

// Like Append, but wipes the old storage if the string moves.
void append_secret(qorString& self, const char* bytes, unsigned size) noexcept {
    const uint64 total = uint64{self.m_data.length} + size;
    if (total >= self.m_data.alloc) {
        qorString grown;
        grown.Reserve(static_cast<uint32>(std::min<uint64>(2 * total, qor::string::max_length)));
        grown.Append(self.Text(), static_cast<int32>(self.Length()));
        wipe(self.m_data.text, self.m_data.alloc);
        self = static_cast<qorString&&>(grown);
    }
    qor::glue::qorString_Append(&self, bytes, size);
}

// Reads with the functions of the C library.
line_end read_line(std::FILE* stream, qorString& line) noexcept {
    char piece[512];
    unsigned used = 0;
    int byte;
    while ((byte = std::getc(stream)) != '\n') {
        if (byte == EOF) {
            // A read that a signal handler interrupted is not the end of the stream: read again.
            if (std::feof(stream) || !std::ferror(stream) || errno != EINTR)
                break;
            std::clearerr(stream);
            continue;
        }
        if (used == sizeof piece) {
            append_secret(line, piece, used);
            used = 0;
        }
        piece[used++] = static_cast<char>(byte);
    }
    append_secret(line, piece, used);
    wipe(piece, sizeof piece);
    if (byte == '\n')
        return line_end::newline;
    return std::feof(stream) ? line_end::end_of_input : line_end::failed;
}

} // namespace

bool qor::glue::qorString_Put(const qorString* self, std::FILE* stream, bool newline) noexcept {
    // Writes the whole line in one call. With two calls, output of another thread could split the line, and an
    // unbuffered stream would write it in two parts.
    qor::string::working_memory memory;
    const char* text = self->Text();
    std::size_t length = self->Length();
    if (newline) {
        char* const line = memory.get(length + 1);
        std::memcpy(line, text, length);
        line[length] = '\n';
        text = line;
        ++length;
    }
    if (qor::stream::write_text(stream, {text, length}))
        return true;
    qor::error::set_with_reason(qorError_cannot_write_file, "stream", qor::error::stream_failure());
    return false;
}

bool qor::glue::qorString_GetLine(qorString* self, std::FILE* stream) noexcept {
    self->Empty();
    line_end end = qor::stream::read_terminal_line(stream, *self, append_secret);
    if (end == line_end::use_stream)
        end = read_line(stream, *self);
    if (end == line_end::failed) {
        qor::error::set_with_reason(qorError_cannot_read_file, "stream", qor::error::stream_failure());
        wipe(self->m_data.text, self->m_data.length);
        self->Empty();
        return false;
    }
    if (end == line_end::newline && self->m_data.length != 0 && self->m_data.text[self->m_data.length - 1] == '\r')
        qorString_Remove(self, self->m_data.length - 1, 1);
    return end == line_end::newline || !self->IsEmpty();
}
