// Inside the module qor-store: the stream form of a set in memory.
#pragma once

#include "qor/qor.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>

namespace store {

// A sink on the stack that adds to a text.
class text_sink final : public IQORDataSink {
public:
    explicit text_sink(std::string& out) noexcept : m_out(out) {}

    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Write(const void* bytes, uint32 size) noexcept override {
        try {
            m_out.append(static_cast<const char*>(bytes), size);
        } catch (const std::exception&) { // no memory
            qorSetLastError(qorError_out_of_memory);
            return false;
        }
        return true;
    }

private:
    std::string& m_out;
};

// A source on the stack that reads a text.
class text_source final : public IQORDataSource {
public:
    explicit text_source(std::string_view from) noexcept : m_rest(from) {}

    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Read(void* bytes, uint32 size) noexcept override {
        if (size > m_rest.size()) {
            qorSetLastError(qorError_stream_form, "its end");
            return false;
        }
        std::memcpy(bytes, m_rest.data(), size);
        m_rest.remove_prefix(size);
        return true;
    }
    // Without a call for the bytes: most of a set is numbers.
    bool ReadUint16(uint16& value) noexcept override { return read_number(value); }
    bool ReadUint32(uint32& value) noexcept override { return read_number(value); }
    bool is_at_end() const noexcept { return m_rest.empty(); }

private:
    template <class NUMBER>
    bool read_number(NUMBER& value) noexcept {
        unsigned char bytes[sizeof value];
        if (!text_source::Read(bytes, sizeof bytes))
            return false;
        NUMBER number = 0;
        for (unsigned i = 0; i < sizeof value; ++i)
            number = static_cast<NUMBER>(number | static_cast<NUMBER>(bytes[i]) << (8 * i));
        value = number;
        return true;
    }

    std::string_view m_rest;
};

// Reads a set. Returns false and sets the last error if these bytes are not the stream form of one set.
inline bool read_set(std::string_view bytes, IQORAttributeSet* out) noexcept {
    text_source from(bytes);
    if (!out->Read(&from))
        return false;
    if (from.is_at_end())
        return true;
    qorSetLastError(qorError_stream_form, "something behind the set");
    return false;
}

} // namespace store
