// Strings: reading from and writing to C streams.
#include "error/error.h"
#include "stream/terminal.h"
#include "stream/text_output.h"
#include "string/string_data.h"

#include <algorithm>
#include <cstring>

namespace {

using qor::stream::line_end;

// A line may be a password, so no copy of it may stay in memory.
void wipe(char* bytes, std::size_t size) noexcept {
    for (volatile char* at = bytes; size != 0; --size)
        *at++ = '\0';
}

// Like Append, but wipes the old storage if the string moves.
void append_secret(qorString& self, const char* bytes, uint32 size) noexcept {
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

// Reads with the functions of the stream.
line_end read_line(IQORStreamSource& source, qorString& line, int& failure) noexcept {
    char piece[512];
    uint32 used = 0;
    bool is_read;
    bool is_whole;
    do {
        is_read = source.ReadLine(piece, sizeof piece, &used);
        is_whole = used != 0 && piece[used - 1] == '\n';
        append_secret(line, piece, is_whole ? used - 1 : used);
    } while (is_read && used == sizeof piece && !is_whole);
    if (!is_read)
        failure = source.GetFailure();
    wipe(piece, sizeof piece);
    if (!is_read)
        return line_end::failed;
    return is_whole ? line_end::newline : line_end::end_of_input;
}

} // namespace

bool qor::glue::qorString_Put_sink(const qorString* self, IQORStreamSink* sink, bool newline) noexcept {
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
    int failure = 0;
    if (qor::stream::write_text(*sink, {text, length}, failure))
        return true;
    qor::error::set_with_reason(qorError_cannot_write_file, "stream", failure);
    return false;
}

bool qor::glue::qorString_Put(const qorString* self, std::FILE* stream, bool newline) noexcept {
    return self->Put(stream, newline);
}

bool qor::glue::qorString_GetLine_source(qorString* self, IQORStreamSource* source) noexcept {
    self->Empty();
    int failure = 0;
    line_end end = qor::stream::read_terminal_line(*source, *self, append_secret, failure);
    if (end == line_end::use_stream)
        end = read_line(*source, *self, failure);
    if (end == line_end::failed) {
        qor::error::set_with_reason(qorError_cannot_read_file, "stream", failure);
        wipe(self->m_data.text, self->m_data.length);
        self->Empty();
        return false;
    }
    if (end == line_end::newline && self->m_data.length != 0 && self->m_data.text[self->m_data.length - 1] == '\r')
        qorString_Remove(self, self->m_data.length - 1, 1);
    return end == line_end::newline || !self->IsEmpty();
}

bool qor::glue::qorString_GetLine(qorString* self, std::FILE* stream) noexcept { return self->GetLine(stream); }
