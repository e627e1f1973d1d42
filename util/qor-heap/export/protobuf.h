// Writes protocol buffers: the wire format of numbers, texts and messages within messages.
#pragma once

#include "qor/system/Types.h"

#include <span>
#include <string>
#include <string_view>

namespace qor::heap_tool {

class protobuf {
public:
    // A field with the number 0, which readers take for absent, is left out.
    protobuf& number(uint32 field, uint64 value) {
        if (value != 0) {
            append(field << 3);
            append(value);
        }
        return *this;
    }
    protobuf& bytes(uint32 field, std::string_view value) {
        append(field << 3 | 2);
        append(value.size());
        m_data += value;
        return *this;
    }
    protobuf& message(uint32 field, const protobuf& value) { return bytes(field, value.m_data); }
    protobuf& packed(uint32 field, std::span<const uint64> values) {
        protobuf inner;
        for (const uint64 each : values)
            inner.append(each);
        return values.empty() ? *this : bytes(field, inner.m_data);
    }

    const std::string& data() const noexcept { return m_data; }
    void clear() noexcept { m_data.clear(); }

private:
    void append(uint64 value) {
        for (; value >= 0x80; value >>= 7)
            m_data += static_cast<char>(value | 0x80);
        m_data += static_cast<char>(value);
    }

    std::string m_data;
};

} // namespace qor::heap_tool
