// String arrays: the stream form.
#include "error/error.h"
#include "string/array_data.h"
#include "string/string_data.h"

#include <algorithm>
#include <cstring>

namespace {

// A length on a stream may be wrong, so memory follows the bytes that really came.
constexpr uint32 piece_size = 64 * 1024;

bool write_number(IQORDataSink* sink, uint32 number) noexcept {
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8),
        static_cast<unsigned char>(number >> 16), static_cast<unsigned char>(number >> 24)};
    return sink->Write(bytes, sizeof bytes);
}

bool read_number(IQORDataSource* source, uint32& number) noexcept {
    unsigned char bytes[4];
    if (!source->Read(bytes, sizeof bytes))
        return false;
    number = bytes[0] | static_cast<uint32>(bytes[1]) << 8 | static_cast<uint32>(bytes[2]) << 16 |
             static_cast<uint32>(bytes[3]) << 24;
    return true;
}

bool read_text(IQORDataSource* source, qorString& text) noexcept {
    uint32 length;
    if (!read_number(source, length))
        return false;
    if (length > qor::string::max_length) {
        qor::error::set(qorError_cannot_read_file, {"stream", "a text in it has an impossible length"});
        return false;
    }
    text.Empty();
    while (text.Length() < length) {
        const uint32 begin = text.Length();
        const uint32 piece = std::min(length - begin, piece_size);
        char* const buffer = text.LockBuffer(begin + piece);
        const bool came = source->Read(buffer + begin, piece);
        text.UnlockBuffer(static_cast<int32>(came ? begin + piece : begin));
        if (!came)
            return false;
    }
    return true;
}

} // namespace

bool qor::glue::qorStringArray_Write(const qorStringArray* self, IQORDataSink* sink) noexcept {
    if (!write_number(sink, self->m_data.count))
        return false;
    for (uint32 i = 0; i < self->m_data.count; ++i) {
        const qorString& text = self->m_data.elements[i];
        if (!write_number(sink, text.Length()) ||
            (!text.IsEmpty() && !sink->Write(text.Text(), text.Length())))
            return false;
    }
    return true;
}

bool qor::glue::qorStringArray_Read(qorStringArray* self, IQORDataSource* source) noexcept {
    qor::string::restart(*self);
    uint32 count;
    if (!read_number(source, count))
        return false;
    qorString text;
    while (count-- != 0) {
        if (!read_text(source, text))
            return false;
        qorStringArray_Append(self, text.Text(), text.Length());
    }
    return true;
}
