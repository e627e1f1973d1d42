// Files from their beginning to their end: a source that reads one, a target that writes one, both buffered, and
// copying between them. docs/streams.md has examples. The classes at the end are what a program normally uses; the
// interfaces are for code that takes any source or sink.
#pragma once

#include "qor/system/File.h"
#include "qor/system/Stream.h"
#include "qor/system/template/SmartPointer.h"

#include <iterator>

// More bytes than any file has: "up to the end".
inline constexpr uint64 qorToTheEnd = ~uint64{0};

// Reads a file. Not thread-safe. The last Release closes the file. Every error names the path and the system's reason.
// An error is permanent: all later reads fail with it.
class IQORFileSource : public IQORDataSource {
public:
    // Opens a file for reading and closes the one opened before. Pipes and devices are accepted, and reading one may
    // wait; folders are refused.
    [[nodiscard]] virtual bool Open(const char* path) noexcept = 0;
    virtual void Close() noexcept = 0;

    // Reads up to `size` bytes; *count is less only at the end of the file, where it is 0. IQORDataSource::Read reads
    // exactly its bytes, and fails if the file ends before.
    [[nodiscard]] virtual bool ReadSome(void* bytes, uint64 size, uint64* count) noexcept = 0;

    // Returns the next bytes in place: *size of them at *bytes, as many as are there without another wait, or 0 at the
    // end of the file. They are valid until the next call of any operation.
    [[nodiscard]] virtual bool ReadBlock(const void** bytes, uint64* size) noexcept = 0;

    // Writes the next bytes to `target`, at most `limit`, and stops at the end of the file. *copied counts them. If the
    // target is a file of the framework, the system copies by itself where it can, and holes stay holes
    // (docs/streams.md). Returns false if a read or a write fails.
    [[nodiscard]] virtual bool CopyTo(IQORDataSink* target, uint64 limit, uint64* copied) noexcept = 0;

    // The number of bytes read so far.
    virtual uint64 GetPosition() noexcept = 0;
    // Whether a read has failed since Open.
    virtual bool HasFailed() noexcept = 0;

protected:
    ~IQORFileSource() = default;
};

// Writes a file. Not thread-safe. Every error names the path and the system's reason. An error is permanent: all later
// operations fail with it, Close included, so that a program may check only Close.
class IQORFileTarget : public IQORDataSink {
public:
    // Opens a file for writing and closes the one opened before. `mode` is a combination of qorFileMode without
    // qorFileReading; 0 means qorFileWriting | qorFileTruncate. Folders, pipes and devices are refused, as by qorFile.
    // With qorFileReplace, which stands alone, the file gets its new content when it is closed, as by qorReplaceFile.
    [[nodiscard]] virtual bool Open(const char* path, uint32 mode) noexcept = 0;

    // Takes what was written further; see qorFlushTo. With qorFileReplace it does not change the file at `path`.
    [[nodiscard]] virtual bool Flush(qorFlushTo where) noexcept = 0;

    // Writes what is left in the buffer and closes the file. With qorFileReplace, puts the new content in its place.
    // The last Release of an open target does the same, and drops the errors, but with qorFileReplace it drops the new
    // content: an operation that was broken off leaves the old one.
    [[nodiscard]] virtual bool Close() noexcept = 0;

    // The number of bytes written so far.
    virtual uint64 GetPosition() noexcept = 0;

protected:
    ~IQORFileTarget() = default;
};

// Create a source or a target without an open file, with a reference for the caller. Both also answer a query for the
// interface that they extend. Throw std::bad_alloc.
inline void create_IQORFileSource(IQORFileSource** out) {
    qor::glue::create_IQORFileSource(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORFileTarget(IQORFileTarget** out) {
    qor::glue::create_IQORFileTarget(out);
    qor::glue::or_throw(*out);
}

// A file that is written from its beginning to its end. The constructor throws std::bad_alloc. The destructor closes
// the file as the last Release of an IQORFileTarget does.
class qorFileTarget {
public:
    qorFileTarget() { create_IQORFileTarget(m_target.Out()); }
    qorFileTarget(const qorFileTarget&) = delete;
    qorFileTarget& operator=(const qorFileTarget&) = delete;

    // Like those of IQORFileTarget.
    [[nodiscard]] bool Open(const char* path, uint32 mode = 0) noexcept { return m_target->Open(path, mode); }
    [[nodiscard]] bool Flush(qorFlushTo where) noexcept { return m_target->Flush(where); }
    [[nodiscard]] bool Close() noexcept { return m_target->Close(); }
    uint64 GetPosition() noexcept { return m_target->GetPosition(); }

    // Writes all bytes. A program may ignore the result and check that of Close.
    bool Write(std::span<const std::byte> bytes) noexcept {
        constexpr std::size_t most = 0x80000000;
        for (; bytes.size() > most; bytes = bytes.subspan(most))
            if (!m_target->Write(bytes.data(), most))
                return false;
        return m_target->Write(bytes.data(), static_cast<uint32>(bytes.size()));
    }
    bool Write(std::string_view text) noexcept { return Write(std::as_bytes(std::span(text))); }

    // The interface, for operations that take a sink. It lives as long as this object.
    IQORFileTarget* Interface() noexcept { return *m_target; }

private:
    zetSmartPointer<IQORFileTarget> m_target;
};

// A file that is read from its beginning to its end, as a whole, in pieces, or in a loop over its blocks:
//
//   for (const std::span<const std::byte> block : source)
//       use(block); // valid until the next round
//   if (source.HasFailed()) ...
//
// The constructor throws std::bad_alloc.
class qorFileSource {
public:
    qorFileSource() { create_IQORFileSource(m_source.Out()); }
    qorFileSource(const qorFileSource&) = delete;
    qorFileSource& operator=(const qorFileSource&) = delete;

    // Like those of IQORFileSource.
    [[nodiscard]] bool Open(const char* path) noexcept { return m_source->Open(path); }
    void Close() noexcept { m_source->Close(); }
    uint64 GetPosition() noexcept { return m_source->GetPosition(); }
    bool HasFailed() noexcept { return m_source->HasFailed(); }

    // Returns the bytes that were read, fewer than the buffer takes only at the end of the file, or nothing on failure.
    [[nodiscard]] std::optional<std::span<std::byte>> Read(std::span<std::byte> buffer) noexcept {
        uint64 count = 0;
        if (!m_source->ReadSome(buffer.data(), buffer.size(), &count))
            return std::nullopt;
        return buffer.first(static_cast<std::size_t>(count));
    }

    // Returns the next bytes in place, none at the end of the file, or nothing on failure. They are valid until the
    // next call.
    [[nodiscard]] std::optional<std::span<const std::byte>> ReadBlock() noexcept {
        const void* bytes = nullptr;
        uint64 size = 0;
        if (!m_source->ReadBlock(&bytes, &size))
            return std::nullopt;
        return std::span(static_cast<const std::byte*>(bytes), static_cast<std::size_t>(size));
    }

    // Writes the next bytes to a target, at most `limit`, and stops at the end of the file. Returns their number, or
    // nothing on failure.
    [[nodiscard]] std::optional<uint64> CopyTo(IQORDataSink* target, uint64 limit = qorToTheEnd) noexcept {
        uint64 copied = 0;
        if (!m_source->CopyTo(target, limit, &copied))
            return std::nullopt;
        return copied;
    }
    [[nodiscard]] std::optional<uint64> CopyTo(qorFileTarget& target, uint64 limit = qorToTheEnd) noexcept {
        return CopyTo(target.Interface(), limit);
    }

    // The interface, for operations that take a source. It lives as long as this object.
    IQORFileSource* Interface() noexcept { return *m_source; }

    // Walks over the blocks of a source. The loop ends at the end of the file and at an error.
    class block_iterator {
    public:
        using value_type = std::span<const std::byte>; // bytes in place
        using difference_type = std::ptrdiff_t;        // as iterators need it

        block_iterator() noexcept = default;
        // Reads the first block of a source, which must outlive the iterator.
        explicit block_iterator(qorFileSource* source) noexcept : m_source(source) { ++*this; }

        // The current block.
        value_type operator*() const noexcept { return m_block; }
        // Reads the next block.
        block_iterator& operator++() noexcept {
            m_block = m_source->ReadBlock().value_or(value_type());
            return *this;
        }
        void operator++(int) noexcept { ++*this; }
        // Whether there is no further block.
        bool operator==(std::default_sentinel_t) const noexcept { return m_block.empty(); }

    private:
        qorFileSource* m_source = nullptr;
        value_type m_block;
    };

    // For range-for, which can be done once.
    block_iterator begin() noexcept { return block_iterator(this); }
    std::default_sentinel_t end() noexcept { return {}; }

private:
    zetSmartPointer<IQORFileSource> m_source;
};
