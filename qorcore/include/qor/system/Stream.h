// Sinks and sources for the stream forms of the framework's types. A stream form consists of bytes and of numbers,
// whose layout the sink and the source decide. docs/stream-form.md describes the form of each type.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

// The target of stream forms. Not thread-safe, unless an implementation says so.
class IQORDataSink : public IQORInterface {
public:
    // Writes all `size` bytes. Returns false on failure (last error); it is then unknown how many bytes were written.
    virtual bool Write(const void* bytes, uint32 size) noexcept = 0;

    // Write numbers in little-endian order; a sink with another layout overrides them.
    virtual bool WriteUint16(uint16 value) noexcept { return write_number(value); }
    virtual bool WriteUint32(uint32 value) noexcept { return write_number(value); }
    virtual bool WriteInt32(int32 value) noexcept { return WriteUint32(static_cast<uint32>(value)); }

protected:
    ~IQORDataSink() = default;

private:
    template <class NUMBER>
    bool write_number(NUMBER value) noexcept {
        unsigned char bytes[sizeof value];
        for (unsigned i = 0; i < sizeof value; ++i)
            bytes[i] = static_cast<unsigned char>(value >> (8 * i));
        return Write(bytes, sizeof bytes);
    }
};

// The origin of stream forms. Not thread-safe, unless an implementation says so.
class IQORDataSource : public IQORInterface {
public:
    // Reads exactly `size` bytes. Returns false on failure (last error), including data that ends too early; the
    // content of `bytes` is then undefined.
    [[nodiscard]] virtual bool Read(void* bytes, uint32 size) noexcept = 0;

    // Read numbers in little-endian order; a source with another layout overrides them. `value` is unchanged on
    // failure.
    [[nodiscard]] virtual bool ReadUint16(uint16& value) noexcept { return read_number(value); }
    [[nodiscard]] virtual bool ReadUint32(uint32& value) noexcept { return read_number(value); }
    [[nodiscard]] virtual bool ReadInt32(int32& value) noexcept {
        uint32 number;
        if (!ReadUint32(number))
            return false;
        value = static_cast<int32>(number);
        return true;
    }

protected:
    ~IQORDataSource() = default;

private:
    template <class NUMBER>
    bool read_number(NUMBER& value) noexcept {
        unsigned char bytes[sizeof value];
        if (!Read(bytes, sizeof bytes))
            return false;
        NUMBER number = 0;
        for (unsigned i = 0; i < sizeof value; ++i)
            number = static_cast<NUMBER>(number | static_cast<NUMBER>(bytes[i]) << (8 * i));
        value = number;
        return true;
    }
};

// A sink that keeps the bytes in memory, at most 4 GiB - 1. If memory runs out, a write fails and leaves the sink
// unchanged. The sink's own bytes must not be written to it.
class IQORMemoryDataSink : public IQORDataSink {
public:
    // The bytes written so far, or null if nothing was written. Valid until the next write, Empty or the last Release.
    virtual const void* GetData() noexcept = 0;
    virtual uint32 GetSize() noexcept = 0;

    // Drops all bytes.
    virtual void Empty() noexcept = 0;

protected:
    ~IQORMemoryDataSink() = default;
};

// A source that reads bytes of the caller in place; they must outlive the source. A read of more bytes than are left
// fails and consumes nothing.
class IQORMemoryDataSource : public IQORDataSource {
public:
    // The number of bytes that have not been read yet.
    virtual uint32 GetRemaining() noexcept = 0;

protected:
    ~IQORMemoryDataSource() = default;
};

// Create a sink or a source, with a reference for the caller. Both also answer a query for the interface that they
// extend. Throw std::bad_alloc.
inline void create_IQORMemoryDataSink(IQORMemoryDataSink** out) {
    qor::glue::create_IQORMemoryDataSink(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMemoryDataSource(const void* bytes, uint32 size, IQORMemoryDataSource** out) {
    qor::glue::create_IQORMemoryDataSource(bytes, size, out);
    qor::glue::or_throw(*out);
}
