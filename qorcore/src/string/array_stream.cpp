// String arrays: reading from and writing to streams.
#include "error/error.h"
#include "string/array_data.h"
#include "string/string_data.h"

#include <algorithm>
#include <cstring>

namespace {

// A length in a stream may be wrong, so memory is allocated only for bytes that have arrived.
constexpr uint32 piece_size = 64 * 1024;

bool read_text(IQORDataSource* source, qorString& text) noexcept {
    uint32 length;
    if (!source->ReadUint32(length))
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
    if (!sink->WriteUint32(self->m_data.count))
        return false;
    for (uint32 i = 0; i < self->m_data.count; ++i) {
        const qorString& text = self->m_data.elements[i];
        if (!sink->WriteUint32(text.Length()) || (!text.IsEmpty() && !sink->Write(text.Text(), text.Length())))
            return false;
    }
    return true;
}

bool qor::glue::qorStringArray_Read(qorStringArray* self, IQORDataSource* source) noexcept {
    qor::string::restart(*self);
    uint32 count;
    if (!source->ReadUint32(count))
        return false;
    qorString text;
    while (count-- != 0) {
        if (!read_text(source, text))
            return false;
        qorStringArray_Append(self, text.Text(), text.Length());
    }
    return true;
}
