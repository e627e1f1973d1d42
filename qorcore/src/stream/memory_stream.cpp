// Sinks and sources in memory.
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <cstring>
#include <new>

namespace {

constexpr char source[] = "qorcore/src/stream/memory_stream";

class memory_sink final : public qor::object<IQORMemoryDataSink> {
public:
    memory_sink() noexcept : object("qorcore.memory_data_sink", "IQORMemoryDataSink", "IQORDataSink") {}

    bool Write(const void* bytes, uint32 size) noexcept override {
        if (size == 0)
            return true;
        void* const room = qor::glue::qorVector_Append(&m_bytes, size);
        if (room == nullptr) {
            qor::error::set(qorError_out_of_memory);
            return false;
        }
        std::memcpy(room, bytes, size);
        return true;
    }

    const void* GetData() noexcept override { return m_bytes.m_data.elements; }
    uint32 GetSize() noexcept override { return m_bytes.GetCount(); }
    void Empty() noexcept override { m_bytes.Empty(); }

private:
    qorVector m_bytes{1};
};

class memory_source final : public qor::object<IQORMemoryDataSource> {
public:
    memory_source(const void* bytes, uint32 size) noexcept
        : object("qorcore.memory_data_source", "IQORMemoryDataSource", "IQORDataSource"),
          m_next(static_cast<const unsigned char*>(bytes)), m_remaining(size) {}

    bool Read(void* bytes, uint32 size) noexcept override {
        if (size > m_remaining) {
            qor::error::set(qorError_cannot_read_file, {"stream", "its data ends here"});
            return false;
        }
        if (size != 0)
            std::memcpy(bytes, m_next, size);
        m_next += size;
        m_remaining -= size;
        return true;
    }

    uint32 GetRemaining() noexcept override { return m_remaining; }

private:
    const unsigned char* m_next;
    uint32 m_remaining;
};

} // namespace

void qor::glue::create_IQORMemoryDataSink(IQORMemoryDataSink** out) noexcept {
    *out = nullptr;
    memory::make<memory_sink>(source, __LINE__, out);
}

void qor::glue::create_IQORMemoryDataSource(const void* bytes, uint32 size, IQORMemoryDataSource** out) noexcept {
    *out = nullptr;
    memory::make<memory_source>(source, __LINE__, out, bytes, size);
}
