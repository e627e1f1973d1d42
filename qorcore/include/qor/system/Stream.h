// Where the stream forms of the framework's types go to and come from: runs of bytes, and numbers, whose
// layout is the sink's and the source's business. docs/stream-form.md tells what each type writes.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

// Where the stream forms of the framework's types go to. Not thread-safe, unless an implementation says so.
class IQORDataSink : public IQORInterface {
public:
    // Writes all `size` bytes. False: the thread's last error says why; how much was written is not known.
    virtual bool Write(const void* bytes, uint32 size) noexcept = 0;

    // Numbers, little-endian; a sink with another layout overrides them.
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

// Where the stream forms of the framework's types come from. Not thread-safe, unless an implementation says so.
class IQORDataSource : public IQORInterface {
public:
    // Reads exactly `size` bytes. False: the thread's last error says why, data that ends before being one of
    // the reasons; what is in `bytes` then is not known.
    [[nodiscard]] virtual bool Read(void* bytes, uint32 size) noexcept = 0;

    // Numbers, little-endian; a source with another layout overrides them. False: `value` is as it was.
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

// A sink that keeps what is written, at most 4 GiB - 1 bytes. A write that finds no memory fails and leaves
// it as it was. Bytes of its own must not be written to it.
class IQORMemoryDataSink : public IQORDataSink {
public:
    // What was written so far; valid until the next write, Empty or the last Release, and null while there is
    // none.
    virtual const void* GetData() noexcept = 0;
    virtual uint32 GetSize() noexcept = 0;

    // Drops it all.
    virtual void Empty() noexcept = 0;

protected:
    ~IQORMemoryDataSink() = default;
};

// A source that reads what lies in memory, in place: the bytes are the caller's and outlive it. A read of
// more than is left fails and takes nothing.
class IQORMemoryDataSource : public IQORDataSource {
public:
    // The bytes that were not read yet.
    virtual uint32 GetRemaining() noexcept = 0;

protected:
    ~IQORMemoryDataSource() = default;
};

// Both come with a reference for the caller. They answer to their own name and to that of the interface they
// extend.
inline void create_IQORMemoryDataSink(IQORMemoryDataSink** out) {
    qor::glue::create_IQORMemoryDataSink(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMemoryDataSource(const void* bytes, uint32 size, IQORMemoryDataSource** out) {
    qor::glue::create_IQORMemoryDataSource(bytes, size, out);
    qor::glue::or_throw(*out);
}
